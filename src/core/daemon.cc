// Start-up of the leisobek daemon and its poll loop over the ConfD control and worker sockets.
#include "daemon.h"

#include "leisobek.h"
#include "state.h"
#include "switches.h"
#include "sysenv.h"
#include "notify/audit.h"
#include "notify/boot_state.h"
#include "notify/notify.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <syslog.h>

namespace
{

// Sends the agent notification the -n switch chose; start mode 0 ends the
// process here, before any provider is registered.
void announce_agent(int start_mode)
{
    if (start_mode == 1) {
        send_ucd_start();
    } else if (start_mode == 0) {
        send_ucd_shutdown();
        exit(1);
    }
}

// Runs the product-identifier command and logs the identifier. The answer is
// kept in a local buffer only: PRODUCT_ID is deliberately left as it is, so
// the log line always reads PRODUCT_ID is ''.
void log_product_id()
{
    char command[128] = {};
    char answer[128] = {};
    snprintf(command, sizeof command, "%s", PRODUCT_ID_COMMAND);
    read_command_line(command, answer, sizeof answer);
    if (verbose) syslog(LOG_INFO, "PRODUCT_ID is '%s'\n", PRODUCT_ID);
}

// Serves one readable ConfD socket (control when is_control, else worker). A
// closed socket and any library error are fatal; an error that a provider's
// callback returned (CONFD_ERR_EXTERNAL) only failed that request.
void serve_socket(int sock, bool is_control)
{
    int ret = confd_fd_ready(daemon_ctx, sock);
    if (ret == CONFD_EOF)
        confd_fatal(is_control ? "Control socket closed\n" : "Worker socket closed\n");
    if (ret != CONFD_ERR || confd_errno == CONFD_ERR_EXTERNAL) return;
    if (is_control)
        confd_fatal("Error on control socket request: %s (%d): %s\n", confd_strerror(confd_errno),
                    confd_errno, confd_lasterr());
    else
        confd_fatal("Error on worker socket request: %s (%d): %s\n", confd_strerror(confd_errno),
                    confd_errno, confd_lasterr());
}

// Serves ConfD's requests forever; only a fatal error ends it.
[[noreturn]] void main_loop()
{
    for (;;) {
        struct pollfd set[2];
        set[0].fd = ctl_sock;
        set[0].events = POLLIN;
        set[0].revents = 0;
        set[1].fd = worker_sock;
        set[1].events = POLLIN;
        set[1].revents = 0;

        if (poll(set, 2, -1) < 0) {
            perror("Poll failed:");
            continue;
        }
        // POLLHUP or POLLERR alone are left alone: a closed socket shows up
        // as CONFD_EOF once it reads as ready.
        if (set[0].revents & POLLIN) serve_socket(ctl_sock, true);
        if (set[1].revents & POLLIN) serve_socket(worker_sock, false);
    }
}

} // namespace

void daemon_main(int argc, char *argv[])
{
    verbose = 1;

    struct daemon_switches sw = parse_switches(argc, argv);
    debug_level = sw.debug_level;

    memset(&confd_addr, 0, sizeof confd_addr);
    confd_addr.sin_family = AF_INET;
    inet_pton(AF_INET, "127.0.0.1", &confd_addr.sin_addr);
    confd_addr.sin_port = htons(4565);
    const auto *addr = reinterpret_cast<const struct sockaddr *>(&confd_addr);
    const int addr_size = sizeof confd_addr;

    confd_init("leisobek", stderr, static_cast<enum confd_debug_level>(debug_level));

    daemon_ctx = confd_init_daemon("leisobek");
    if (daemon_ctx == nullptr) confd_fatal("Failed to initialize confd\n");

    ctl_sock = socket(PF_INET, SOCK_STREAM, 0);
    if (ctl_sock < 0) confd_fatal("Failed to open ctlsocket\n");

    // The schema load is the first connection made, so it is the step that
    // notices a ConfD that is not there.
    if (confd_load_schemas(addr, addr_size) != CONFD_OK)
        confd_fatal("Failed to load schemas from confd\n");

    int msock = socket(PF_INET, SOCK_STREAM, 0);
    if (msock < 0) confd_fatal("Failed to open socket\n");
    if (maapi_connect(msock, addr, addr_size) < 0)
        confd_fatal("Failed to maapi_connect() to confd \n");
    maapi_sock = msock;

    if (confd_connect(daemon_ctx, ctl_sock, CONTROL_SOCKET, addr, addr_size) < 0)
        confd_fatal("Failed to confd_connect() to confd \n");

    worker_sock = socket(PF_INET, SOCK_STREAM, 0);
    if (worker_sock < 0) confd_fatal("Failed to open workersocket\n");
    if (confd_connect(daemon_ctx, worker_sock, WORKER_SOCKET, addr, addr_size) < 0)
        confd_fatal("Failed to confd_connect() to confd \n");

    trans_cbs.init = trans_init;
    trans_cbs.finish = trans_finish;
    confd_register_trans_cb(daemon_ctx, &trans_cbs);

    // Empty notify and context names: every notify target, default context.
    check_confd_ok(
        confd_register_snmp_notification(daemon_ctx, worker_sock, "", "", &snmp_notif_ctx), 519);

    announce_agent(sw.start_mode);
    boot_state_notify();

    register_providers(daemon_ctx, maapi_sock);

    if (confd_register_done(daemon_ctx) != CONFD_OK)
        confd_fatal("Failed to complete registration \n");

    log_product_id();

    pthread_t audit;
    pthread_create(&audit, nullptr, audit_thread, nullptr);

    pthread_rwlock_init(&ifstate_rwlock, nullptr);

    main_loop();
}
