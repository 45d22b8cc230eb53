// confd-emu-cli: sends one command line to confd-emu and prints the JSON answer.
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include "confd_lib.h"
#include "wire.h"

namespace
{

const char kUsage[] =
    "usage: confd-emu-cli [--port N] COMMAND [ARGS...]\n"
    "Talks to confd-emu on 127.0.0.1 (port 4565 unless --port) and prints its JSON answer.\n"
    "Commands:\n"
    "  get PATH [--context C]            one get_elem on a leaf\n"
    "  next PATH [--cookie N]            one get_next on a list (cookie -1 by default)\n"
    "  walk PATH [--leaves a,b] [--limit N]\n"
    "                                    get_next through a list following its cookies,\n"
    "                                    get_elem on its leaves; fails (exit 1) on a cookie\n"
    "                                    seen before or after N rows (default 100000)\n"
    "  set PATH VALUE [--user U]         a write transaction setting one leaf (a set hook\n"
    "                                    is told of it; stored data is committed)\n"
    "  commit [--user U] PATH=VALUE...   change the configuration in one transaction;\n"
    "                                    a PATH alone creates that list entry,\n"
    "                                    !PATH deletes that node, PATH^ or PATH^{KEYS}\n"
    "                                    moves a user-ordered entry first or after\n"
    "                                    {KEYS}, PATH@ATTR=TEXT / !PATH@ATTR sets or\n"
    "                                    removes attribute tags|annotation|inactive\n"
    "  audit SYMBOL [--user U] [--msg T] send an audit event (SNMP_AUTHENTICATION_FAILED)\n"
    "  notifications [--clear]           SNMP notifications received from daemons\n"
    "  drop control|worker|notifications close those connections\n"
    "  fail OP [--times N]               make the next N MAAPI requests OP (or registrations:\n"
    "                                    register_data_cb, register_done, ...) fail\n"
    "  status                            connected daemons and their registrations\n"
    "PATH is a keypath such as /TCP-MIB/tcpListenerTable/tcpListenerEntry{1 7f000001 22}/x;\n"
    "a key written TYPE:text (C_INT32:5) is sent with that type. Data without a callpoint\n"
    "(or under a set hook) is read from and written to the running configuration.\n";

// Closes the socket when the client is done with it.
struct Fd {
    int fd;
    ~Fd()
    {
        if (fd >= 0) close(fd);
    }
};

int fail(const std::string &msg)
{
    std::fprintf(stderr, "confd-emu-cli: %s\n", msg.c_str());
    return 1;
}

} // namespace

int main(int argc, char **argv)
{
    long port = 4565;
    int i = 1;
    while (i < argc) {
        std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (a != "--port") break;
        char *end = nullptr;
        errno = 0;
        port = i + 1 < argc ? std::strtol(argv[i + 1], &end, 10) : -1;
        if (i + 1 >= argc || errno || *end || port < 1 || port > 65535)
            return fail("--port needs a port number 1-65535");
        i += 2; // the switch and its value
    }
    if (i >= argc) {
        std::fputs(kUsage, stderr);
        return 2;
    }

    Fd s{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    if (s.fd < 0) return fail(std::string("socket: ") + std::strerror(errno));
    struct sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sa.sin_port = htons(static_cast<uint16_t>(port));
    if (connect(s.fd, reinterpret_cast<struct sockaddr *>(&sa), sizeof sa) < 0)
        return fail("cannot connect to confd-emu at 127.0.0.1:" + std::to_string(port) + ": " +
                    std::strerror(errno));

    using namespace confd_wire;
    std::string reply;
    Writer hello(Op::Hello);
    hello.u8(static_cast<uint8_t>(ConnKind::Cli));
    if (!send_frame(s.fd, hello.payload()) || recv_frame(s.fd, reply) != 1 ||
        Reader(reply).op() != Op::Ok)
        return fail("confd-emu did not accept the connection");

    Writer cmd(Op::Cli);
    cmd.u32(static_cast<uint32_t>(argc - i));
    for (int k = i; k < argc; k++)
        cmd.str(argv[k]);
    if (!send_frame(s.fd, cmd.payload()) || recv_frame(s.fd, reply) != 1)
        return fail("confd-emu closed the connection without answering");
    Reader r(reply);
    Op op = r.op();
    if (op == Op::Err) {
        // CONFD_ERR_EXTERNAL: the command ran and failed (a walk that does not end).
        bool ran = r.i32() == CONFD_ERR_EXTERNAL;
        return fail((ran ? "" : "confd-emu refused the command: ") + r.str());
    }
    std::string json = r.str();
    if (op != Op::Ok || !r.ok()) return fail("confd-emu sent a malformed answer");
    std::fwrite(json.data(), 1, json.size(), stdout);
    std::fputc('\n', stdout);
    return std::fflush(stdout) == 0 ? 0 : 1;
}
