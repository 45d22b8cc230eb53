// The SNMP front end of confd-emu on the net-snmp agent library.
//
// One handler is registered per MIB subtree the models carry (the topmost lx:snmp-oid of each
// branch, nested subtrees merged into their parent). Inside a subtree the handler knows every
// scalar and column in OID order; a table's rows come from one walk of the daemon's list (kept for
// a short while, so a bulk walk does not repeat it per PDU), ordered by their SMIv2 index. Values
// come from get_elem in a transaction opened for the PDU, exactly as confd-emu-cli asks for them;
// for a GETBULK the values of a column's next rows are asked for in one batch (the repetitions
// will read them), and kept only until the PDU is answered.
// net-snmp runs on the agent's own thread only; other threads hand notifications over through a
// queue and an eventfd.
#include "snmp_agent.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <sys/eventfd.h>
#include <sys/select.h>
#include <thread>
#include <unistd.h>

#include "confd_lib.h"
#include "dp_session.h"
#include "events.h"
#include "keypath.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>
#include <net-snmp/agent/agent_callbacks.h>

// The agent library's authenticationFailure switch (snmpEnableAuthenTraps: 1 enabled, 2 disabled),
// exported by libnetsnmpagent without a declaration in its headers.
extern "C" int snmp_enableauthentraps;

namespace emu
{

using confd_wire::DataCb;
using confd_wire::ReplyKind;
using confd_wire::Value;
using Oid = std::vector<oid>;

namespace
{

// How long a table's row list serves GETNEXT requests before the daemon is walked again (as
// long as a bulk walk of a 20 000-row table takes; snmpd keeps its tables about as long).
constexpr auto kRowsTtl = std::chrono::milliseconds(5000);

// Longest time the transactions of one read session serve PDUs.
constexpr auto kSessionSpan = std::chrono::milliseconds(1000);

// Values of one column asked for in one batch by a GETNEXT or GETBULK that runs into a table: at
// least kMinAhead, at most kMaxAhead.
constexpr size_t kMinAhead = 64;
constexpr size_t kMaxAhead = 256;
// Rows asked for with one get_next while a table is walked, and the most rows a table may have.
constexpr uint32_t kWalkRows = 256;
constexpr size_t kMaxWalkRows = 10000000;

// Entries whose last index is IMPLIED in their MIB (a string index without its length).
bool implied_last(const SchemaNode *list)
{
    static const std::set<std::string> names = {"snmpCommunityEntry"};
    return names.count(list->name) != 0;
}

bool parse_oid(const std::string &dotted, Oid &out)
{
    out.clear();
    size_t i = 0;
    while (i < dotted.size()) {
        size_t dot = dotted.find('.', i);
        std::string part = dotted.substr(i, dot == std::string::npos ? std::string::npos : dot - i);
        if (part.empty() || part.find_first_not_of("0123456789") != std::string::npos ||
            part.size() > 10)
            return false;
        unsigned long v = std::stoul(part);
        if (v > 0xffffffffUL) return false;
        out.push_back(v);
        if (dot == std::string::npos) break;
        i = dot + 1;
    }
    return !out.empty();
}

bool has_prefix(const Oid &o, const Oid &prefix)
{
    return o.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), o.begin());
}

// The SMI syntax a leaf is given on the wire.
enum class Smi { Integer, Unsigned, Counter32, Counter64, TimeTicks, IpAddress, Octets, Bits, Oid };

Smi smi_of(const SchemaNode *n)
{
    const std::string &t = n->type_name;
    if (t == "counter32") return Smi::Counter32;
    if (t == "gauge32") return Smi::Unsigned;
    if (t == "counter64") return Smi::Counter64;
    if (t == "timeticks") return Smi::TimeTicks;
    switch (n->vtype) {
    case vt::IPV4:
        return Smi::IpAddress;
    case vt::UINT8:
    case vt::UINT16:
    case vt::UINT32:
        return Smi::Unsigned;
    case vt::UINT64:
        return Smi::Counter64;
    case vt::STR:
    case vt::BUF:
    case vt::BINARY:
    case vt::IPV6:
        return Smi::Octets;
    case vt::BIT32:
    case vt::BIT64:
    case vt::BITBIG:
        return Smi::Bits;
    case vt::OID:
        return Smi::Oid;
    default:
        return Smi::Integer;
    }
}

// A value in the form snmp_set_var_typed_value takes it.
struct SnmpValue {
    u_char type = ASN_NULL;
    long l = 0;
    u_long ul = 0;
    struct counter64 c64 = {0, 0};
    Oid o;
    std::string s;
    const void *data() const
    {
        switch (type) {
        case ASN_INTEGER:
            return &l;
        case ASN_COUNTER:
        case ASN_GAUGE:
        case ASN_TIMETICKS:
            return &ul;
        case ASN_COUNTER64:
            return &c64;
        case ASN_OBJECT_ID:
            return o.data();
        default:
            return s.data();
        }
    }
    size_t size() const
    {
        switch (type) {
        case ASN_INTEGER:
            return sizeof l;
        case ASN_COUNTER:
        case ASN_GAUGE:
        case ASN_TIMETICKS:
            return sizeof ul;
        case ASN_COUNTER64:
            return sizeof c64;
        case ASN_OBJECT_ID:
            return o.size() * sizeof(oid);
        default:
            return s.size();
        }
    }
};

bool is_signed(uint8_t t)
{
    return t == confd_wire::T_INT8 || t == confd_wire::T_INT16 || t == confd_wire::T_INT32 ||
           t == confd_wire::T_INT64 || t == confd_wire::T_ENUM_VALUE;
}

bool is_unsigned(uint8_t t)
{
    return t == confd_wire::T_UINT8 || t == confd_wire::T_UINT16 || t == confd_wire::T_UINT32 ||
           t == confd_wire::T_UINT64;
}

// Converts a daemon's value to the SMI syntax smi; false when the value's type has no such form.
bool to_snmp(Smi smi, const Value &v, SnmpValue &out)
{
    using namespace confd_wire;
    if (v.type == T_BOOL) { // TruthValue
        out.type = ASN_INTEGER;
        out.l = v.u ? 1 : 2;
        return true;
    }
    switch (smi) {
    case Smi::Integer:
        if (!is_signed(v.type) && !is_unsigned(v.type)) return false;
        out.type = ASN_INTEGER;
        out.l = is_signed(v.type) ? static_cast<int32_t>(v.i) : static_cast<int32_t>(v.u);
        return true;
    case Smi::Unsigned:
    case Smi::Counter32:
    case Smi::TimeTicks:
        if (!is_unsigned(v.type) && !is_signed(v.type)) return false;
        out.type = smi == Smi::Counter32   ? ASN_COUNTER
                   : smi == Smi::TimeTicks ? ASN_TIMETICKS
                                           : ASN_GAUGE;
        out.ul = static_cast<uint32_t>(is_unsigned(v.type) ? v.u : static_cast<uint64_t>(v.i));
        return true;
    case Smi::Counter64:
        if (!is_unsigned(v.type)) return false;
        out.type = ASN_COUNTER64;
        out.c64.high = v.u >> 32;
        out.c64.low = v.u & 0xffffffffu;
        return true;
    case Smi::IpAddress:
        if (v.type != T_IPV4 || v.bytes.size() != 4) return false;
        out.type = ASN_IPADDRESS;
        out.s = v.bytes;
        return true;
    case Smi::Octets:
        if (v.type != T_STR && v.type != T_BUF && v.type != T_BINARY && v.type != T_IPV4 &&
            v.type != T_IPV6 && v.type != T_HEXSTR)
            return false;
        out.type = ASN_OCTET_STR;
        out.s = v.bytes;
        return true;
    case Smi::Bits: {
        // BITS: bit n is octet n/8, most significant bit first.
        out.type = ASN_OCTET_STR;
        if (v.type == T_BITBIG) {
            for (size_t n = 0; n < v.bytes.size() * 8; n++)
                if (static_cast<uint8_t>(v.bytes[n / 8]) & (1u << (n % 8))) {
                    if (out.s.size() <= n / 8) out.s.resize(n / 8 + 1, '\0');
                    out.s[n / 8] = static_cast<char>(out.s[n / 8] | (0x80 >> (n % 8)));
                }
            return true;
        }
        if (v.type != T_BIT32 && v.type != T_BIT64) return false;
        for (unsigned n = 0; n < 64; n++)
            if (v.u & (uint64_t{1} << n)) {
                if (out.s.size() <= n / 8) out.s.resize(n / 8 + 1, '\0');
                out.s[n / 8] = static_cast<char>(out.s[n / 8] | (0x80 >> (n % 8)));
            }
        return true;
    }
    case Smi::Oid:
        if (v.type != T_OID) return false;
        out.type = ASN_OBJECT_ID;
        out.o.assign(v.oid.begin(), v.oid.end());
        return true;
    }
    return false;
}

// The SMIv2 index of a row: integers as one sub-identifier, IpAddress as four, strings and
// InetAddress length-prefixed (the last one bare when IMPLIED), OIDs length-prefixed.
bool encode_index(const SchemaNode *list, const std::vector<Value> &keys, Oid &out)
{
    using namespace confd_wire;
    out.clear();
    for (size_t i = 0; i < keys.size(); i++) {
        const Value &k = keys[i];
        bool implied = i + 1 == keys.size() && implied_last(list);
        if (is_signed(k.type)) {
            out.push_back(static_cast<uint32_t>(k.i));
        } else if (is_unsigned(k.type) || k.type == T_BOOL) {
            out.push_back(static_cast<uint32_t>(k.u));
        } else if (k.type == T_IPV4 && k.bytes.size() == 4) {
            for (unsigned char c : k.bytes)
                out.push_back(c);
        } else if (k.type == T_STR || k.type == T_BUF || k.type == T_BINARY || k.type == T_IPV6) {
            if (!implied) out.push_back(k.bytes.size());
            for (unsigned char c : k.bytes)
                out.push_back(c);
        } else if (k.type == T_OID) {
            if (!implied) out.push_back(k.oid.size());
            out.insert(out.end(), k.oid.begin(), k.oid.end());
        } else {
            return false;
        }
    }
    return true;
}

// The keys of a row from its index; false when the index cannot name a row of the list.
bool decode_index(const SchemaNode *list, const oid *idx, size_t len, std::vector<Value> &keys)
{
    using namespace confd_wire;
    size_t at = 0;
    keys.clear();
    for (size_t i = 0; i < list->keys.size(); i++) {
        const SchemaNode *kl = list->keys[i];
        bool implied = i + 1 == list->keys.size() && implied_last(list);
        Value k;
        switch (kl->vtype) {
        case vt::INT8:
        case vt::INT16:
        case vt::INT32:
        case vt::INT64:
        case vt::ENUM_VALUE:
            if (at >= len || idx[at] > (kl->vtype == vt::INT8    ? 0x7fu
                                        : kl->vtype == vt::INT16 ? 0x7fffu
                                                                 : 0x7fffffffu))
                return false;
            k.type = static_cast<uint8_t>(kl->vtype);
            k.i = static_cast<int64_t>(idx[at++]);
            if (kl->vtype == vt::ENUM_VALUE &&
                std::none_of(kl->enums.begin(), kl->enums.end(),
                             [&](const auto &e) { return e.second == k.i; }))
                return false;
            break;
        case vt::UINT8:
        case vt::UINT16:
        case vt::UINT32:
        case vt::UINT64:
            if (at >= len || idx[at] > (kl->vtype == vt::UINT8    ? 0xffu
                                        : kl->vtype == vt::UINT16 ? 0xffffu
                                                                  : 0xffffffffu))
                return false;
            k.type = static_cast<uint8_t>(kl->vtype);
            k.u = idx[at++];
            break;
        case vt::IPV4:
            if (len - at < 4) return false;
            k.type = T_IPV4;
            for (int b = 0; b < 4; b++) {
                if (idx[at] > 255) return false;
                k.bytes.push_back(static_cast<char>(idx[at++]));
            }
            break;
        case vt::STR:
        case vt::BUF:
        case vt::BINARY: {
            size_t n = len - at;
            if (!implied) {
                if (at >= len) return false;
                n = idx[at++];
                if (n > len - at) return false;
            }
            k.type = kl->vtype == vt::BINARY ? T_BINARY : T_BUF;
            for (size_t b = 0; b < n; b++) {
                if (idx[at] > 255) return false;
                k.bytes.push_back(static_cast<char>(idx[at++]));
            }
            break;
        }
        default:
            return false;
        }
        keys.push_back(std::move(k));
    }
    return at == len;
}

// One scalar or column of a MIB subtree.
struct Object {
    Oid oid;
    const SchemaNode *leaf = nullptr;
    const SchemaNode *list = nullptr; // the entry of a column; null for a scalar
    Smi smi = Smi::Integer;
};

bool oid_less(const Oid &a, const Oid &b)
{
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end());
}

// A subtree registered with the agent: its objects in OID order.
struct Subtree {
    Oid root;
    std::vector<Object> objects;
};

struct Row {
    Oid index;
    std::vector<Value> keys;
};

struct Rows {
    std::vector<Row> rows; // by index
    std::chrono::steady_clock::time_point at;
};

enum class Got { Value, Missing, Failed };

// What a get_elem reply means for a varbind.
Got got_of(DpReply &r, Value &out)
{
    if (r.kind == ReplyKind::NotFound ||
        (r.kind == ReplyKind::Value && r.value.type == confd_wire::T_NOEXISTS))
        return Got::Missing;
    if (r.kind != ReplyKind::Value) return Got::Failed;
    out = std::move(r.value);
    return Got::Value;
}

// Values of one column read ahead for the PDUs of a walk: rows first, first + 1, ... of a
// table's row list as it stood at time at. They serve as long as the read session does and no
// SET comes between.
struct Ahead {
    const SchemaNode *leaf = nullptr;
    const Rows *rows = nullptr;
    std::chrono::steady_clock::time_point at;
    size_t first = 0;
    std::vector<Got> got;
    std::vector<Value> values;
};

} // namespace

struct SnmpAgent::Impl {
    Registry &reg;
    const Schema &schema;
    Datastore *ds;
    const SnmpOptions opt;

    std::vector<std::unique_ptr<Subtree>> subtrees;
    std::map<const SchemaNode *, Rows> rows_cache;
    Ahead ahead;                        // read by the session's PDUs
    std::unique_ptr<DpSession> session; // for the PDUs of the last moment (see loop())
    std::chrono::steady_clock::time_point session_at;
    std::map<std::string, Oid> names; // leaf name -> OID, for notification bindings
    std::set<std::string> users;      // SNMPv3 users created from the options

    // The SET being handled: its writes (checked in RESERVE1), and the datastore transaction they
    // run in from ACTION on.
    struct Write {
        netsnmp_request_info *req;
        std::string path;
        Value value;
    };
    std::vector<Write> writes;
    uint32_t set_th = 0;
    bool committed = false;

    std::thread th;
    int wake_fd = -1;
    std::atomic<bool> stop{false};
    std::mutex q_mu;
    std::deque<Notification> queue;
    bool started = false;

    Impl(Registry &r, const Schema &s, Datastore *d, SnmpOptions o)
        : reg(r), schema(s), ds(d), opt(std::move(o))
    {
    }

    void build();
    bool stored(const SchemaNode *n) const
    {
        if (!ds) return false;
        const SchemaNode *owner = schema.callpoint_owner(n);
        return !owner || owner->cpkind == CpKind::SetHook;
    }
    // No daemon serves the callpoint of n (yet): its data does not exist.
    bool unserved(const SchemaNode *n) const
    {
        Route route;
        std::string err;
        return !reg.route(schema.callpoint_owner(n)->callpoint, route, err);
    }
    DpSession &dp()
    {
        if (!session) {
            session = std::make_unique<DpSession>(reg, schema, CONFD_READ, "snmp");
            session_at = std::chrono::steady_clock::now();
        }
        return *session;
    }
    ParsedPath path_of(const SchemaNode *leaf, const std::vector<Value> &keys) const;
    Got get(const Object &o, const std::vector<Value> &keys, Value &out);
    Got get_ahead(const Object &o, const Rows &rows, size_t pos, size_t batch, Value &out);
    const Rows *rows_of(const SchemaNode *list);
    bool walk(const SchemaNode *list, std::vector<std::vector<Value>> &out, std::string &err);
    void handle_get(const Subtree &st, netsnmp_agent_request_info *ri, netsnmp_request_info *r);
    void handle_next(const Subtree &st, netsnmp_agent_request_info *ri, netsnmp_request_info *r);
    bool answer(const Object &o, const Oid &instance, const std::vector<Value> &keys,
                netsnmp_agent_request_info *ri, netsnmp_request_info *r, bool next,
                const Rows *rows = nullptr, size_t pos = 0);
    void handle_set(const Subtree &st, int mode, netsnmp_agent_request_info *ri,
                    netsnmp_request_info *requests);
    void end_set();
    bool community_known(const std::string &c);
    void send_trap(const Notification &n);
    void loop();
};

void SnmpAgent::Impl::build()
{
    std::map<Oid, std::vector<Object>, bool (*)(const Oid &, const Oid &)> by_root(oid_less);
    for (const SchemaNode *n : schema.all()) {
        if (n->kind != NodeKind::Leaf || n->oid.empty()) continue;
        Object o;
        o.leaf = n;
        if (!parse_oid(n->oid, o.oid)) continue;
        o.smi = smi_of(n);
        names.emplace(n->name, o.oid);
        int lists = 0;
        const SchemaNode *root = n;
        for (const SchemaNode *p = n->parent; p; p = p->parent) {
            if (p->kind == NodeKind::List) {
                lists++;
                o.list = p;
            }
            if (!p->oid.empty()) root = p;
        }
        // An index object its MIB declares not-accessible names rows only.
        if (lists > 1 || (o.list && o.list->oid.empty()) || n->not_accessible) continue;
        Oid r;
        if (!parse_oid(root->oid, r)) continue;
        by_root[r].push_back(std::move(o));
    }
    // A subtree inside another one is served by the outer one.
    for (auto &e : by_root) {
        Subtree *outer = nullptr;
        for (auto &st : subtrees)
            if (has_prefix(e.first, st->root)) outer = st.get();
        if (!outer) {
            subtrees.push_back(std::make_unique<Subtree>());
            outer = subtrees.back().get();
            outer->root = e.first;
        }
        for (Object &o : e.second)
            outer->objects.push_back(std::move(o));
    }
    for (auto &st : subtrees)
        std::sort(st->objects.begin(), st->objects.end(),
                  [](const Object &a, const Object &b) { return oid_less(a.oid, b.oid); });
}

ParsedPath SnmpAgent::Impl::path_of(const SchemaNode *leaf, const std::vector<Value> &keys) const
{
    ParsedPath p;
    for (const SchemaNode *n = leaf; n; n = n->parent) {
        PathStep st;
        st.node = n;
        if (n->kind == NodeKind::List) {
            st.keys = keys;
            st.has_keys = true;
        }
        p.steps.insert(p.steps.begin(), std::move(st));
    }
    return p;
}

Got SnmpAgent::Impl::get(const Object &o, const std::vector<Value> &keys, Value &out)
{
    if (o.list && o.leaf->is_key) {
        // An index column is answered from the row's keys, as long as the row exists.
        const Rows *rows = rows_of(o.list);
        if (!rows) return Got::Failed;
        Oid index;
        encode_index(o.list, keys, index);
        auto it = std::lower_bound(rows->rows.begin(), rows->rows.end(), index,
                                   [](const Row &a, const Oid &b) { return oid_less(a.index, b); });
        if (it == rows->rows.end() || it->index != index) return Got::Missing;
        size_t pos =
            std::find(o.list->keys.begin(), o.list->keys.end(), o.leaf) - o.list->keys.begin();
        out = it->keys.at(pos);
        return Got::Value;
    }
    ParsedPath p = path_of(o.leaf, keys);
    std::string err;
    if (stored(o.leaf)) {
        int rc = ds->get_elem(0, pp_path(schema, p), out, err);
        if (rc == CONFD_ERR_NOEXISTS) return Got::Missing;
        return rc ? Got::Failed : Got::Value;
    }
    DpSession &s = dp();
    DpSession::Txn *t = s.txn_for(o.leaf, err);
    if (!t && unserved(o.leaf)) return Got::Missing;
    DpReply r;
    if (!t || !s.data_call(*t, o.leaf, DataCb::GetElem, to_hkeypath(p), nullptr, r, err)) {
        std::fprintf(stderr, "confd-emu: snmp: %s\n", err.c_str());
        return Got::Failed;
    }
    return got_of(r, out);
}

// The value of column o at row pos of rows, read with those of the batch - 1 rows after it when
// the read-ahead does not hold it yet.
Got SnmpAgent::Impl::get_ahead(const Object &o, const Rows &rows, size_t pos, size_t batch,
                               Value &out)
{
    Ahead &a = ahead;
    bool held = a.leaf == o.leaf && a.rows == &rows && a.at == rows.at && pos >= a.first &&
                pos < a.first + a.got.size();
    if (!held) {
        size_t n = std::min(batch, rows.rows.size() - pos);
        std::vector<confd_wire::KeyPath> kps;
        for (size_t i = pos; i < pos + n; i++)
            kps.push_back(to_hkeypath(path_of(o.leaf, rows.rows[i].keys)));
        std::string err;
        DpSession &s = dp();
        DpSession::Txn *t = s.txn_for(o.leaf, err);
        std::vector<DpReply> replies;
        if (!t || !s.get_elems(*t, o.leaf, kps, replies, err)) {
            std::fprintf(stderr, "confd-emu: snmp: %s\n", err.c_str());
            a = Ahead();
            return Got::Failed;
        }
        a = Ahead{o.leaf, &rows, rows.at, pos, std::vector<Got>(n), std::vector<Value>(n)};
        for (size_t i = 0; i < n; i++)
            a.got[i] = got_of(replies[i], a.values[i]);
    }
    size_t i = pos - a.first;
    Got g = a.got[i];
    if (g == Got::Value) out = a.values[i];
    // A failure is not kept: the next request asks the daemon again.
    if (g == Got::Failed) a = Ahead();
    return g;
}

// Every row of list, keys only, in the daemon's order (get_next, or find_next when the daemon
// gives no cookie), or the stored entries.
bool SnmpAgent::Impl::walk(const SchemaNode *list, std::vector<std::vector<Value>> &out,
                           std::string &err)
{
    ParsedPath p = path_of(list, {});
    p.steps.back().has_keys = false;
    if (stored(list)) {
        std::string path = pp_path(schema, p);
        std::vector<Value> keys, prev;
        for (;;) {
            if (ds->next_keys(0, path, out.empty() ? nullptr : &prev, false, keys, err))
                return false;
            if (keys.empty()) return true;
            out.push_back(keys);
            prev = keys;
        }
    }
    DpSession &s = dp();
    DpSession::Txn *t = s.txn_for(list, err);
    if (!t) return unserved(list); // a table no daemon serves (yet) has no rows
    confd_wire::KeyPath kp = to_hkeypath(p);
    int64_t cookie = -1;
    bool use_find = false;
    for (;;) {
        DpReply r;
        bool ok;
        if (use_find) {
            const std::vector<Value> &last = out.back();
            ok = s.data_call(
                *t, list, DataCb::FindNext, kp,
                [&](confd_wire::Writer &w) {
                    w.u8(0 /* CONFD_FIND_NEXT */).u32(static_cast<uint32_t>(last.size()));
                    for (const Value &k : last)
                        w.value(k);
                },
                r, err);
        } else {
            // The daemon's library walks up to kWalkRows entries for one request.
            ok = s.data_call(
                *t, list, DataCb::GetNext, kp,
                [&](confd_wire::Writer &w) { w.i64(cookie).u32(kWalkRows); }, r, err);
        }
        if (!ok) return false;
        std::vector<DpReply> answers;
        if (r.kind == ReplyKind::NextRows && !r.rows.empty())
            answers = std::move(r.rows);
        else
            answers.push_back(std::move(r));
        for (DpReply &a : answers) {
            if (a.kind == ReplyKind::NextEnd) return true;
            if (a.kind != ReplyKind::NextKey || a.values.size() != list->keys.size() ||
                out.size() > kMaxWalkRows) {
                err = "bad get_next answer on " + list->name;
                return false;
            }
            for (size_t i = 0; i < a.values.size(); i++)
                if (a.values[i].type == confd_wire::T_STR && list->keys[i]->vtype == vt::BUF)
                    a.values[i].type = confd_wire::T_BUF;
            use_find = a.next == -1;
            if (!use_find && a.next == cookie) {
                err = "get_next on " + list->name + " does not advance";
                return false;
            }
            cookie = a.next;
            out.push_back(std::move(a.values));
        }
    }
}

const Rows *SnmpAgent::Impl::rows_of(const SchemaNode *list)
{
    auto now = std::chrono::steady_clock::now();
    auto it = rows_cache.find(list);
    if (it != rows_cache.end() && now - it->second.at < kRowsTtl) return &it->second;
    std::vector<std::vector<Value>> keys;
    std::string err;
    if (!walk(list, keys, err)) {
        std::fprintf(stderr, "confd-emu: snmp: walk of %s: %s\n", list->name.c_str(), err.c_str());
        rows_cache.erase(list);
        return nullptr;
    }
    Rows &rows = rows_cache[list];
    rows.rows.clear();
    rows.at = now;
    for (auto &k : keys) {
        Row row;
        if (!encode_index(list, k, row.index)) continue;
        row.keys = std::move(k);
        rows.rows.push_back(std::move(row));
    }
    std::sort(rows.rows.begin(), rows.rows.end(),
              [](const Row &a, const Row &b) { return oid_less(a.index, b.index); });
    // Rows with equal indexes (a daemon listing one row twice) are answered once.
    rows.rows.erase(std::unique(rows.rows.begin(), rows.rows.end(),
                                [](const Row &a, const Row &b) { return a.index == b.index; }),
                    rows.rows.end());
    return &rows;
}

// Fills the request with the object's value at instance; for GETNEXT also its name. False when the
// instance has no value (the caller then answers noSuchInstance or looks further).
bool SnmpAgent::Impl::answer(const Object &o, const Oid &instance, const std::vector<Value> &keys,
                             netsnmp_agent_request_info *ri, netsnmp_request_info *r, bool next,
                             const Rows *rows, size_t pos)
{
    // A walk goes on with the rows after this one: a GETBULK in this PDU (up to its
    // max-repetitions), a GETNEXT or GETBULK walk in the PDUs that follow.
    size_t batch = 1;
    netsnmp_pdu *pdu = ri->asp ? ri->asp->pdu : nullptr;
    if (rows && pdu && pdu->command == SNMP_MSG_GETBULK)
        batch =
            std::min(std::max(static_cast<size_t>(std::max(pdu->max_repetitions, 0L)), kMinAhead),
                     kMaxAhead);
    else if (rows && pdu && pdu->command == SNMP_MSG_GETNEXT)
        batch = kMinAhead;
    Value v;
    Got g = batch > 1 && !o.leaf->is_key && !stored(o.leaf) ? get_ahead(o, *rows, pos, batch, v)
                                                            : get(o, keys, v);
    if (g == Got::Missing) return false;
    SnmpValue sv;
    if (g == Got::Failed || !to_snmp(o.smi, v, sv)) {
        if (g == Got::Value)
            std::fprintf(stderr, "confd-emu: snmp: %s: value of type %d has no SMI form\n",
                         o.leaf->name.c_str(), v.type);
        netsnmp_set_request_error(ri, r, SNMP_ERR_GENERR);
        return true;
    }
    if (next) snmp_set_var_objid(r->requestvb, instance.data(), instance.size());
    snmp_set_var_typed_value(r->requestvb, sv.type, sv.data(), sv.size());
    return true;
}

void SnmpAgent::Impl::handle_get(const Subtree &st, netsnmp_agent_request_info *ri,
                                 netsnmp_request_info *r)
{
    Oid name(r->requestvb->name, r->requestvb->name + r->requestvb->name_length);
    auto it = std::upper_bound(st.objects.begin(), st.objects.end(), name,
                               [](const Oid &n, const Object &o) { return oid_less(n, o.oid); });
    if (it == st.objects.begin() || !has_prefix(name, (it - 1)->oid) ||
        name.size() == (it - 1)->oid.size()) {
        netsnmp_set_request_error(ri, r, SNMP_NOSUCHOBJECT);
        return;
    }
    const Object &o = *(it - 1);
    const oid *idx = name.data() + o.oid.size();
    size_t len = name.size() - o.oid.size();
    std::vector<Value> keys;
    bool ok = o.list ? decode_index(o.list, idx, len, keys) : (len == 1 && idx[0] == 0);
    if (!ok || !answer(o, name, keys, ri, r, false))
        netsnmp_set_request_error(ri, r, SNMP_NOSUCHINSTANCE);
}

void SnmpAgent::Impl::handle_next(const Subtree &st, netsnmp_agent_request_info *ri,
                                  netsnmp_request_info *r)
{
    Oid name(r->requestvb->name, r->requestvb->name + r->requestvb->name_length);
    // The first object that may hold an instance after name: the one name lies in, else the next.
    auto it = std::upper_bound(st.objects.begin(), st.objects.end(), name,
                               [](const Oid &n, const Object &o) { return oid_less(n, o.oid); });
    if (it != st.objects.begin() && has_prefix(name, (it - 1)->oid)) --it;
    for (; it != st.objects.end(); ++it) {
        const Object &o = *it;
        bool inside = has_prefix(name, o.oid);
        Oid after(inside ? name.begin() + o.oid.size() : name.end(), name.end());
        if (!o.list) {
            if (inside && !after.empty()) continue; // past o.0 (or at it)
            Oid inst = o.oid;
            inst.push_back(0);
            if (answer(o, inst, {}, ri, r, true)) return;
            continue;
        }
        const Rows *rows = rows_of(o.list);
        if (!rows) {
            netsnmp_set_request_error(ri, r, SNMP_ERR_GENERR);
            return;
        }
        auto row = rows->rows.begin();
        if (inside)
            row = std::upper_bound(rows->rows.begin(), rows->rows.end(), after,
                                   [](const Oid &a, const Row &b) { return oid_less(a, b.index); });
        for (; row != rows->rows.end(); ++row) {
            Oid inst = o.oid;
            inst.insert(inst.end(), row->index.begin(), row->index.end());
            if (answer(o, inst, row->keys, ri, r, true, rows, row - rows->rows.begin())) return;
        }
    }
    // Nothing left here: the agent goes on with the next subtree.
}

bool SnmpAgent::Impl::community_known(const std::string &c)
{
    // The v1/v2c communities of the running configuration; "public" when it has none.
    const SchemaNode *list = nullptr;
    const SchemaNode *name = nullptr;
    if (const SchemaNode *top = schema.top("SNMP-COMMUNITY-MIB"))
        if (const SchemaNode *tab = schema.child(top, "snmpCommunityTable"))
            if ((list = schema.child(tab, "snmpCommunityEntry")))
                name = schema.child(list, "snmpCommunityName");
    std::vector<std::vector<Value>> rows;
    std::string err;
    if (!ds || !list || !name || !stored(list) || !walk(list, rows, err) || rows.empty())
        return c == "public";
    Object o;
    o.leaf = name;
    o.list = list;
    for (const auto &keys : rows) {
        Value v;
        if (get(o, keys, v) == Got::Value && v.bytes == c) return true;
    }
    return false;
}

namespace
{

// A SET's value as the leaf takes it; an SNMP error status when it cannot be one.
int from_snmp(const SchemaNode *leaf, const netsnmp_variable_list *vb, Value &out)
{
    using namespace confd_wire;
    out = Value();
    switch (leaf->vtype) {
    case vt::INT8:
    case vt::INT16:
    case vt::INT32:
    case vt::INT64:
    case vt::ENUM_VALUE:
        if (vb->type != ASN_INTEGER) return SNMP_ERR_WRONGTYPE;
        out.type = static_cast<uint8_t>(leaf->vtype);
        out.i = *vb->val.integer;
        if (leaf->vtype == vt::ENUM_VALUE &&
            std::none_of(leaf->enums.begin(), leaf->enums.end(),
                         [&](const auto &e) { return e.second == out.i; }))
            return SNMP_ERR_WRONGVALUE;
        return SNMP_ERR_NOERROR;
    case vt::UINT8:
    case vt::UINT16:
    case vt::UINT32:
        if (vb->type != ASN_GAUGE && vb->type != ASN_COUNTER && vb->type != ASN_TIMETICKS)
            return SNMP_ERR_WRONGTYPE;
        out.type = static_cast<uint8_t>(leaf->vtype);
        out.u = static_cast<uint32_t>(*vb->val.integer);
        return SNMP_ERR_NOERROR;
    case vt::STR:
    case vt::BUF:
    case vt::BINARY:
        if (vb->type != ASN_OCTET_STR) return SNMP_ERR_WRONGTYPE;
        out.type = leaf->vtype == vt::BINARY ? T_BINARY : T_BUF;
        out.bytes.assign(reinterpret_cast<const char *>(vb->val.string), vb->val_len);
        return SNMP_ERR_NOERROR;
    case vt::IPV4:
        if (vb->type != ASN_IPADDRESS || vb->val_len != 4) return SNMP_ERR_WRONGTYPE;
        out.type = T_IPV4;
        out.bytes.assign(reinterpret_cast<const char *>(vb->val.string), 4);
        return SNMP_ERR_NOERROR;
    default:
        return SNMP_ERR_NOTWRITABLE;
    }
}

} // namespace

// SET on configuration the management plane stores: each varbind checked and converted in
// RESERVE1, written into one datastore transaction in ACTION, committed (commit-diff subscribers
// told) in COMMIT. Data a daemon serves is not writable through SNMP.
void SnmpAgent::Impl::handle_set(const Subtree &st, int mode, netsnmp_agent_request_info *ri,
                                 netsnmp_request_info *requests)
{
    std::string err;
    for (netsnmp_request_info *r = requests; r; r = r->next) {
        if (r->processed) continue;
        if (mode == MODE_SET_RESERVE1) {
            Oid name(r->requestvb->name, r->requestvb->name + r->requestvb->name_length);
            auto it =
                std::upper_bound(st.objects.begin(), st.objects.end(), name,
                                 [](const Oid &n, const Object &o) { return oid_less(n, o.oid); });
            if (it == st.objects.begin() || !has_prefix(name, (it - 1)->oid)) {
                netsnmp_set_request_error(ri, r, SNMP_ERR_NOTWRITABLE);
                continue;
            }
            const Object &o = *(it - 1);
            const oid *idx = name.data() + o.oid.size();
            size_t len = name.size() - o.oid.size();
            std::vector<Value> keys;
            bool ok = o.list ? decode_index(o.list, idx, len, keys) : (len == 1 && idx[0] == 0);
            Route route;
            const SchemaNode *owner = schema.callpoint_owner(o.leaf);
            if (!o.leaf->config || o.leaf->is_key || !stored(o.leaf) ||
                (owner && reg.route(owner->callpoint, route, err))) {
                netsnmp_set_request_error(ri, r, SNMP_ERR_NOTWRITABLE);
                continue;
            }
            if (!ok) {
                netsnmp_set_request_error(ri, r, SNMP_ERR_NOCREATION);
                continue;
            }
            Write w;
            w.req = r;
            w.path = pp_path(schema, path_of(o.leaf, keys));
            int status = from_snmp(o.leaf, r->requestvb, w.value);
            if (status != SNMP_ERR_NOERROR) {
                netsnmp_set_request_error(ri, r, status);
                continue;
            }
            writes.push_back(std::move(w));
        } else if (mode == MODE_SET_ACTION) {
            if (!set_th) {
                set_th = reg.open_trans(0, CONFD_READ_WRITE, err);
                if (!set_th) {
                    netsnmp_set_request_error(ri, r, SNMP_ERR_RESOURCEUNAVAILABLE);
                    continue;
                }
                UserInfo u;
                u.user = "snmp";
                u.context = "snmp";
                u.usid = reg.new_usid();
                if (ds->begin(set_th, CONFD_READ_WRITE, u, err)) {
                    netsnmp_set_request_error(ri, r, SNMP_ERR_RESOURCEUNAVAILABLE);
                    continue;
                }
            }
            for (const Write &w : writes) {
                if (w.req != r) continue;
                int rc = ds->set_elem(set_th, w.path, w.value, err);
                if (rc == CONFD_ERR_NOEXISTS || rc == CONFD_ERR_BADPATH)
                    netsnmp_set_request_error(ri, r, SNMP_ERR_NOCREATION);
                else if (rc)
                    netsnmp_set_request_error(ri, r, SNMP_ERR_WRONGVALUE);
            }
        } else if (mode == MODE_SET_COMMIT && set_th && !committed) {
            committed = true;
            if (commit_and_notify(reg, *ds, set_th, opt.diff_timeout_ms, err)) {
                std::fprintf(stderr, "confd-emu: snmp: commit failed: %s\n", err.c_str());
                netsnmp_set_request_error(ri, r, SNMP_ERR_COMMITFAILED);
            }
        }
    }
    if (mode == MODE_SET_FREE || mode == MODE_SET_UNDO) end_set();
}

void SnmpAgent::Impl::end_set()
{
    if (set_th) reg.close_trans(set_th);
    set_th = 0;
    committed = false;
    writes.clear();
}

namespace
{

SnmpAgent::Impl *g_agent = nullptr; // net-snmp's callbacks carry no pointer of ours

int handle_request(netsnmp_mib_handler *handler, netsnmp_handler_registration *,
                   netsnmp_agent_request_info *ri, netsnmp_request_info *requests)
{
    auto *st = static_cast<const Subtree *>(handler->myvoid);
    if (ri->mode != MODE_GET && ri->mode != MODE_GETNEXT) {
        g_agent->handle_set(*st, ri->mode, ri, requests);
        return SNMP_ERR_NOERROR;
    }
    for (netsnmp_request_info *r = requests; r; r = r->next) {
        if (r->processed) continue;
        switch (ri->mode) {
        case MODE_GET:
            g_agent->handle_get(*st, ri, r);
            break;
        case MODE_GETNEXT:
            g_agent->handle_next(*st, ri, r);
            break;
        default:
            break;
        }
    }
    return SNMP_ERR_NOERROR;
}

// Access check of every incoming PDU, run after the library's own (which knows no community): a
// community of the running configuration sees every object, an unknown one is dropped unanswered
// and reported as an audit event.
int check_community(int, int, void *serverarg, void *)
{
    auto *vp = static_cast<struct view_parameters *>(serverarg);
    netsnmp_pdu *pdu = vp->pdu;
    if (pdu->version == SNMP_VERSION_3) {
        // The user-based security model has checked the user's keys already; a user given on
        // the command line sees every object, authenticated at least.
        std::string user(pdu->securityName ? pdu->securityName : "", pdu->securityNameLen);
        bool known = pdu->securityModel == SNMP_SEC_MODEL_USM &&
                     pdu->securityLevel >= SNMP_SEC_LEVEL_AUTHNOPRIV &&
                     g_agent->users.count(user) != 0;
        vp->errorcode = known ? VACM_SUCCESS : VACM_NOSECNAME;
        if (known) pdu->flags |= UCD_MSG_FLAG_ALWAYS_IN_VIEW;
        return 0;
    }
    if (pdu->version != SNMP_VERSION_1 && pdu->version != SNMP_VERSION_2c) {
        vp->errorcode = VACM_NOSECNAME;
        return 0;
    }
    std::string c(reinterpret_cast<const char *>(pdu->community), pdu->community_len);
    if (g_agent->community_known(c)) {
        vp->errorcode = VACM_SUCCESS;
        pdu->flags |= UCD_MSG_FLAG_ALWAYS_IN_VIEW;
        return 0;
    }
    vp->errorcode = VACM_NOSECNAME;
    int logno = log_symbol_number("SNMP_AUTHENTICATION_FAILED");
    if (logno >= 0)
        send_audit(g_agent->reg, logno, "",
                   "snmp: authentication failed for community \"" + c + "\"", 0);
    return 0;
}

} // namespace

void SnmpAgent::Impl::send_trap(const Notification &n)
{
    // Standard notifications by name; others by the OID of a model node of that name.
    static const std::map<std::string, std::string> known = {
        {"coldStart", "1.3.6.1.6.3.1.1.5.1"},
        {"warmStart", "1.3.6.1.6.3.1.1.5.2"},
        {"linkDown", "1.3.6.1.6.3.1.1.5.3"},
        {"linkUp", "1.3.6.1.6.3.1.1.5.4"},
        {"authenticationFailure", "1.3.6.1.6.3.1.1.5.5"},
        {"ucdStart", "1.3.6.1.4.1.2021.251.1"},
        {"ucdShutdown", "1.3.6.1.4.1.2021.251.2"},
    };
    Oid trap;
    auto k = known.find(n.name);
    if (k != known.end()) {
        parse_oid(k->second, trap);
    } else {
        for (const SchemaNode *node : schema.all())
            if (node->name == n.name && !node->oid.empty() && parse_oid(node->oid, trap)) break;
    }
    if (trap.empty() && !parse_oid(n.name, trap)) {
        std::fprintf(stderr, "confd-emu: snmp: notification %s has no OID, not sent\n",
                     n.name.c_str());
        return;
    }
    netsnmp_variable_list *vars = nullptr;
    static const oid trap_oid[] = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};
    snmp_varlist_add_variable(&vars, trap_oid, OID_LENGTH(trap_oid), ASN_OBJECT_ID, trap.data(),
                              trap.size() * sizeof(oid));
    for (const Varbind &vb : n.varbinds) {
        // "ifName", "ifName.3" (column and index) or a dotted OID.
        std::string base = vb.name, index;
        size_t dot = base.find('.');
        if (dot != std::string::npos && !std::isdigit(static_cast<unsigned char>(base[0]))) {
            index = base.substr(dot + 1);
            base.resize(dot);
        }
        Oid name;
        Smi smi = Smi::Octets;
        auto nm = names.find(base);
        if (nm != names.end()) {
            name = nm->second;
            for (const SchemaNode *node : schema.all())
                if (node->name == base && !node->oid.empty()) {
                    smi = smi_of(node);
                    break;
                }
            Oid idx;
            if (!index.empty() && parse_oid(index, idx))
                name.insert(name.end(), idx.begin(), idx.end());
        } else if (!parse_oid(vb.name, name)) {
            std::fprintf(stderr, "confd-emu: snmp: binding %s of %s has no OID, left out\n",
                         vb.name.c_str(), n.name.c_str());
            continue;
        } else if (is_unsigned(vb.value.type)) {
            smi = Smi::Unsigned;
        } else if (is_signed(vb.value.type)) {
            smi = Smi::Integer;
        }
        SnmpValue sv;
        if (!to_snmp(smi, vb.value, sv) && !to_snmp(Smi::Integer, vb.value, sv) &&
            !to_snmp(Smi::Octets, vb.value, sv))
            continue;
        snmp_varlist_add_variable(&vars, name.data(), name.size(), sv.type,
                                  static_cast<const u_char *>(sv.data()), sv.size());
    }
    // The library drops authenticationFailure while its own switch is off (it stays off, so the
    // library raises none itself); the daemon's is forwarded like any other.
    int authen = snmp_enableauthentraps;
    snmp_enableauthentraps = 1;
    send_v2trap(vars);
    snmp_enableauthentraps = authen;
    snmp_free_varbind(vars);
}

void SnmpAgent::Impl::loop()
{
    while (!stop.load()) {
        int numfds = wake_fd + 1, block = 1;
        fd_set fds;
        FD_ZERO(&fds);
        FD_SET(wake_fd, &fds);
        struct timeval tv = {1, 0};
        snmp_select_info(&numfds, &fds, &tv, &block);
        int n = select(numfds, &fds, nullptr, nullptr, block ? nullptr : &tv);
        if (n < 0) {
            if (errno == EINTR) continue;
            std::fprintf(stderr, "confd-emu: snmp: select: %s\n", std::strerror(errno));
            break;
        }
        if (n > 0 && FD_ISSET(wake_fd, &fds)) {
            uint64_t x;
            if (read(wake_fd, &x, sizeof x) < 0) {
                // nothing to drain
            }
            std::deque<Notification> q;
            {
                std::lock_guard<std::mutex> lk(q_mu);
                q.swap(queue);
            }
            for (const Notification &note : q)
                send_trap(note);
            FD_CLR(wake_fd, &fds);
            n--;
        }
        if (n > 0)
            snmp_read(&fds);
        else if (n == 0)
            snmp_timeout();
        run_alarms();
        netsnmp_check_outstanding_agent_requests();
        // The reads of PDUs that follow each other share their transactions towards the daemons
        // for up to kSessionSpan (a bulk walk sends its PDUs back to back, and opening and
        // finishing a transaction costs two round trips); an idle spell or a daemon gone ends
        // them.
        if (session && (n == 0 || session->any_dead() ||
                        std::chrono::steady_clock::now() - session_at > kSessionSpan))
            session.reset();
        if (!session || set_th || !writes.empty()) ahead = Ahead();
        end_set();
    }
}

SnmpAgent::SnmpAgent(Registry &reg, const Schema &schema, Datastore *ds, SnmpOptions opt)
    : impl_(std::make_unique<Impl>(reg, schema, ds, std::move(opt)))
{
}

SnmpAgent::~SnmpAgent()
{
    if (!impl_->started) return;
    impl_->stop = true;
    uint64_t one = 1;
    if (write(impl_->wake_fd, &one, sizeof one) < 0) {
        // the thread still sees stop at its next wake-up
    }
    impl_->th.join();
    snmp_shutdown("confd-emu");
    close(impl_->wake_fd);
    g_agent = nullptr;
}

bool SnmpAgent::start(std::string &err)
{
    Impl &m = *impl_;
    if (g_agent) {
        err = "an SNMP agent already runs in this process";
        return false;
    }
    g_agent = &m;
    m.build();
    // Nothing from the host: no configuration files, no persistent state, no MIB files.
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_LOAD, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_SAVE, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 0);
    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_NO_ROOT_ACCESS, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID,
                           NETSNMP_DS_AGENT_DONT_LOG_TCPWRAPPERS_CONNECTS, 1);
    netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_PORTS, m.opt.listen.c_str());
    setenv("MIBS", "", 1);
    // Errors only: the library's warning about its own (unused) access control is no news here.
    netsnmp_register_loghandler(NETSNMP_LOGHANDLER_STDERR, LOG_ERR);
    init_agent("confd-emu");
    for (auto &st : m.subtrees) {
        netsnmp_handler_registration *reg = netsnmp_create_handler_registration(
            "confd-emu", handle_request, st->root.data(), st->root.size(), HANDLER_CAN_RWRITE);
        reg->handler->myvoid = st.get();
        if (netsnmp_register_handler(reg) != MIB_REGISTERED_OK) {
            err = "cannot register the subtree of " + st->objects.front().leaf->name;
            return false;
        }
    }
    netsnmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_ACM_CHECK_INITIAL,
                              check_community, nullptr, NETSNMP_CALLBACK_LOWEST_PRIORITY);
    init_snmp("confd-emu");
    if (init_master_agent() != 0) {
        err = "cannot open the SNMP transport " + m.opt.listen;
        snmp_shutdown("confd-emu");
        g_agent = nullptr;
        return false;
    }
    // SNMPv3 users, as the library's own createUser directive makes them.
    for (const std::string &u : m.opt.users) {
        size_t a = u.find(':'), p = a == std::string::npos ? a : u.find(':', a + 1);
        std::string name = u.substr(0, a),
                    auth = a == std::string::npos ? "" : u.substr(a + 1, p - a - 1);
        std::string priv = p == std::string::npos ? "" : u.substr(p + 1);
        if (name.empty() || auth.size() < 8 || (p != std::string::npos && priv.size() < 8) ||
            u.find_first_of(" \t") != std::string::npos) {
            err = "bad --snmp-user " + u +
                  ": NAME:AUTHPASS[:PRIVPASS], passwords of 8 or more "
                  "characters, no blanks";
            snmp_shutdown("confd-emu");
            g_agent = nullptr;
            return false;
        }
        std::string line = name + " SHA " + auth + (priv.empty() ? "" : " AES " + priv);
        std::vector<char> buf(line.begin(), line.end());
        buf.push_back('\0');
        usm_parse_create_usmUser("createUser", buf.data());
        m.users.insert(name);
    }
    for (const std::string &sink : m.opt.trap_sinks) {
        std::string line = sink + " public";
        std::vector<char> buf(line.begin(), line.end());
        buf.push_back('\0');
        snmpd_parse_config_trap2sink("trap2sink", buf.data());
    }
    m.wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m.wake_fd < 0) {
        err = std::string("eventfd: ") + std::strerror(errno);
        return false;
    }
    m.started = true;
    m.th = std::thread([&m] { m.loop(); });
    return true;
}

void SnmpAgent::notify(const Notification &n)
{
    if (!impl_->started) return;
    {
        std::lock_guard<std::mutex> lk(impl_->q_mu);
        impl_->queue.push_back(n);
    }
    uint64_t one = 1;
    if (write(impl_->wake_fd, &one, sizeof one) < 0) {
        // the counter is saturated: the thread is awake anyway
    }
}

} // namespace emu
