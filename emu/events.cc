// Event notifications of confd-emu: audit messages, and commits that wait for their diff subscribers.
#include "events.h"

#include <cstdio>
#include <cstdlib>

#include "confd_lib.h"
#include "confd_events.h"
#include "confd_logsyms.h"

namespace emu
{

using confd_wire::Op;
using confd_wire::Writer;

namespace
{

struct LogSym {
    int logno;
    const char *name;
};
// A numeric symbol must be a log number the client library can name.
constexpr int kMaxLogNo = 256;

// The log numbers of confd_logsyms.h, by name.
constexpr LogSym kLogSyms[] = {
    {CONFD_WEB_COMMIT, "WEB_COMMIT"},
    {CONFD_SNMP_AUTHENTICATION_FAILED, "SNMP_AUTHENTICATION_FAILED"},
    {CONFD_LOGIN_REJECTED, "LOGIN_REJECTED"},
    {CONFD_COMMIT_INFO, "COMMIT_INFO"},
};

} // namespace

int log_symbol_number(const std::string &name)
{
    std::string n = name.compare(0, 6, "CONFD_") == 0 ? name.substr(6) : name;
    for (const LogSym &s : kLogSyms)
        if (n == s.name) return s.logno;
    if (!n.empty() && n.size() < 6 && n.find_first_not_of("0123456789") == std::string::npos) {
        int v = std::atoi(n.c_str());
        if (v >= 0 && v < kMaxLogNo) return v;
    }
    return -1;
}

const char *log_symbol_name(int logno)
{
    for (const LogSym &s : kLogSyms)
        if (s.logno == logno) return s.name;
    return nullptr;
}

int send_audit(Registry &reg, int logno, const std::string &user, const std::string &msg,
               int32_t usid)
{
    Writer w(Op::Event);
    w.u32(CONFD_NOTIF_AUDIT).i32(logno).str(user).str(msg).i32(usid);
    int reached = 0;
    for (const ConnPtr &c : reg.subscribers(CONFD_NOTIF_AUDIT))
        if (c->send(w.payload())) reached++;
    return reached;
}

int commit_and_notify(Registry &reg, Datastore &ds, uint32_t th, int timeout_ms, std::string &err)
{
    std::vector<DiffItem> changes;
    int rc = ds.commit(th, changes, err);
    if (rc || changes.empty()) return rc;
    std::vector<ConnPtr> subs = reg.subscribers(CONFD_NOTIF_COMMIT_DIFF);
    if (subs.empty()) return 0;
    Writer w(Op::Event);
    w.u32(CONFD_NOTIF_COMMIT_DIFF).u8(CONFD_RUNNING);
    write_user_info(w, ds.user(th));
    w.u32(th).i32(0).str("").str("");
    std::vector<uint32_t> ids;
    for (const ConnPtr &c : subs)
        ids.push_back(c->id());
    // Waiting starts before the first event goes out, so that a quick done is not missed.
    reg.expect_diff_done(th, ids);
    for (const ConnPtr &c : subs)
        if (!c->send(w.payload())) reg.diff_done(th, c->id());
    for (uint32_t id : reg.wait_diff_done(th, timeout_ms))
        std::fprintf(stderr,
                     "confd-emu: commit-diff subscriber %u did not answer for transaction %u "
                     "within %d ms; the commit goes on\n",
                     id, th, timeout_ms);
    return 0;
}

} // namespace emu
