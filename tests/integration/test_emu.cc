// confd-emu through the client library and its CLI: test daemons, MAAPI, the datastore and events.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "confd_lib.h"
#include "confd_dp.h"
#include "confd_maapi.h"
#include "TCP-MIB.h"
#include "cli_json.h"
#include "confd_events.h"
#include "harness.h"

namespace
{

const std::string kOk = "{\"result\":\"ok\"}";

// The call failed with CONFD_ERR and confd_errno code.
::testing::AssertionResult fails(int rc, int code)
{
    if (rc == CONFD_ERR && confd_errno == code) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "returned " << rc << " with confd_errno " << confd_errno
                                         << " (" << confd_lasterr() << ")";
}

// A connected MAAPI socket, closed at the end of the scope.
class Maapi
{
  public:
    explicit Maapi(int port)
    {
        sockaddr_in sa = harness::loopback(port);
        fd_ = socket(AF_INET, SOCK_STREAM, 0);
        ok_ = maapi_connect(fd_, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == CONFD_OK;
    }
    ~Maapi() { ok_ ? maapi_close(fd_) : close(fd_); }
    Maapi(const Maapi &) = delete;
    Maapi &operator=(const Maapi &) = delete;
    bool ok() const { return ok_; }
    int fd() const { return fd_; }

    // A session in the "system" context and a read transaction on running, as the daemon opens
    // them.
    int start()
    {
        struct confd_ip src = {};
        src.af = AF_INET;
        if (maapi_start_user_session3(fd_, nullptr, "system", nullptr, 0, &src, 0, CONFD_PROTO_TCP,
                                      nullptr, nullptr, nullptr, "test:1") != CONFD_OK)
            return CONFD_ERR;
        return maapi_start_trans_flags2(fd_, CONFD_RUNNING, CONFD_READ, 0, 0, nullptr, nullptr,
                                        nullptr, "test:2");
    }

  private:
    int fd_ = -1;
    bool ok_ = false;
};

// XPath string of an expression, or "<null>" when there is none; rc gets the result code.
std::string xpath(int sock, int th, const char *expr, const char *ctx, int *rc = nullptr)
{
    char *res = reinterpret_cast<char *>(&res); // must come back NULL on failure
    int r = ctx ? maapi_xpath_eval_expr(sock, th, expr, &res, nullptr, "%s", ctx)
                : maapi_xpath_eval_expr(sock, th, expr, &res, nullptr, nullptr);
    if (rc) *rc = r;
    if (r != CONFD_OK) return res == nullptr ? "<null>" : "<not reset>";
    std::string out = res ? res : "<null>";
    free(res);
    return out;
}

// The library's type-blind text of a value ("enum<1>", "10.0.0.1", "[a b]").
std::string text(const confd_value_t *v)
{
    char buf[256];
    confd_pp_value(buf, sizeof buf, v);
    return buf;
}

// Appends one change seen by maapi_diff_iterate to the vector of lines state: "OP path[=value]".
enum maapi_iter_ret collect(confd_hkeypath_t *kp, enum maapi_iter_op op, confd_value_t *oldv,
                            confd_value_t *newv, void *state)
{
    static const char *const ops[] = {"?",   "created", "deleted", "modified",
                                      "set", "moved",   "attr"};
    char buf[512];
    confd_pp_kpath(buf, sizeof buf, kp);
    std::string line = std::string(ops[op <= 6 ? op : 0]) + " " + buf;
    if (newv && op == MOP_ATTR_SET) {
        line += "=" + text(&newv[0]) + " " + (newv[1].type == C_NOEXISTS ? "-" : text(&newv[1]));
    } else if (newv && op == MOP_MOVED_AFTER) {
        line += "=";
        for (int i = 0; newv[i].type != C_NOEXISTS; i++)
            line += (i ? " " : "") + text(&newv[i]);
    } else if (newv) {
        // Text of the leaf's schema type (enumerations by name), as the daemon's audit listener
        // prints it.
        confd_cs_node *leaf = confd_find_cs_node(kp, kp->len);
        if (!leaf || !leaf->info.type || confd_val2str(leaf->info.type, newv, buf, sizeof buf) < 0)
            snprintf(buf, sizeof buf, "%s", "<no type>");
        line += "=" + std::string(buf);
    }
    if (oldv) line += " (old value given)";
    static_cast<std::vector<std::string> *>(state)->push_back(line);
    return ITER_RECURSE;
}

// How the test daemon misbehaves, if at all.
enum class Quirk {
    None,
    WrongLeafType, // tcpListenerProcess answered as C_INT32
    WrongKeyType,  // listener port key answered as C_INT32
    Silent,        // get_elem returns CONFD_OK without replying
    Error,         // get_elem fails with a confd_trans_seterr text
    NoExists,      // get_elem answers C_NOEXISTS
    StuckCookie,   // get_next hands back the cookie it was given
    BadRow,        // get_next fails at the 51st entry
};

// A data provider on the client library with a main loop on its own thread like the daemon's:
// control, worker and MAAPI sockets to confd-emu on 127.0.0.1:port, closed and released when it
// goes away. Its transactions attach to MAAPI at init and detach at finish (counted by confd-emu).
// Its own callbacks serve "tcp_status": rows listeners on 127.0.0.1, ports 1 to rows, port P held
// by process 100000 + P.
class TestDaemon
{
  public:
    explicit TestDaemon(int port, uint32_t rows = 3) : port_(port), rows_(rows)
    {
        confd_init("it", nullptr, CONFD_SILENT);
        dx_ = confd_init_daemon("testd");
        if (dx_) dx_->d_opaque = this;
    }
    ~TestDaemon()
    {
        stop_ = true;
        if (th_.joinable()) th_.join();
        for (int fd : {ctl_, wrk_, maapi_})
            if (fd >= 0) close(fd);
        if (dx_) confd_release_daemon(dx_);
    }
    TestDaemon(const TestDaemon &) = delete;
    TestDaemon &operator=(const TestDaemon &) = delete;

    // Connects the three sockets, registers the callbacks and starts the main loop; false with err
    // naming the step that failed.
    bool start(std::string &err)
    {
        sockaddr_in sa = harness::loopback(port_);
        auto *sp = reinterpret_cast<sockaddr *>(&sa);
        for (int *fd : {&ctl_, &wrk_, &maapi_})
            *fd = socket(AF_INET, SOCK_STREAM, 0);
        if (!dx_) return fail(err, "confd_init_daemon");
        if (confd_connect(dx_, ctl_, CONTROL_SOCKET, sp, sizeof sa) != CONFD_OK)
            return fail(err, "control connect");
        if (confd_connect(dx_, wrk_, WORKER_SOCKET, sp, sizeof sa) != CONFD_OK)
            return fail(err, "worker connect");
        if (maapi_connect(maapi_, sp, sizeof sa) != CONFD_OK) return fail(err, "maapi_connect");
        confd_trans_cbs tcb = {};
        tcb.init = [](confd_trans_ctx *t) {
            TestDaemon *d = self(t);
            confd_trans_set_fd(t, d->wrk_);
            return maapi_attach(d->maapi_, 0, t) == CONFD_OK ? CONFD_OK : CONFD_ERR;
        };
        tcb.finish = [](confd_trans_ctx *t) {
            maapi_detach(self(t)->maapi_, t);
            return CONFD_OK;
        };
        confd_data_cbs dcb = {};
        std::snprintf(dcb.callpoint, sizeof dcb.callpoint, "%s", "tcp_status");
        dcb.get_elem = get_elem;
        dcb.get_next = get_next;
        if (confd_register_trans_cb(dx_, &tcb) != CONFD_OK ||
            confd_register_data_cb(dx_, &dcb) != CONFD_OK ||
            confd_register_snmp_notification(dx_, wrk_, "", "", &nctx_) != CONFD_OK ||
            confd_register_done(dx_) != CONFD_OK)
            return fail(err, "registration");
        th_ = std::thread([this] {
            struct pollfd pfd[2] = {{ctl_, POLLIN, 0}, {wrk_, POLLIN, 0}};
            while (!stop_ && (pfd[0].fd >= 0 || pfd[1].fd >= 0)) {
                if (poll(pfd, 2, 20) <= 0) continue;
                for (struct pollfd &p : pfd) {
                    if (p.fd < 0 || !(p.revents & (POLLIN | POLLHUP))) continue;
                    if (confd_fd_ready(dx_, p.fd) != CONFD_EOF) continue;
                    if (p.fd == ctl_) control_closed_ = true;
                    p.fd = -1; // closed by confd-emu: read no more
                }
            }
        });
        return true;
    }

    // Waits up to 5 s until the main loop has seen confd-emu close the control socket.
    bool wait_control_closed()
    {
        for (int i = 0; i < 500 && !control_closed_; i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return control_closed_;
    }

    // Sends linkUp with an ifIndex and an ifDescr binding from the calling thread.
    int send_link_up(int32_t index, const std::string &descr)
    {
        struct confd_snmp_varbind vb[2];
        std::memset(vb, 0, sizeof vb);
        vb[0].type = vb[1].type = CONFD_SNMP_VARIABLE;
        std::snprintf(vb[0].var.name, sizeof vb[0].var.name, "%s", "ifIndex");
        CONFD_SET_INT32(&vb[0].val, index);
        std::snprintf(vb[1].var.name, sizeof vb[1].var.name, "%s", "ifDescr");
        CONFD_SET_STR(&vb[1].val, descr.c_str());
        return confd_notification_send_snmp(nctx_, "linkUp", vb, 2);
    }

    std::atomic<Quirk> quirk{Quirk::None};

  private:
    static TestDaemon *self(struct confd_trans_ctx *tctx)
    {
        return static_cast<TestDaemon *>(tctx->dx->d_opaque);
    }

    static int get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
    {
        TestDaemon *d = self(tctx);
        confd_value_t v;
        uint32_t leaf = CONFD_GET_XMLTAG(&kp->v[0][0]);
        if (leaf != TCP_MIB_tcpListenerProcess) return confd_data_reply_not_found(tctx);
        switch (d->quirk.load()) {
        case Quirk::Silent:
            return CONFD_OK;
        case Quirk::Error:
            confd_trans_seterr(tctx, "process table \"%s\" unreadable", "ps\\1");
            return CONFD_ERR;
        case Quirk::NoExists:
            CONFD_SET_NOEXISTS(&v);
            return confd_data_reply_value(tctx, &v);
        default:
            break;
        }
        uint32_t port = kp->v[1][2].val.u32;
        if (port < 1 || port > d->rows_) return confd_data_reply_not_found(tctx);
        if (d->quirk == Quirk::WrongLeafType)
            CONFD_SET_INT32(&v, static_cast<int32_t>(100000 + port));
        else
            CONFD_SET_UINT32(&v, 100000 + port);
        return confd_data_reply_value(tctx, &v);
    }

    static int get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *, long next)
    {
        TestDaemon *d = self(tctx);
        static unsigned char loopback[] = {127, 0, 0, 1};
        uint32_t i = next < 0 ? 0 : static_cast<uint32_t>(next);
        uint32_t port = i + 1;
        if (port > d->rows_) return confd_data_reply_next_key(tctx, nullptr, -1, -1);
        if (d->quirk == Quirk::BadRow && port == 51) {
            confd_trans_seterr(tctx, "entry %u unreadable", port);
            return CONFD_ERR;
        }
        confd_value_t k[3];
        CONFD_SET_ENUM_VALUE(&k[0], 1);
        CONFD_SET_BINARY(&k[1], loopback, 4);
        if (d->quirk == Quirk::WrongKeyType)
            CONFD_SET_INT32(&k[2], static_cast<int32_t>(port));
        else
            CONFD_SET_UINT32(&k[2], port);
        long cookie = d->quirk == Quirk::StuckCookie && next >= 0 ? next : static_cast<long>(i + 1);
        return confd_data_reply_next_key(tctx, k, 3, cookie);
    }

    bool fail(std::string &err, const char *what)
    {
        err = std::string("testd: ") + what + " failed: " + confd_lasterr();
        return false;
    }

    const int port_;
    const uint32_t rows_;
    confd_daemon_ctx *dx_ = nullptr;
    int ctl_ = -1, wrk_ = -1, maapi_ = -1;
    struct confd_notification_ctx *nctx_ = nullptr;
    std::thread th_;
    std::atomic<bool> stop_{false}, control_closed_{false};
};

// A test with a confd-emu of its own, which must stop cleanly at the end.
class EmuTestBase : public ::testing::Test
{
  protected:
    void start_emu(std::vector<std::string> args)
    {
        emu_ = std::make_unique<harness::Emu>(std::move(args));
        std::string err;
        ASSERT_TRUE(emu_->start(err)) << err;
    }
    void TearDown() override
    {
        if (emu_) {
            EXPECT_EQ(emu_->stop(), 0) << emu_->log();
        }
    }
    // Runs confd-emu-cli; expects it to succeed and returns its output without the newline.
    std::string cli(const std::vector<std::string> &args)
    {
        harness::CmdResult r = emu_->cli(args);
        EXPECT_EQ(r.exit_code, 0) << r.err;
        EXPECT_FALSE(r.out.empty());
        if (!r.out.empty() && r.out.back() == '\n') r.out.pop_back();
        return r.out;
    }
    int port() const { return emu_->port(); }

    std::unique_ptr<harness::Emu> emu_;
};

const char kListeners[] = "/TCP-MIB/tcpListenerTable/tcpListenerEntry";
const char kProcess1[] =
    "/TCP-MIB/tcpListenerTable/tcpListenerEntry{1 7f000001 1}/tcpListenerProcess";

// The keys of the listener on port as the CLI prints them.
std::string keys_json(int port)
{
    return R"([{"type":"C_ENUM_VALUE","value":1},{"type":"C_BINARY","value":"7f000001"},)"
           R"({"type":"C_UINT32","value":)" +
           std::to_string(port) + "}]";
}

// The listener on port as a walk prints it, with its process leaf.
std::string row_json(int port)
{
    return R"({"keys":)" + keys_json(port) +
           R"(,"leaves":{"tcpListenerProcess":{"type":"C_UINT32","value":)" +
           std::to_string(100000 + port) + "}}}";
}

class EmuTest : public EmuTestBase
{
  protected:
    // Starts confd-emu with the extra arguments and, unless with_daemon is false, the test daemon
    // serving rows listeners.
    void start(std::vector<std::string> args = {}, bool with_daemon = true, uint32_t rows = 3)
    {
        ASSERT_NO_FATAL_FAILURE(start_emu(std::move(args)));
        if (!with_daemon) return;
        daemon_ = std::make_unique<TestDaemon>(port(), rows);
        std::string err;
        ASSERT_TRUE(daemon_->start(err)) << err;
    }
    void TearDown() override
    {
        daemon_.reset();
        EmuTestBase::TearDown();
    }

    std::unique_ptr<TestDaemon> daemon_;
};

// Verifies the command-line client's own contract: an unreachable server, and the paths and values
// it refuses.
TEST_F(EmuTest, CliContractWithoutDaemons)
{
    start({}, false);
    // Nothing listens on the privileged port 1 of 127.0.0.1.
    harness::CmdResult down =
        harness::run({harness::confd_emu_cli_path(), "--port", "1", "status"});
    EXPECT_EQ(down.exit_code, 1);
    EXPECT_TRUE(down.out.empty());
    EXPECT_NE(down.err.find("cannot connect"), std::string::npos);

    const std::string listeners = kListeners;
    EXPECT_EQ(cli({"get", kListeners}), R"({"error":")" + listeners + R"( is not a leaf"})");
    EXPECT_EQ(cli({"walk", listeners + "{1 7f000001 22}"}),
              R"({"error":")" + listeners + R"({1 7f000001 22}: give the list without keys"})");
    EXPECT_EQ(cli({"get", "/TCP-MIB/nosuch"}).rfind("{\"error\":", 0), 0u);
    EXPECT_EQ(cli({"set", "/TCP-MIB/tcp/tcpRtoMin", "many"}).rfind("{\"error\":", 0), 0u);
}

// Verifies that a walk prints exactly the daemon's rows in one transaction, and next's answers.
TEST_F(EmuTest, WalkPrintsTheRowsInOneTransaction)
{
    start();
    EXPECT_EQ(cli({"walk", kListeners}),
              "[" + row_json(1) + "," + row_json(2) + "," + row_json(3) + "]");
    EXPECT_NE(cli({"status"}).find("\"maapi_attaches\":1,\"maapi_detaches\":1"), std::string::npos)
        << cli({"status"});
    EXPECT_EQ(cli({"next", kListeners, "--cookie", "2"}),
              "{\"keys\":" + keys_json(3) + ",\"next\":3}");
    EXPECT_EQ(cli({"next", kListeners, "--cookie", "3"}), "{\"keys\":null,\"next\":-1}");
    EXPECT_EQ(cli({"walk", kListeners, "--leaves", "tcpListenerLocalPort,nosuch"}),
              "{\"error\":\"list tcpListenerEntry has no leaf \\\"nosuch\\\"\"}");
}

// Verifies every kind of answer (values, C_NOEXISTS, not found, errors, replies that do not fit the
// schema) and that a walk follows the cookies, stopping on one that comes back or past --limit.
TEST_F(EmuTest, AnswersOfEveryKind)
{
    start();
    const std::string missing =
        "/TCP-MIB/tcpListenerTable/tcpListenerEntry{1 7f000001 4}/tcpListenerProcess";
    const struct {
        Quirk quirk;
        std::vector<std::string> args;
        std::string want;
    } answers[] = {
        {Quirk::None, {"get", kProcess1}, R"({"type":"C_UINT32","value":100001})"},
        {Quirk::None, {"get", missing}, R"({"reply":"not-found"})"},
        {Quirk::NoExists, {"get", kProcess1}, R"({"type":"C_NOEXISTS"})"},
        {Quirk::Error, {"get", kProcess1}, R"({"error":"process table \"ps\\1\" unreadable"})"},
        {Quirk::WrongLeafType,
         {"get", kProcess1},
         R"({"error":"leaf tcpListenerProcess expects C_UINT32 (uint32), daemon replied C_INT32"})"},
        {Quirk::WrongKeyType,
         {"next", kListeners},
         R"({"error":"key tcpListenerLocalPort expects C_UINT32 (tcp-port), daemon replied C_INT32"})"},
    };
    for (const auto &a : answers) {
        daemon_->quirk = a.quirk;
        EXPECT_EQ(cli(a.args), a.want) << static_cast<int>(a.quirk);
    }

    daemon_->quirk = Quirk::Error;
    std::string walk = cli({"walk", kListeners});
    EXPECT_NE(walk.find("\"leaves\":{\"tcpListenerProcess\":{\"error\":\"process table"),
              std::string::npos)
        << walk;
    daemon_->quirk = Quirk::None;
    harness::CmdResult limited = emu_->cli({"walk", kListeners, "--limit", "2"});
    EXPECT_EQ(limited.exit_code, 1);
    EXPECT_EQ(limited.err,
              "confd-emu-cli: walk of tcpListenerEntry stopped after 2 rows (--limit)\n");
    daemon_->quirk = Quirk::StuckCookie;
    harness::CmdResult stuck = emu_->cli({"walk", kListeners});
    EXPECT_EQ(stuck.exit_code, 1);
    EXPECT_TRUE(stuck.out.empty());
    EXPECT_EQ(stuck.err, "confd-emu-cli: daemon testd returned cookie 1 again after 2 rows: the "
                         "walk of tcpListenerEntry does not advance\n");
    EXPECT_NE(cli({"status"}).find("\"open_transactions\":0,"), std::string::npos);
}

// Verifies that a callback that never answers times out and its daemon is then treated as dead.
TEST_F(EmuTest, SilentCallbackTimesOut)
{
    start({"--timeout-ms", "300"});
    daemon_->quirk = Quirk::Silent;
    auto t0 = std::chrono::steady_clock::now();
    std::string out = cli({"get", kProcess1});
    auto took = std::chrono::steady_clock::now() - t0;
    EXPECT_EQ(out, "{\"error\":\"daemon testd did not answer get_elem within 300 ms\"}");
    EXPECT_LT(took, std::chrono::seconds(5));
    EXPECT_TRUE(daemon_->wait_control_closed());
    EXPECT_NE(cli({"status"}).find("\"daemons\":[],\"open_transactions\":0,"), std::string::npos);
    EXPECT_EQ(cli({"get", kProcess1}),
              "{\"error\":\"no daemon has registered callpoint tcp_status\"}");
}

// Verifies that a GETBULK through the SNMP front end, which reads a column's values ahead in
// batches, answers each row as one get_elem would: more rows than a batch holds, and a failing
// get_elem a genErr.
TEST_F(EmuTest, SnmpBulkReadsAColumnAhead)
{
    const std::string agent = "127.0.0.1:" + std::to_string(20000 + getpid() % 10000);
    start({"--snmp", "udp:" + agent}, true, 100);
    auto bulk = [&] { // exactly the column's 100 rows
        return harness::run({"/usr/bin/snmpbulkget", "-v2c", "-c", "public", "-Oqv", "-Cn0",
                             "-Cr100", "-t", "2", "-r", "0", agent, ".1.3.6.1.2.1.6.20.1.4"});
    };
    std::string want;
    for (int p = 1; p <= 100; p++)
        want += std::to_string(100000 + p) + "\n";
    harness::CmdResult r;
    // The rows come from get_next requests for many entries each: a walk that stops advancing or
    // fails half-way fails the PDU rather than ending the table early. A failed read is not kept
    // for the PDUs after it.
    for (Quirk q : {Quirk::StuckCookie, Quirk::BadRow, Quirk::Error}) {
        daemon_->quirk = q;
        r = bulk();
        EXPECT_NE(r.err.find("genError"), std::string::npos) << static_cast<int>(q) << r.out;
    }
    daemon_->quirk = Quirk::None;
    r = bulk();
    EXPECT_EQ(r.out, want) << r.err << emu_->log();
    // Past the last row, a GETNEXT goes over the groups no daemon serves here (UDP-MIB's scalars
    // among them) instead of failing on them.
    r = harness::run({"/usr/bin/snmpgetnext", "-v2c", "-c", "public", "-On", "-t", "2", "-r", "0",
                      agent, ".1.3.6.1.2.1.6.20.1.4.1.4.127.0.0.1.100"});
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out.find(".1.3.6.1.2.1.6."), std::string::npos) << r.out;
}

// Verifies that a 10 000-row walk and two threads' SNMP notifications on the same worker socket all
// arrive whole, each thread's in its own order. (Run under the tsan preset too.)
TEST_F(EmuTest, ThreadedWalkAndNotificationsShareTheWorkerSocket)
{
    constexpr int kRowsInWalk = 10000, kPerThread = 300;
    start({}, true, kRowsInWalk);

    std::atomic<int> failures{0};
    std::vector<std::thread> senders;
    // Bindings large enough that a frame often meets a full socket buffer half-way.
    const std::string filler(3000, 'x');
    auto descr = [&](int t, int i) {
        return "port-" + std::to_string(t) + "-" + std::to_string(i) + "-" + filler;
    };
    for (int t = 0; t < 2; t++)
        senders.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; i++)
                if (daemon_->send_link_up(t * 1000 + i, descr(t, i)) != CONFD_OK) failures++;
        });
    std::string walk = cli({"walk", kListeners, "--leaves", "tcpListenerProcess"});
    for (auto &s : senders)
        s.join();
    EXPECT_EQ(failures.load(), 0);

    std::vector<cli_json::row> got;
    ASSERT_TRUE(cli_json::parse_walk(walk, got)) << walk.substr(0, 200);
    ASSERT_EQ(got.size(), static_cast<size_t>(kRowsInWalk));
    for (int i = 0; i < kRowsInWalk; i++) {
        const cli_json::row &r = got[static_cast<size_t>(i)];
        ASSERT_EQ(r.keys, (std::vector<std::string>{"1", "7f000001", std::to_string(i + 1)}));
        ASSERT_EQ(r.leaves.at("tcpListenerProcess"), std::to_string(100001 + i));
    }

    // The server reads the frames on its own thread; wait until all are logged.
    const std::string logged = "\"notifications\":" + std::to_string(2 * kPerThread) + ",";
    for (int i = 0; i < 500 && cli({"status"}).find(logged) == std::string::npos; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    cli_json::value log;
    ASSERT_TRUE(cli_json::parse(cli({"notifications"}), log));
    ASSERT_EQ(log.items.size(), static_cast<size_t>(2 * kPerThread));
    int next[2] = {0, 0};
    for (const cli_json::value &n : log.items) {
        ASSERT_EQ(n["name"].text, "linkUp");
        int index = std::stoi(n["varbinds"].items.at(0)["value"].text);
        int t = index / 1000, i = index % 1000;
        ASSERT_TRUE(t == 0 || t == 1) << index;
        ASSERT_EQ(i, next[t]++) << "thread " << t << " out of order";
        ASSERT_EQ(n["varbinds"].items.at(1)["value"].text, descr(t, i));
    }
}

// An event subscriber on its own thread, as the daemon's audit listener: commit-diff events are
// read through a MAAPI attach, then answered.
class Subscriber
{
  public:
    struct Event {
        int type = 0, logno = 0;
        std::string user, msg;
        std::vector<std::string> changes;
    };

    Subscriber(int port, int mask) : port_(port)
    {
        sockaddr_in sa = harness::loopback(port);
        fd_ = socket(AF_INET, SOCK_STREAM, 0);
        ok_ = confd_notifications_connect(fd_, reinterpret_cast<sockaddr *>(&sa), sizeof sa,
                                          mask) == CONFD_OK;
        if (ok_) th_ = std::thread([this] { run(); });
    }
    ~Subscriber()
    {
        stop_ = true;
        if (th_.joinable()) th_.join();
        close(fd_);
    }
    bool ok() const { return ok_; }

    // The events read so far, once at least n have come (or after 5 s).
    std::vector<Event> wait(size_t n)
    {
        std::unique_lock<std::mutex> lk(mu_);
        arrived_.wait_for(lk, std::chrono::seconds(5), [&] { return events_.size() >= n; });
        return events_;
    }

  private:
    void run()
    {
        while (!stop_) {
            struct pollfd p = {fd_, POLLIN, 0};
            if (poll(&p, 1, 20) <= 0) continue;
            struct confd_notification n;
            int r = confd_read_notification(fd_, &n);
            if (r == CONFD_EOF) return;
            if (r != CONFD_OK) continue;
            Event e;
            e.type = n.type;
            if (n.type == CONFD_NOTIF_AUDIT) {
                e.logno = n.n.audit.logno;
                e.user = n.n.audit.user;
                e.msg = n.n.audit.msg;
            } else if (n.type == CONFD_NOTIF_COMMIT_DIFF) {
                e.user = n.n.commit_diff.uinfo.username;
                Maapi m(port_);
                if (m.ok() && maapi_attach(m.fd(), -1, n.n.commit_diff.tctx) == CONFD_OK)
                    maapi_diff_iterate(m.fd(), n.n.commit_diff.tctx->thandle, collect,
                                       ITER_WANT_ATTR, &e.changes);
                confd_diff_notification_done(fd_, n.n.commit_diff.tctx);
            }
            confd_free_notification(&n);
            std::lock_guard<std::mutex> lk(mu_);
            events_.push_back(e);
            arrived_.notify_all();
        }
    }

    const int port_;
    int fd_ = -1;
    bool ok_ = false;
    std::atomic<bool> stop_{false};
    std::thread th_;
    std::mutex mu_;
    std::condition_variable arrived_;
    std::vector<Event> events_;
};

// The fixture model with the extension module it imports, in a directory of its own.
struct FixtureModels {
    std::string dir;
    FixtureModels()
    {
        char tmpl[] = "/tmp/maapi-models.XXXXXX";
        dir = mkdtemp(tmpl);
        std::filesystem::copy_file(MAAPI_FIXTURES_DIR "/maapi-fixture.yang",
                                   dir + "/maapi-fixture.yang");
        std::filesystem::copy_file(LEISOBEK_MODELS_DIR "/leisobek-ext.yang",
                                   dir + "/leisobek-ext.yang");
    }
    ~FixtureModels() { std::filesystem::remove_all(dir); }
};

class MaapiTest : public EmuTestBase
{
  protected:
    // confd-emu on the fixture model and its configuration, with the schemas loaded into this
    // process for printing keypaths and values.
    void start()
    {
        confd_init("it_maapi", nullptr, CONFD_SILENT);
        ASSERT_NO_FATAL_FAILURE(
            start_emu({"--models", models_.dir, "--init", MAAPI_FIXTURES_DIR "/init.xml"}));
        sockaddr_in sa = harness::loopback(port());
        ASSERT_EQ(confd_load_schemas(reinterpret_cast<sockaddr *>(&sa), sizeof sa), CONFD_OK);
    }

    FixtureModels models_;
};

// Verifies the reads the daemon makes (XPath in its forms, NULL on every failure; typed reads; a
// cursor in key order), and that a transaction needs a session and another socket an attach.
TEST_F(MaapiTest, ReadsCursorsAndErrors)
{
    start();
    Maapi m(port());
    ASSERT_TRUE(m.ok());
    int s = m.fd();
    EXPECT_TRUE(fails(maapi_start_trans(s, CONFD_RUNNING, CONFD_READ), CONFD_ERR_NOSESSION));
    int th = m.start();
    ASSERT_GT(th, 0) << confd_lasterr();

    EXPECT_EQ(xpath(s, th, "/users/user[name='kelto']/password ", "/users/user"), "$1$secret");
    EXPECT_EQ(cli({"fail", "xpath_eval"}), kOk);
    const struct {
        const char *expr, *ctx;
        int code;
    } failing[] = {
        {"/settings/hostname", nullptr, CONFD_ERR_INTERNAL}, // the injected failure, once
        {"/settings/domain", "/settings/domain", CONFD_ERR_NOEXISTS},
        {"/settings/hostname[", nullptr, CONFD_ERR_XPATH},
        {"/settings/hostname", "/no/such/node", CONFD_ERR_BADPATH},
    };
    for (const auto &f : failing) {
        int rc = 0;
        EXPECT_EQ(xpath(s, th, f.expr, f.ctx, &rc), "<null>") << f.expr;
        EXPECT_TRUE(fails(rc, f.code)) << f.expr;
    }
    EXPECT_EQ(xpath(s, th, "/settings/hostname", nullptr), "fixture");

    int32_t i32 = 0;
    struct confd_identityref id = {};
    EXPECT_EQ(maapi_get_identityref_elem(s, th, &id, "/settings/medium"), CONFD_OK);
    EXPECT_STREQ(confd_hash2str(id.id), "radio");
    EXPECT_TRUE(fails(maapi_get_int32_elem(s, th, &i32, "/settings/domain"), CONFD_ERR_NOEXISTS));
    EXPECT_TRUE(fails(maapi_get_int32_elem(s, th, &i32, "/settings/size"), CONFD_ERR_BADTYPE));

    // Stored as 10, 1, 7: a cursor walks them in key order.
    struct maapi_cursor mc;
    ASSERT_EQ(maapi_init_cursor(s, th, &mc, "/pools/pool"), CONFD_OK);
    std::vector<std::string> seen;
    for (int n = 0; n < 5; n++) {
        ASSERT_EQ(maapi_get_next(&mc), CONFD_OK);
        if (mc.n == 0) break;
        ASSERT_EQ(mc.n, 1);
        confd_value_t start;
        ASSERT_EQ(maapi_get_elem(s, th, &start, "/pools/pool{%x}/start", &mc.keys[0]), CONFD_OK);
        seen.push_back(text(&mc.keys[0]) + " " + text(&start));
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"1 192.168.1.100", "7 172.16.0.10", "10 10.0.10.1"}));
    maapi_destroy_cursor(&mc);

    // Another socket may use the transaction only after attaching to it, as with ConfD.
    Maapi other(port());
    EXPECT_TRUE(
        fails(maapi_get_int32_elem(other.fd(), th, &i32, "/settings/counter"), CONFD_ERR_BADSTATE));
    ASSERT_EQ(maapi_attach2(other.fd(), 0, 0, th), CONFD_OK);
    EXPECT_EQ(maapi_get_int32_elem(other.fd(), th, &i32, "/settings/counter"), CONFD_OK);
    EXPECT_EQ(maapi_finish_trans(s, th), CONFD_OK);
    EXPECT_EQ(maapi_end_user_session(s), CONFD_OK);
}

// Verifies audit and commit from the command line: the events of each subscriber's mask, each
// commit's changes as a subscriber iterates them (creations, deletions, values by type, moves of
// user-ordered entries after the keys of the new predecessor, attributes).
TEST_F(MaapiTest, AuditAndCommitEventsFromTheCommandLine)
{
    start();
    Subscriber both(port(), CONFD_NOTIF_AUDIT | CONFD_NOTIF_COMMIT_DIFF);
    Subscriber audit_only(port(), CONFD_NOTIF_AUDIT);
    ASSERT_TRUE(both.ok() && audit_only.ok());

    EXPECT_EQ(cli({"audit", "SNMP_AUTHENTICATION_FAILED", "--user", "public", "--msg",
                   "SNMP authentication failed: 192.0.2.7"}),
              kOk);
    EXPECT_EQ(cli({"audit", "NO_SUCH_THING"}), "{\"error\":\"unknown log symbol NO_SUCH_THING\"}");
    EXPECT_EQ(
        cli({"commit", "--user", "alice", "/settings/domain=example.net",
             "/users/user{dave}/uid=1001", "/pools/pool{7}/ipv4/mode=relay", "!/pools/pool{10}"}),
        kOk);
    std::string bad = cli({"commit", "/settings/counter=many"});
    EXPECT_EQ(bad.rfind("{\"error\":\"/settings/counter", 0), 0u) << bad;
    EXPECT_EQ(cli({"commit", "/rules/rule{c}^", "/users/user{guest}@annotation=temporary account",
                   "/settings/hostname@tags=lab"}),
              kOk);
    EXPECT_EQ(cli({"commit", "/rules/rule{c}^{a}", "!/users/user{guest}@annotation"}), kOk);
    bad = cli({"commit", "/users/user{guest}^"});
    EXPECT_EQ(bad.rfind("{\"error\":\"/users/user{guest}: ", 0), 0u) << bad;

    auto events = both.wait(4);
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[0].type, CONFD_NOTIF_AUDIT);
    EXPECT_STREQ(confd_log_symbols[events[0].logno], "SNMP_AUTHENTICATION_FAILED");
    EXPECT_EQ(events[0].user, "public");
    EXPECT_EQ(events[0].msg, "SNMP authentication failed: 192.0.2.7");
    EXPECT_EQ(events[1].type, CONFD_NOTIF_COMMIT_DIFF);
    EXPECT_EQ(events[1].user, "alice");
    EXPECT_EQ(events[1].changes,
              (std::vector<std::string>{
                  "set /settings/domain=example.net", "created /users/user{dave}",
                  "set /users/user{dave}/uid=1001", "modified /pools/pool{7}",
                  "set /pools/pool{7}/ipv4/mode=relay", "deleted /pools/pool{10}"}));
    EXPECT_EQ(events[2].changes,
              (std::vector<std::string>{"moved /rules/rule{c}", "moved /rules/rule{a}=c",
                                        "attr /settings/hostname=2147483648 lab",
                                        "attr /users/user{guest}=2147483649 temporary account"}));
    EXPECT_EQ(events[3].changes,
              (std::vector<std::string>{"moved /rules/rule{a}", "moved /rules/rule{c}=a",
                                        "moved /rules/rule{b}=c",
                                        "attr /users/user{guest}=2147483649 -"}));
    EXPECT_EQ(audit_only.wait(1).size(), 1u) << "no commit-diff for an audit-only mask";

    EXPECT_EQ(cli({"get", "/users/user{dave}/uid"}), "{\"type\":\"C_INT32\",\"value\":1001}");
}

} // namespace
