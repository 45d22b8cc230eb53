// Round trips through confd-emu: an in-process test daemon on the client library, and the CLI.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <tuple>
#include <vector>

#include "cli_json.h"

#include "TCP-MIB.h"
#include "emu_daemon.h"

namespace
{

struct ListenerRow {
    int32_t addr_type;
    std::string addr; // address octets
    uint32_t port;
    uint32_t process;
};

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

// A data provider for "tcp_status" serving the listener table and two scalars, with a main loop
// on its own thread like the daemon's; it records the transaction callbacks it sees.
class TestDaemon
{
  public:
    TestDaemon(int port, std::vector<ListenerRow> rows)
        : rows_(std::move(rows)), d_(port, "testd", this)
    {
    }

    // Connects the control, worker and MAAPI sockets, registers and starts the main loop.
    bool start(std::string &err)
    {
        if (!d_.connect(err)) return false;
        confd_trans_cbs tcb = {};
        tcb.init = [](confd_trans_ctx *t) {
            TestDaemon *d = self(t);
            d->record("init");
            if (maapi_attach(d->d_.maapi(), 0, t) != CONFD_OK) {
                d->attach_failures++;
                confd_trans_seterr(t, "attach failed: %s", confd_lasterr());
                return CONFD_ERR;
            }
            confd_trans_set_fd(t, d->d_.worker());
            return CONFD_OK;
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
            self(t)->last_set = v->type == C_INT32 ? v->val.i32 : -1;
            return self(t)->record("set_elem");
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
    std::atomic<int> attach_failures{0};
    std::atomic<int64_t> last_set{0};

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

    // The row with the keypath's keys; rows_ is in key order.
    const ListenerRow *find(const confd_hkeypath_t *kp) const
    {
        auto key = [](const ListenerRow &r) { return std::tie(r.addr_type, r.addr, r.port); };
        ListenerRow want{kp->v[1][0].val.enumvalue,
                         std::string(reinterpret_cast<const char *>(kp->v[1][1].val.buf.ptr),
                                     kp->v[1][1].val.buf.size),
                         kp->v[1][2].val.u32, 0};
        auto it = std::lower_bound(rows_.begin(), rows_.end(), want,
                                   [&](const ListenerRow &a, const ListenerRow &b) {
                                       return key(a) < key(b);
                                   });
        return it != rows_.end() && key(*it) == key(want) ? &*it : nullptr;
    }

    static int get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
    {
        TestDaemon *d = self(tctx);
        confd_value_t v;
        uint32_t leaf = CONFD_GET_XMLTAG(&kp->v[0][0]);
        if (leaf == TCP_MIB_tcpInSegs) {
            CONFD_SET_UINT32(&v, 77);
            return confd_data_reply_value(tctx, &v);
        }
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
        const ListenerRow *r = d->find(kp);
        if (!r) return confd_data_reply_not_found(tctx);
        if (d->quirk == Quirk::WrongLeafType)
            CONFD_SET_INT32(&v, static_cast<int32_t>(r->process));
        else
            CONFD_SET_UINT32(&v, r->process);
        return confd_data_reply_value(tctx, &v);
    }

    static int get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *, long next)
    {
        TestDaemon *d = self(tctx);
        size_t i = next < 0 ? 0 : static_cast<size_t>(next);
        size_t at = d->quirk == Quirk::Doubled ? i / 2 : i;
        if (at >= d->rows_.size()) return confd_data_reply_next_key(tctx, nullptr, -1, -1);
        const ListenerRow &r = d->rows_[at];
        confd_value_t k[3];
        CONFD_SET_ENUM_VALUE(&k[0], r.addr_type);
        CONFD_SET_BINARY(&k[1], reinterpret_cast<const unsigned char *>(r.addr.data()),
                         r.addr.size());
        if (d->quirk == Quirk::WrongKeyType)
            CONFD_SET_INT32(&k[2], static_cast<int32_t>(r.port));
        else
            CONFD_SET_UINT32(&k[2], r.port);
        long cookie = d->quirk == Quirk::StuckCookie && next >= 0 ? next : static_cast<long>(i + 1);
        return confd_data_reply_next_key(tctx, k, 3, cookie);
    }

    const std::vector<ListenerRow> rows_;
    struct confd_notification_ctx *nctx_ = nullptr;
    std::mutex mu_;
    std::vector<std::string> calls_;
    EmuDaemon d_; // last: its main loop stops before the rest goes
};

const std::vector<ListenerRow> kRows = {
    {1, std::string("\x7f\x00\x00\x01", 4), 22, 301},
    {1, std::string("\xc0\xa8\x01\x01", 4), 80, 0},
    {2, std::string(16, '\0'), 443, 4294967295u},
};

const char kListeners[] = "/TCP-MIB/tcpListenerTable/tcpListenerEntry";
const char kProcess22[] =
    "/TCP-MIB/tcpListenerTable/tcpListenerEntry{1 7f000001 22}/tcpListenerProcess";

class EmuTest : public EmuTestBase
{
  protected:
    // Starts confd-emu with the extra arguments and, unless with_daemon is false, the test daemon
    // serving rows (in key order).
    void start(std::vector<std::string> args = {}, bool with_daemon = true,
               const std::vector<ListenerRow> &rows = kRows)
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

// Verifies the command-line client's own contract: help, unreachable server, usage errors.
TEST_F(EmuTest, CliContractWithoutDaemons)
{
    start({}, false);
    harness::CmdResult help = harness::run({harness::confd_emu_cli_path(), "--help"});
    EXPECT_EQ(help.exit_code, 0);
    EXPECT_NE(help.out.find("usage: confd-emu-cli"), std::string::npos);
    harness::CmdResult emu_help = harness::run({harness::confd_emu_path(), "--help"});
    EXPECT_EQ(emu_help.exit_code, 0);
    EXPECT_NE(emu_help.out.find("--timeout-ms"), std::string::npos);

    int port = harness::free_port();
    ASSERT_NE(port, 0);
    harness::CmdResult down =
        harness::run({harness::confd_emu_cli_path(), "--port", std::to_string(port), "status"});
    EXPECT_EQ(down.exit_code, 1);
    EXPECT_TRUE(down.out.empty());
    EXPECT_NE(down.err.find("cannot connect"), std::string::npos);

    EXPECT_EQ(cli({"get", kProcess22}),
              "{\"error\":\"no daemon has registered callpoint tcp_status\"}");
    EXPECT_EQ(cli({"get", "/TCP-MIB/nosuch"}).rfind("{\"error\":", 0), 0u);
    EXPECT_EQ(cli({"get", kListeners}),
              std::string("{\"error\":\"") + kListeners + " is not a leaf\"}");
    EXPECT_EQ(cli({"walk", "/TCP-MIB/tcpListenerTable/tcpListenerEntry{1 7f000001 22}"}),
              std::string("{\"error\":\"") + kListeners +
                  "{1 7f000001 22}: give the list without keys\"}");
    EXPECT_EQ(cli({"commit"}).rfind("{\"error\":\"usage: commit", 0), 0u);
    EXPECT_EQ(cli({"drop", "everything"}),
              "{\"error\":\"usage: drop control|worker|notifications\"}");
    EXPECT_EQ(cli({"fail", "xpath_eval", "--times", "3"}), "{\"result\":\"ok\"}");
    EXPECT_NE(cli({"status"}).find("\"failures\":{\"xpath_eval\":3}"), std::string::npos);
    EXPECT_EQ(cli({"notifications"}), "[]");

    // Registrations fail on demand too, once per count, with the library call's name.
    EXPECT_EQ(cli({"fail", "register_data_cb"}), "{\"result\":\"ok\"}");
    EmuDaemon d(EmuTestBase::port(), "regd", nullptr);
    std::string err;
    ASSERT_TRUE(d.connect(err)) << err;
    confd_data_cbs cbs = data_cbs("tcp_status");
    EXPECT_EQ(confd_register_data_cb(d.dx(), &cbs), CONFD_ERR);
    EXPECT_STREQ(confd_lasterr(), "injected failure: register_data_cb");
    EXPECT_EQ(confd_register_data_cb(d.dx(), &cbs), CONFD_OK);
}

// Verifies that a walk prints exactly the daemon's rows and leaves no transaction open, and that
// the MAAPI attach made by the daemon's init is seen.
TEST_F(EmuTest, WalkPrintsTheRowsAndClosesTheTransaction)
{
    start();
    EXPECT_EQ(cli({"walk", kListeners}),
              "[{\"keys\":[{\"type\":\"C_ENUM_VALUE\",\"value\":1},{\"type\":\"C_BINARY\","
              "\"value\":\"7f000001\"},"
              "{\"type\":\"C_UINT32\",\"value\":22}],\"leaves\":{\"tcpListenerProcess\":{\"type\":"
              "\"C_UINT32\",\"value\":301}}},"
              "{\"keys\":[{\"type\":\"C_ENUM_VALUE\",\"value\":1},{\"type\":\"C_BINARY\",\"value\":"
              "\"c0a80101\"},"
              "{\"type\":\"C_UINT32\",\"value\":80}],\"leaves\":{\"tcpListenerProcess\":{\"type\":"
              "\"C_UINT32\",\"value\":0}}},"
              "{\"keys\":[{\"type\":\"C_ENUM_VALUE\",\"value\":2},{\"type\":\"C_BINARY\",\"value\":"
              "\"00000000000000000000000000000000\"},"
              "{\"type\":\"C_UINT32\",\"value\":443}],\"leaves\":{\"tcpListenerProcess\":{\"type\":"
              "\"C_UINT32\",\"value\":4294967295}}}]");
    EXPECT_EQ(daemon_->calls(), (std::vector<std::string>{"init", "finish"}));

    std::string st = cli({"status"});
    EXPECT_NE(st.find("\"name\":\"testd\""), std::string::npos) << st;
    EXPECT_NE(st.find("\"callpoints\":[\"tcp_status\"]"), std::string::npos) << st;
    EXPECT_NE(st.find("\"open_transactions\":0,\"transactions\":1,\"workers\":1"),
              std::string::npos)
        << st;
    EXPECT_NE(st.find("\"maapi_attaches\":1,\"maapi_detaches\":1"), std::string::npos) << st;

    EXPECT_EQ(cli({"next", kListeners, "--cookie", "2"}),
              "{\"keys\":[{\"type\":\"C_ENUM_VALUE\",\"value\":2},{\"type\":\"C_BINARY\",\"value\":"
              "\"00000000000000000000000000000000\"},"
              "{\"type\":\"C_UINT32\",\"value\":443}],\"next\":3}");
    EXPECT_EQ(cli({"next", kListeners, "--cookie", "3"}), "{\"keys\":null,\"next\":-1}");
    EXPECT_EQ(cli({"walk", kListeners, "--leaves", "tcpListenerLocalPort,nosuch"}),
              "{\"error\":\"list tcpListenerEntry has no leaf \\\"nosuch\\\"\"}");
}

// Verifies that get tells a value, C_NOEXISTS, a missing entry and a callback error apart, with the
// daemon's error text escaped into the JSON.
TEST_F(EmuTest, GetDistinguishesTheKindsOfAnswer)
{
    start();
    EXPECT_EQ(cli({"get", kProcess22}), "{\"type\":\"C_UINT32\",\"value\":301}");
    EXPECT_EQ(cli({"get", "/TCP-MIB/tcp/tcpInSegs"}), "{\"type\":\"C_UINT32\",\"value\":77}");
    EXPECT_EQ(cli({"get",
                   "/TCP-MIB/tcpListenerTable/tcpListenerEntry{1 7f000001 23}/tcpListenerProcess"}),
              "{\"reply\":\"not-found\"}");
    daemon_->quirk = Quirk::NoExists;
    EXPECT_EQ(cli({"get", kProcess22}), "{\"type\":\"C_NOEXISTS\"}");
    daemon_->quirk = Quirk::Error;
    EXPECT_EQ(cli({"get", kProcess22}), "{\"error\":\"process table \\\"ps\\\\1\\\" unreadable\"}");
    // A failed leaf stays in the walk as an error; the rows are still listed.
    std::string walk = cli({"walk", kListeners});
    EXPECT_NE(walk.find("\"leaves\":{\"tcpListenerProcess\":{\"error\":\"process table"),
              std::string::npos)
        << walk;
    daemon_->quirk = Quirk::None;
    EXPECT_NE(cli({"status"}).find("\"open_transactions\":0,"), std::string::npos);
}

// Verifies that values and keys whose type does not fit the schema are reported, naming the leaf
// and both types; that a walk follows the cookies and lists repeated keys as they come; and that
// a walk ends with an error on stderr and exit status 1 when a cookie comes back or the rows pass
// its limit.
TEST_F(EmuTest, ReportsRepliesThatDoNotFitTheSchema)
{
    start();
    daemon_->quirk = Quirk::WrongLeafType;
    EXPECT_EQ(cli({"get", kProcess22}), "{\"error\":\"leaf tcpListenerProcess expects C_UINT32 "
                                        "(uint32), daemon replied C_INT32\"}");
    daemon_->quirk = Quirk::WrongKeyType;
    EXPECT_EQ(cli({"next", kListeners}), "{\"error\":\"key tcpListenerLocalPort expects C_UINT32 "
                                         "(tcp-port), daemon replied C_INT32\"}");
    daemon_->quirk = Quirk::Doubled;
    std::string walk = cli({"walk", kListeners, "--leaves", "tcpListenerProcess"});
    const std::string row22 = R"({"keys":[{"type":"C_ENUM_VALUE","value":1},)"
                              R"({"type":"C_BINARY","value":"7f000001"},)"
                              R"({"type":"C_UINT32","value":22}],)"
                              R"("leaves":{"tcpListenerProcess":{"type":"C_UINT32","value":301}}})";
    EXPECT_EQ(walk.rfind("[" + row22 + "," + row22 + ",", 0), 0u) << walk;
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
}

// Verifies that a callback that never answers times out instead of hanging, and that the silent
// daemon is then treated as dead: its sockets closed, its callpoint gone.
TEST_F(EmuTest, SilentCallbackTimesOut)
{
    start({"--timeout-ms", "300"});
    daemon_->quirk = Quirk::Silent;
    auto t0 = std::chrono::steady_clock::now();
    std::string out = cli({"get", kProcess22});
    auto took = std::chrono::steady_clock::now() - t0;
    EXPECT_EQ(out, "{\"error\":\"daemon testd did not answer get_elem within 300 ms\"}");
    EXPECT_LT(took, std::chrono::seconds(5));
    EXPECT_TRUE(daemon_->wait_eof(true));
    EXPECT_NE(cli({"status"}).find("\"daemons\":[],\"open_transactions\":0,"), std::string::npos);
    EXPECT_EQ(cli({"get", kProcess22}),
              "{\"error\":\"no daemon has registered callpoint tcp_status\"}");
}

// Verifies that "drop control" closes the daemon's control socket as seen by confd_fd_ready, and
// "drop worker" its worker socket.
TEST_F(EmuTest, DropClosesTheDaemonSockets)
{
    start();
    EXPECT_EQ(cli({"drop", "worker"}), "{\"result\":\"ok\"}");
    EXPECT_TRUE(daemon_->wait_eof(false));
    EXPECT_EQ(cli({"drop", "control"}), "{\"result\":\"ok\"}");
    EXPECT_TRUE(daemon_->wait_eof(true));
}

// Verifies that a 10 000-row walk answered on the worker socket while two other threads send SNMP
// notifications on that same socket comes back whole, row by row, and that every notification
// arrives whole and each thread's in its own order. (Run under the tsan preset too.)
TEST_F(EmuTest, ThreadedWalkAndNotificationsShareTheWorkerSocket)
{
    constexpr int kRowsInWalk = 10000, kPerThread = 300;
    std::vector<ListenerRow> rows;
    for (int i = 0; i < kRowsInWalk; i++)
        rows.push_back({1, std::string("\x7f\x00\x00\x01", 4), static_cast<uint32_t>(i + 1),
                        static_cast<uint32_t>(100000 + i)});
    start({}, true, rows);

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
        ASSERT_EQ(r.leaves.at("tcpListenerProcess"), std::to_string(100000 + i));
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

// Verifies fault injection on MAAPI: "fail attach" makes the daemon's next maapi_attach fail once,
// and the transaction's failure reaches the client.
TEST_F(EmuTest, InjectedAttachFailureHitsOnce)
{
    start();
    EXPECT_EQ(cli({"fail", "attach"}), "{\"result\":\"ok\"}");
    std::string out = cli({"get", kProcess22});
    EXPECT_NE(out.find("attach failed"), std::string::npos) << out;
    EXPECT_NE(out.find("injected failure: attach"), std::string::npos) << out;
    EXPECT_EQ(daemon_->attach_failures.load(), 1);
    EXPECT_EQ(cli({"get", kProcess22}), "{\"type\":\"C_UINT32\",\"value\":301}");
    EXPECT_EQ(daemon_->attach_failures.load(), 1);
    EXPECT_NE(cli({"status"}).find("\"open_transactions\":0,"), std::string::npos);
}

// Verifies that set runs a full write transaction in order, with the value typed by the leaf, and
// that a value that does not fit the leaf is refused before the daemon is asked.
TEST_F(EmuTest, SetRunsAWriteTransaction)
{
    start();
    EXPECT_EQ(cli({"set", "/TCP-MIB/tcp/tcpRtoMin", "250"}), "{\"result\":\"ok\"}");
    EXPECT_EQ(daemon_->last_set.load(), 250);
    EXPECT_EQ(daemon_->calls(),
              (std::vector<std::string>{"init", "trans_lock", "write_start", "set_elem", "prepare",
                                        "commit", "finish"}));
    EXPECT_EQ(cli({"set", "/TCP-MIB/tcp/tcpRtoMin", "many"}).rfind("{\"error\":", 0), 0u);
    EXPECT_EQ(daemon_->calls().size(), 7u);
}

// Verifies that registering a callpoint the schema does not have is refused with
// CONFD_ERR_NOEXISTS.
TEST_F(EmuTest, UnknownCallpointIsRefused)
{
    start({}, false);
    EmuDaemon stray(port(), "stray", nullptr);
    std::string err;
    ASSERT_TRUE(stray.connect(err)) << err;
    confd_data_cbs dcb = data_cbs("no_such_callpoint");
    EXPECT_EQ(confd_register_data_cb(stray.dx(), &dcb), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_NOEXISTS);
    EXPECT_NE(std::string(confd_lasterr()).find("callpoint no_such_callpoint not in the schema"),
              std::string::npos);
}

// Verifies that the schema the server hands out loads in the client library, over its own socket
// or a MAAPI one ("fail load_schemas" makes one load fail): navigation by path and by keypath,
// keys, leaf types, names both ways, keypaths printed with names in ConfD's and XPath form, and
// values converted by their types.
TEST_F(EmuTest, SchemaLoadsInTheLibrary)
{
    start({}, false);
    sockaddr_in sa = harness::loopback(port());
    auto *sp = reinterpret_cast<struct sockaddr *>(&sa);
    confd_init("it_emu", nullptr, CONFD_SILENT);
    EXPECT_EQ(cli({"fail", "load_schemas"}), "{\"result\":\"ok\"}");
    EXPECT_EQ(confd_load_schemas(sp, sizeof sa), CONFD_ERR);
    int ms = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(maapi_connect(ms, sp, sizeof sa), CONFD_OK);
    ASSERT_EQ(maapi_load_schemas(ms), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(maapi_close(ms), CONFD_OK);
    ASSERT_EQ(confd_load_schemas(sp, sizeof sa), CONFD_OK) << confd_lasterr();

    EXPECT_STREQ(confd_hash2str(TCP_MIB_tcpListenerProcess), "tcpListenerProcess");
    EXPECT_EQ(confd_str2hash("tcpListenerProcess"),
              static_cast<uint32_t>(TCP_MIB_tcpListenerProcess));
    EXPECT_EQ(confd_str2hash("nosuch"), 0u);
    EXPECT_STREQ(confd_ns2prefix(TCP_MIB__ns), "TCP-MIB");
    confd_nsinfo *list = nullptr;
    int count = confd_get_nslist(&list);
    bool listed = false;
    for (int i = 0; i < count; i++)
        listed = listed || std::string(list[i].uri) == TCP_MIB__ns_uri;
    EXPECT_TRUE(listed);

    confd_cs_node *root = confd_find_cs_root(TCP_MIB__ns);
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(root->tag, static_cast<uint32_t>(TCP_MIB_TCP_MIB));
    confd_cs_node *entry = confd_cs_node_cd(nullptr, "/TCP-MIB/tcpListenerTable/tcpListenerEntry");
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->parent->parent, root);
    EXPECT_TRUE(entry->info.flags & CS_NODE_IS_DYN);
    ASSERT_NE(entry->info.keys, nullptr);
    EXPECT_EQ(entry->info.keys[0], static_cast<uint32_t>(TCP_MIB_tcpListenerLocalAddressType));
    EXPECT_EQ(entry->info.keys[2], static_cast<uint32_t>(TCP_MIB_tcpListenerLocalPort));
    EXPECT_EQ(entry->info.keys[3], 0u);
    confd_cs_node *leaf =
        confd_find_cs_node_child(entry, {TCP_MIB_tcpListenerProcess, TCP_MIB__ns});
    ASSERT_NE(leaf, nullptr);
    EXPECT_EQ(leaf->info.shallow_type, C_UINT32);
    EXPECT_EQ(confd_cs_node_cd(entry, "../tcpListenerEntry{%d %s %u}/%s", 1, "7f000001", 22u,
                               "tcpListenerProcess"),
              leaf);
    EXPECT_EQ(confd_cs_node_cd(nullptr, "/TCP-MIB/nosuch"), nullptr);

    // /TCP-MIB/tcpListenerTable/tcpListenerEntry{1 7f000001 22}/tcpListenerProcess
    static const unsigned char addr[] = {0x7f, 0, 0, 1};
    confd_hkeypath_t kp;
    kp.len = 5;
    for (auto &row : kp.v)
        CONFD_SET_NOEXISTS(&row[0]);
    uint32_t tags[] = {TCP_MIB_tcpListenerProcess, 0, TCP_MIB_tcpListenerEntry,
                       TCP_MIB_tcpListenerTable, TCP_MIB_TCP_MIB};
    for (int i = 0; i < 5; i++) {
        CONFD_SET_XMLTAG(&kp.v[i][0], tags[i], TCP_MIB__ns);
        CONFD_SET_NOEXISTS(&kp.v[i][1]);
    }
    CONFD_SET_ENUM_VALUE(&kp.v[1][0], 1);
    CONFD_SET_BINARY(&kp.v[1][1], addr, 4);
    CONFD_SET_UINT32(&kp.v[1][2], 22);
    CONFD_SET_NOEXISTS(&kp.v[1][3]);
    EXPECT_EQ(confd_find_cs_node(&kp, 3), entry);
    EXPECT_EQ(confd_find_cs_node(&kp, kp.len), leaf);
    char buf[256];
    const char *want =
        "/TCP-MIB/tcpListenerTable/tcpListenerEntry{1 7f000001 22}/tcpListenerProcess";
    EXPECT_EQ(confd_pp_kpath(buf, sizeof buf, &kp), static_cast<int>(strlen(want)));
    EXPECT_STREQ(buf, want);
    char small[12];
    EXPECT_EQ(confd_pp_kpath(small, sizeof small, &kp), static_cast<int>(strlen(want)));
    EXPECT_STREQ(small, "/TCP-MIB/tc");
    confd_xpath_pp_kpath(buf, sizeof buf, 0, &kp);
    EXPECT_STREQ(buf, "/TCP-MIB:TCP-MIB/TCP-MIB:tcpListenerTable/TCP-MIB:tcpListenerEntry"
                      "[tcpListenerLocalAddressType='1'][tcpListenerLocalAddress='7f000001']"
                      "[tcpListenerLocalPort='22']/TCP-MIB:tcpListenerProcess");
    CONFD_SET_XMLTAG(&kp.v[0][0], 99, 0);
    confd_pp_kpath(buf, sizeof buf, &kp);
    EXPECT_STREQ(buf, "/TCP-MIB/tcpListenerTable/tcpListenerEntry{1 7f000001 22}/tag<99>");

    // Enumeration names both ways, numbers within their range, binaries in hex.
    confd_type *type =
        confd_find_cs_node_child(entry, {TCP_MIB_tcpListenerLocalAddressType, TCP_MIB__ns})
            ->info.type;
    confd_value_t v;
    CONFD_SET_ENUM_VALUE(&v, 2);
    EXPECT_EQ(confd_val2str(type, &v, buf, sizeof buf), 4);
    EXPECT_STREQ(buf, "ipv6");
    ASSERT_EQ(confd_str2val(type, "ipv4", &v), CONFD_OK);
    EXPECT_EQ(CONFD_GET_ENUM_VALUE(&v), 1);
    EXPECT_EQ(confd_str2val(type, "ipx", &v), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_BADTYPE);
    confd_type *u32 = confd_find_ns_type(0, "uint32");
    EXPECT_EQ(confd_str2val(u32, "4294967296", &v), CONFD_ERR);
    ASSERT_EQ(confd_str2val(u32, "4294967295", &v), CONFD_OK);
    EXPECT_EQ(confd_val2str(u32, &v, buf, sizeof buf), 10);
    confd_type *bin = confd_find_ns_type(0, "binary");
    ASSERT_EQ(confd_str2val(bin, "7f:00:00:01", &v), CONFD_OK);
    EXPECT_EQ(CONFD_GET_BINARY_SIZE(&v), 4u);
    confd_free_value(&v);
}

} // namespace
