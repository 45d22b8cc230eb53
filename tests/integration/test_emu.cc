// Round trips through confd-emu: an in-process test daemon on the client library, and the CLI.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "cli_json.h"

#include "TCP-MIB.h"
#include "emu_daemon.h"

namespace
{

// How the test daemon misbehaves, if at all.
enum class Quirk {
    None,
    WrongLeafType, // tcpListenerProcess answered as C_INT32
    WrongKeyType,  // listener port key answered as C_INT32
    Silent,        // get_elem returns CONFD_OK without replying
    Error,         // get_elem fails with a confd_trans_seterr text
    NoExists,      // get_elem answers C_NOEXISTS
    StuckCookie,   // get_next hands back the cookie it was given
    Doubled,       // get_next lists every row twice, with cookies that advance
};

// A data provider for "tcp_status", with a main loop on its own thread like the daemon's, serving
// rows listeners on 127.0.0.1, ports 1 to rows, port P held by process 100000 + P; it
// records the transaction callbacks it sees.
class TestDaemon
{
  public:
    TestDaemon(int port, uint32_t rows) : rows_(rows), d_(port, "testd", this) {}

    // Connects the control, worker and MAAPI sockets, registers and starts the main loop.
    bool start(std::string &err)
    {
        if (!d_.connect(err)) return false;
        confd_trans_cbs tcb = {};
        tcb.init = [](confd_trans_ctx *t) {
            self(t)->record("init");
            confd_trans_set_fd(t, self(t)->d_.worker());
            return maapi_attach(self(t)->d_.maapi(), 0, t);
        };
        tcb.trans_lock = [](confd_trans_ctx *t) { return self(t)->record("trans_lock"); };
        tcb.write_start = [](confd_trans_ctx *t) { return self(t)->record("write_start"); };
        tcb.prepare = [](confd_trans_ctx *t) { return self(t)->record("prepare"); };
        tcb.commit = [](confd_trans_ctx *t) { return self(t)->record("commit"); };
        tcb.abort = [](confd_trans_ctx *t) { return self(t)->record("abort"); };
        tcb.finish = [](confd_trans_ctx *t) {
            self(t)->record("finish");
            maapi_detach(self(t)->d_.maapi(), t);
            return CONFD_OK;
        };
        confd_data_cbs dcb = data_cbs("tcp_status");
        dcb.get_elem = get_elem;
        dcb.get_next = get_next;
        dcb.set_elem = [](confd_trans_ctx *t, confd_hkeypath_t *, confd_value_t *v) {
            return self(t)->record("set_elem " + std::to_string(CONFD_GET_INT32(v)));
        };
        if (confd_register_trans_cb(d_.dx(), &tcb) != CONFD_OK ||
            confd_register_data_cb(d_.dx(), &dcb) != CONFD_OK ||
            confd_register_snmp_notification(d_.dx(), d_.worker(), "", "", &nctx_) != CONFD_OK) {
            err = std::string("registration failed: ") + confd_lasterr();
            return false;
        }
        return d_.run(err);
    }

    bool wait_eof(bool control) { return d_.wait_eof(control); }

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

    std::vector<std::string> calls()
    {
        std::lock_guard<std::mutex> lk(mu_);
        return calls_;
    }

    std::atomic<Quirk> quirk{Quirk::None};

  private:
    static TestDaemon *self(struct confd_trans_ctx *tctx)
    {
        return static_cast<TestDaemon *>(tctx->dx->d_opaque);
    }

    int record(const std::string &what)
    {
        std::lock_guard<std::mutex> lk(mu_);
        calls_.push_back(what);
        return CONFD_OK;
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
        uint32_t port = (d->quirk == Quirk::Doubled ? i / 2 : i) + 1;
        if (port > d->rows_) return confd_data_reply_next_key(tctx, nullptr, -1, -1);
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

    const uint32_t rows_;
    struct confd_notification_ctx *nctx_ = nullptr;
    std::mutex mu_;
    std::vector<std::string> calls_;
    EmuDaemon d_; // last: its main loop stops before the rest goes
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

// Verifies the command-line client's own contract: an unreachable server, and the paths it refuses.
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
}

// Verifies that a walk prints exactly the daemon's rows in one transaction, next's answers, and
// that a walk refuses a leaf the list lacks.
TEST_F(EmuTest, WalkPrintsTheRowsInOneTransaction)
{
    start();
    EXPECT_EQ(cli({"walk", kListeners}),
              "[" + row_json(1) + "," + row_json(2) + "," + row_json(3) + "]");
    EXPECT_EQ(daemon_->calls(), (std::vector<std::string>{"init", "finish"}));
    EXPECT_EQ(cli({"next", kListeners, "--cookie", "2"}),
              "{\"keys\":" + keys_json(3) + ",\"next\":3}");
    EXPECT_EQ(cli({"next", kListeners, "--cookie", "3"}), "{\"keys\":null,\"next\":-1}");
    EXPECT_EQ(cli({"walk", kListeners, "--leaves", "tcpListenerLocalPort,nosuch"}),
              "{\"error\":\"list tcpListenerEntry has no leaf \\\"nosuch\\\"\"}");
}

// Verifies that get and next tell a value, C_NOEXISTS, a missing entry and a callback error (its
// text escaped into the JSON) apart, and report replies that do not fit the schema, naming the
// leaf and both types; that a walk keeps a failed leaf as an error, follows the cookies and lists
// repeated keys as they come, and ends with an error on stderr and exit status 1 when a cookie
// comes back or the rows pass its limit.
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
    daemon_->quirk = Quirk::Doubled;
    walk = cli({"walk", kListeners, "--leaves", "tcpListenerProcess"});
    EXPECT_EQ(walk.rfind("[" + row_json(1) + "," + row_json(1) + ",", 0), 0u) << walk;
    harness::CmdResult limited = emu_->cli({"walk", kListeners, "--limit", "5"});
    EXPECT_EQ(limited.exit_code, 1);
    EXPECT_EQ(limited.err,
              "confd-emu-cli: walk of tcpListenerEntry stopped after 5 rows (--limit)\n");
    daemon_->quirk = Quirk::StuckCookie;
    harness::CmdResult stuck = emu_->cli({"walk", kListeners});
    EXPECT_EQ(stuck.exit_code, 1);
    EXPECT_TRUE(stuck.out.empty());
    EXPECT_EQ(stuck.err, "confd-emu-cli: daemon testd returned cookie 1 again after 2 rows: the "
                         "walk of tcpListenerEntry does not advance\n");
    EXPECT_NE(cli({"status"}).find("\"open_transactions\":0,"), std::string::npos);
}

// Verifies that a callback that never answers times out instead of hanging, and that the silent
// daemon is then treated as dead: its sockets closed, its callpoint gone.
TEST_F(EmuTest, SilentCallbackTimesOut)
{
    start({"--timeout-ms", "300"});
    daemon_->quirk = Quirk::Silent;
    auto t0 = std::chrono::steady_clock::now();
    std::string out = cli({"get", kProcess1});
    auto took = std::chrono::steady_clock::now() - t0;
    EXPECT_EQ(out, "{\"error\":\"daemon testd did not answer get_elem within 300 ms\"}");
    EXPECT_LT(took, std::chrono::seconds(5));
    EXPECT_TRUE(daemon_->wait_eof(true));
    EXPECT_NE(cli({"status"}).find("\"daemons\":[],\"open_transactions\":0,"), std::string::npos);
    EXPECT_EQ(cli({"get", kProcess1}),
              "{\"error\":\"no daemon has registered callpoint tcp_status\"}");
}

// Verifies that a 10 000-row walk answered on the worker socket while two other threads send SNMP
// notifications on that same socket comes back whole, row by row, and that every notification
// arrives whole and each thread's in its own order. (Run under the tsan preset too.)
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
    cli({"notifications", "--clear"});
    EXPECT_EQ(cli({"notifications"}), "[]");
}

// Verifies that set runs a full write transaction in order, with the value typed by the leaf, and
// that a value that does not fit the leaf is refused before the daemon is asked.
TEST_F(EmuTest, SetRunsAWriteTransaction)
{
    start();
    EXPECT_EQ(cli({"set", "/TCP-MIB/tcp/tcpRtoMin", "250"}), "{\"result\":\"ok\"}");
    EXPECT_EQ(daemon_->calls(),
              (std::vector<std::string>{"init", "trans_lock", "write_start", "set_elem 250",
                                        "prepare", "commit", "finish"}));
    EXPECT_EQ(cli({"set", "/TCP-MIB/tcp/tcpRtoMin", "many"}).rfind("{\"error\":", 0), 0u);
    EXPECT_EQ(daemon_->calls().size(), 7u);
}

} // namespace
