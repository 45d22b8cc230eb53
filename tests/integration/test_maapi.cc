// MAAPI, the datastore and event notifications of confd-emu, used through the client library.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <vector>

#include "confd_lib.h"
#include "cli_json.h"
#include "confd_events.h"
#include "emu_daemon.h"

namespace
{

using Clock = std::chrono::steady_clock;

long ms_since(Clock::time_point t)
{
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

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

    // A session in the "system" context and a transaction on running, as the daemon opens them.
    int start(enum confd_trans_mode mode, const char *user = nullptr)
    {
        struct confd_ip src = {};
        src.af = AF_INET;
        if (maapi_start_user_session3(fd_, user, "system", nullptr, 0, &src, 0, CONFD_PROTO_TCP,
                                      nullptr, nullptr, nullptr, "test:1") != CONFD_OK)
            return CONFD_ERR;
        return maapi_start_trans_flags2(fd_, CONFD_RUNNING, mode, 0, 0, nullptr, nullptr, nullptr,
                                        "test:2");
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

std::string kp_text(const confd_hkeypath_t *kp)
{
    char buf[512];
    confd_pp_kpath(buf, sizeof buf, kp);
    return buf;
}

// A leaf's value as text of the leaf's schema type (enumerations by name), as the daemon's audit
// listener prints the changes of a commit.
std::string typed_text(confd_hkeypath_t *kp, const confd_value_t *v)
{
    char buf[256];
    confd_cs_node *leaf = confd_find_cs_node(kp, kp->len);
    if (!leaf || !leaf->info.type) return "<no type>";
    confd_val2str(leaf->info.type, v, buf, sizeof buf);
    return buf;
}

// One change seen by maapi_diff_iterate: "OP path[=value]".
struct Changes {
    std::vector<std::string> lines;
    int continue_on_created = 0; // answer ITER_CONTINUE to MOP_CREATED
};

enum maapi_iter_ret collect(confd_hkeypath_t *kp, enum maapi_iter_op op, confd_value_t *oldv,
                            confd_value_t *newv, void *state)
{
    auto *c = static_cast<Changes *>(state);
    static const char *const ops[] = {"?",   "created", "deleted", "modified",
                                      "set", "moved",   "attr"};
    std::string line = std::string(ops[op <= 6 ? op : 0]) + " " + kp_text(kp);
    if (newv && op == MOP_ATTR_SET) {
        line += "=" + text(&newv[0]) + " " + (newv[1].type == C_NOEXISTS ? "-" : text(&newv[1]));
    } else if (newv && op == MOP_MOVED_AFTER) {
        line += "=";
        for (int i = 0; newv[i].type != C_NOEXISTS; i++)
            line += (i ? " " : "") + text(&newv[i]);
    } else if (newv) {
        line += "=" + typed_text(kp, newv);
    }
    if (oldv) line += " (old value given)";
    c->lines.push_back(line);
    return op == MOP_CREATED && c->continue_on_created ? ITER_CONTINUE : ITER_RECURSE;
}

// An event subscriber on its own thread, as the daemon's audit listener: commit-diff events are
// read through a MAAPI attach and answered after done_delay_ms (or never, with answer false).
class Subscriber
{
  public:
    struct Event {
        int type = 0, logno = 0;
        std::string user, msg;
        std::vector<std::string> changes;
    };

    Subscriber(int port, int mask, int done_delay_ms = 0, bool answer = true)
        : port_(port), delay_(done_delay_ms), answer_(answer)
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
                Changes c;
                if (m.ok() && maapi_attach(m.fd(), -1, n.n.commit_diff.tctx) == CONFD_OK)
                    maapi_diff_iterate(m.fd(), n.n.commit_diff.tctx->thandle, collect,
                                       ITER_WANT_ATTR, &c);
                e.changes = c.lines;
                std::this_thread::sleep_for(std::chrono::milliseconds(delay_));
                if (answer_) confd_diff_notification_done(fd_, n.n.commit_diff.tctx);
            }
            confd_free_notification(&n);
            std::lock_guard<std::mutex> lk(mu_);
            events_.push_back(e);
            arrived_.notify_all();
        }
    }

    const int port_, delay_;
    const bool answer_;
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
    // confd-emu on the fixture model and its configuration, commits waiting 1 s at most for a
    // subscriber, with the schemas loaded into this process for printing keypaths and values.
    void start()
    {
        confd_init("it_maapi", nullptr, CONFD_SILENT);
        ASSERT_NO_FATAL_FAILURE(
            start_emu({"--models", models_.dir, "--init", MAAPI_FIXTURES_DIR "/init.xml",
                       "--diff-timeout-ms", "1000"}));
        sockaddr_in sa = harness::loopback(port());
        ASSERT_EQ(confd_load_schemas(reinterpret_cast<sockaddr *>(&sa), sizeof sa), CONFD_OK);
    }

    FixtureModels models_;
};

const std::string kOk = "{\"result\":\"ok\"}";

// Verifies the reads the daemon makes: XPath in its forms (a predicate, a context node given as a
// list without keys, a trailing blank) handing back NULL on every failure, typed reads and their
// errors, a cursor walking a list in key order whatever the stored order; and that a transaction
// needs a session, and another socket an attach.
TEST_F(MaapiTest, ReadsCursorsAndErrors)
{
    start();
    Maapi m(port());
    ASSERT_TRUE(m.ok());
    int s = m.fd();
    EXPECT_TRUE(fails(maapi_start_trans(s, CONFD_RUNNING, CONFD_READ), CONFD_ERR_NOSESSION));
    int th = m.start(CONFD_READ);
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

// Verifies that one socket holds at most 64 open transactions and all clients together 256, with
// CONFD_ERR_TOOMANYTRANS past either bound and room again once one is finished.
TEST_F(MaapiTest, OpenTransactionsAreBounded)
{
    start();
    std::vector<std::unique_ptr<Maapi>> socks;
    std::vector<int> first;
    for (int k = 0; k < 5; k++) {
        socks.push_back(std::make_unique<Maapi>(port()));
        Maapi &m = *socks.back();
        ASSERT_TRUE(m.ok());
        first.push_back(m.start(CONFD_READ_WRITE));
        for (int i = 1; k < 4 && i < 64; i++)
            ASSERT_GT(maapi_start_trans(m.fd(), CONFD_RUNNING, CONFD_READ_WRITE), 0)
                << k << "/" << i << ": " << confd_lasterr();
    }
    EXPECT_TRUE(fails(first[4], CONFD_ERR_TOOMANYTRANS));
    EXPECT_STREQ(confd_lasterr(), "too many open transactions (256)");
    EXPECT_TRUE(fails(maapi_start_trans(socks[0]->fd(), CONFD_RUNNING, CONFD_READ),
                      CONFD_ERR_TOOMANYTRANS));
    EXPECT_STREQ(confd_lasterr(), "too many open transactions on this socket (64)");
    ASSERT_EQ(maapi_finish_trans(socks[0]->fd(), first[0]), CONFD_OK);
    EXPECT_GT(maapi_start_trans(socks[4]->fd(), CONFD_RUNNING, CONFD_READ), 0) << confd_lasterr();
}

// Verifies a MAAPI write transaction: its changes are visible inside it at once and elsewhere only
// after apply; apply waits for the commit-diff subscriber's done; the subscriber sees every change
// with its user (values typed by their leaf, a created entry with its leaves, a deleted entry, a
// leaf-list), ITER_CONTINUE limits what is iterated; and a commit that does not validate changes
// nothing; a subscriber that never answers delays a commit by the time-out only.
TEST_F(MaapiTest, WritesApplyAndDiffIterate)
{
    start();
    Subscriber sub(port(), CONFD_NOTIF_AUDIT | CONFD_NOTIF_COMMIT_DIFF, 300);
    ASSERT_TRUE(sub.ok());
    Maapi m(port()), reader(port());
    int s = m.fd();
    int th = m.start(CONFD_READ_WRITE, "carol");
    ASSERT_GT(th, 0) << confd_lasterr();
    int rth = reader.start(CONFD_READ);
    ASSERT_GT(rth, 0);
    EXPECT_NE(th, rth);

    confd_value_t v;
    CONFD_SET_STR(&v, "renamed");
    ASSERT_EQ(maapi_set_elem(s, th, &v, "/settings/hostname"), CONFD_OK) << confd_lasterr();
    ASSERT_EQ(maapi_set_elem2(s, th, "off", "/settings/mode"), CONFD_OK) << confd_lasterr();
    ASSERT_EQ(maapi_create(s, th, "/pools/pool{%u}", 3u), CONFD_OK);
    EXPECT_TRUE(fails(maapi_create(s, th, "/pools/pool{3}"), CONFD_ERR_ALREADY_EXISTS));
    ASSERT_EQ(maapi_set_elem2(s, th, "10.3.0.1", "/pools/pool{3}/start"), CONFD_OK);
    ASSERT_EQ(maapi_delete(s, th, "/users/user{guest}"), CONFD_OK);
    EXPECT_TRUE(fails(maapi_delete(s, th, "/users/user{guest}"), CONFD_ERR_NOEXISTS));
    confd_value_t dns[1];
    struct in_addr a;
    inet_pton(AF_INET, "9.9.9.9", &a);
    CONFD_SET_IPV4(&dns[0], a);
    CONFD_SET_LIST(&v, dns, 1);
    ASSERT_EQ(maapi_set_elem(s, th, &v, "/settings/dns"), CONFD_OK);

    CONFD_SET_INT32(&v, 5);
    EXPECT_TRUE(fails(maapi_set_elem(s, th, &v, "/settings/hostname"), CONFD_ERR_BADTYPE));
    EXPECT_TRUE(fails(maapi_set_elem2(s, th, "", "/settings/hostname"), CONFD_ERR_BADTYPE))
        << "length 1..63";
    EXPECT_TRUE(
        fails(maapi_set_elem2(s, th, "1", "/status/port{wan}/speed"), CONFD_ERR_NOT_WRITABLE));
    EXPECT_TRUE(
        fails(maapi_set_elem2(reader.fd(), rth, "x", "/settings/domain"), CONFD_ERR_NOT_WRITABLE));

    int32_t mode = -1;
    EXPECT_EQ(maapi_get_enum_value_elem(s, th, &mode, "/settings/mode"), CONFD_OK);
    EXPECT_EQ(mode, 0) << "the transaction sees its own change";
    EXPECT_EQ(xpath(reader.fd(), rth, "/settings/hostname", nullptr), "fixture");

    std::vector<std::string> changes = {"set /settings/hostname=renamed", "set /settings/mode=off",
                                        "set /settings/dns=[9.9.9.9]", "deleted /users/user{guest}",
                                        "created /pools/pool{3}"};
    Changes pending;
    pending.continue_on_created = 1;
    ASSERT_EQ(maapi_diff_iterate(s, th, collect, 0, &pending), CONFD_OK);
    EXPECT_EQ(pending.lines, changes);

    auto t0 = Clock::now();
    ASSERT_EQ(maapi_apply_trans(s, th, 0), CONFD_OK) << confd_lasterr();
    EXPECT_GE(ms_since(t0), 300) << "apply waits for the subscriber's done";
    auto events = sub.wait(1);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].type, CONFD_NOTIF_COMMIT_DIFF);
    EXPECT_EQ(events[0].user, "carol");
    changes.push_back("set /pools/pool{3}/start=10.3.0.1");
    EXPECT_EQ(events[0].changes, changes);

    EXPECT_EQ(xpath(reader.fd(), rth, "/settings/hostname", nullptr), "renamed");
    EXPECT_EQ(maapi_exists(reader.fd(), rth, "/users/user{guest}"), 0);
    EXPECT_EQ(cli({"get", "/pools/pool{3}/start"}), "{\"type\":\"C_IPV4\",\"value\":\"10.3.0.1\"}");
    EXPECT_EQ(maapi_finish_trans(s, th), CONFD_OK);

    // The administrator must be a user: the failed apply tells nobody, the fixed one commits.
    th = m.start(CONFD_READ_WRITE);
    ASSERT_GT(th, 0);
    ASSERT_EQ(maapi_set_elem2(s, th, "nobody", "/settings/admin"), CONFD_OK);
    ASSERT_EQ(maapi_set_elem2(s, th, "other", "/settings/hostname"), CONFD_OK);
    EXPECT_TRUE(fails(maapi_apply_trans(s, th, 0), CONFD_ERR_BAD_KEYREF)) << confd_lasterr();
    ASSERT_EQ(maapi_set_elem2(s, th, "kelto", "/settings/admin"), CONFD_OK);
    EXPECT_EQ(xpath(reader.fd(), rth, "/settings/hostname", nullptr), "renamed");
    EXPECT_EQ(maapi_apply_trans(s, th, 0), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(sub.wait(2).size(), 2u);
    EXPECT_EQ(xpath(reader.fd(), rth, "/settings/admin", nullptr), "kelto");

    // A subscriber that never answers holds a commit up for the time-out only.
    Subscriber silent(port(), CONFD_NOTIF_COMMIT_DIFF, 0, false);
    ASSERT_TRUE(silent.ok());
    t0 = Clock::now();
    EXPECT_EQ(cli({"commit", "/settings/domain=late.example"}), kOk);
    long took = ms_since(t0);
    EXPECT_TRUE(took >= 1000 && took < 5000) << took;
    EXPECT_EQ(silent.wait(1).size(), 1u);
    EXPECT_EQ(xpath(reader.fd(), rth, "/settings/domain", nullptr), "late.example");
    EXPECT_NE(emu_->log().find("did not answer"), std::string::npos) << emu_->log();
}

// The provider of the fixture model's set hook: it copies every name written into the mirror leaf
// of the same transaction ("refuse" is refused).
int hook_set_elem(confd_trans_ctx *t, confd_hkeypath_t *kp, confd_value_t *v)
{
    if (kp_text(kp) != "/hooked/name") return CONFD_OK;
    std::string name = text(v);
    if (name == "refuse") {
        confd_trans_seterr(t, "the hook refuses %s", name.c_str());
        return CONFD_ERR;
    }
    std::string mirror = "mirror of " + name;
    confd_value_t m;
    CONFD_SET_STR(&m, mirror.c_str());
    // The mirror is the hooked leaf's sibling: the keypath's parent plus its name.
    int msock = static_cast<EmuDaemon *>(t->dx->d_opaque)->maapi();
    return maapi_set_elem(msock, t->thandle, &m, "%*h/mirror", kp->len - 1, kp);
}

// Verifies the set hook: it runs inside the write transaction, its maapi_set_elem lands in that
// same transaction (one commit-diff carries both values), and a refusing hook stores nothing.
TEST_F(MaapiTest, SetHookWritesThroughMaapi)
{
    start();
    EmuDaemon d(port(), "hookd", &d);
    std::string err;
    ASSERT_TRUE(d.connect(err)) << err;
    confd_trans_cbs tcb = {};
    tcb.init = [](confd_trans_ctx *t) {
        auto *self = static_cast<EmuDaemon *>(t->dx->d_opaque);
        // Reads at init, before any write: the transaction is known to MAAPI from the start.
        if (maapi_attach(self->maapi(), 0, t) != CONFD_OK ||
            maapi_exists(self->maapi(), t->thandle, "/hooked") != 1)
            return CONFD_ERR;
        confd_trans_set_fd(t, self->worker());
        return CONFD_OK;
    };
    tcb.finish = [](confd_trans_ctx *t) {
        return maapi_detach(static_cast<EmuDaemon *>(t->dx->d_opaque)->maapi(), t);
    };
    confd_data_cbs hook = data_cbs("fixture-hook");
    hook.set_elem = hook_set_elem;
    ASSERT_EQ(confd_register_trans_cb(d.dx(), &tcb), CONFD_OK);
    ASSERT_EQ(confd_register_data_cb(d.dx(), &hook), CONFD_OK);
    ASSERT_TRUE(d.run(err)) << err;
    Subscriber sub(port(), CONFD_NOTIF_COMMIT_DIFF);
    ASSERT_TRUE(sub.ok());

    EXPECT_EQ(cli({"set", "--user", "snmp", "/hooked/name", "second"}), kOk);
    EXPECT_EQ(cli({"get", "/hooked/name"}), "{\"type\":\"C_BUF\",\"value\":\"second\"}");
    EXPECT_EQ(cli({"get", "/hooked/mirror"}),
              "{\"type\":\"C_BUF\",\"value\":\"mirror of second\"}");
    auto events = sub.wait(1);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].user, "snmp");
    EXPECT_EQ(events[0].changes, (std::vector<std::string>{"set /hooked/name=second",
                                                           "set /hooked/mirror=mirror of second"}));

    std::string refused = cli({"set", "/hooked/name", "refuse"});
    EXPECT_NE(refused.find("the hook refuses refuse"), std::string::npos) << refused;
    EXPECT_EQ(cli({"get", "/hooked/name"}), "{\"type\":\"C_BUF\",\"value\":\"second\"}");
    EXPECT_EQ(sub.wait(1).size(), 1u) << "a refused set commits nothing";
    EXPECT_NE(cli({"status"}).find("\"open_transactions\":0,"), std::string::npos);
}

// Verifies the command line's audit and commit: an audit event carries its log number (whose
// symbol is SNMP_AUTHENTICATION_FAILED), user and message; commit changes the configuration in one
// transaction whose commit-diff names the committing user; each subscriber gets only the events of
// its mask; with ITER_WANT_ATTR a moved user-ordered entry is seen as moved after the keys of its
// new predecessor (none when it went first), and an attribute set or removed with its number and
// value (none when removed); an entry of a system-ordered list cannot move.
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
    EXPECT_EQ(cli({"commit", "--user", "alice", "/settings/domain=example.net",
                   "/users/user{dave}/uid=1001", "/pools/pool{7}/ipv4/mode=relay"}),
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
    EXPECT_EQ(
        events[1].changes,
        (std::vector<std::string>{"set /settings/domain=example.net", "created /users/user{dave}",
                                  "set /users/user{dave}/uid=1001", "modified /pools/pool{7}",
                                  "set /pools/pool{7}/ipv4/mode=relay"}));
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
    EXPECT_EQ(cli({"next", "/pools/pool", "--cookie", "1"}),
              "{\"keys\":[{\"type\":\"C_UINT32\",\"value\":7}],\"next\":2}");
    EXPECT_EQ(cli({"next", "/rules/rule", "--cookie", "1"}),
              "{\"keys\":[{\"type\":\"C_BUF\",\"value\":\"c\"}],\"next\":2}");
    std::vector<cli_json::row> users;
    ASSERT_TRUE(cli_json::parse_walk(cli({"walk", "/users/user", "--leaves", "uid"}), users));
    std::vector<std::string> uids;
    for (const cli_json::row &r : users)
        uids.push_back(r.keys.at(0) + " " + r.leaves.at("uid"));
    EXPECT_EQ(uids, (std::vector<std::string>{"dave 1001", "guest 1000", "kelto 0"}));
}

} // namespace
