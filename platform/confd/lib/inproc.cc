// In-process access for unit tests: callback lookup, transactions with captured replies.
#include "confd_inproc.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "dp_internal.h"
#include "lib_core.h"

using confd_wire::Op;
using confd_wire::Reader;
using confd_wire::ReplyKind;

namespace libconfd {

void capture_reply(struct Capture &cap, const std::string &payload);

// The replies of an in-process transaction, decoded for the test.
struct Capture : ReplySink {
    struct confd_inproc_capture pub {};
    ValueStore store;
    std::vector<confd_value_t> values;
    std::vector<struct xml_tag> tags;
    void take(const std::string &payload) override { capture_reply(*this, payload); }
};

// The capture of an in-process transaction (only this file sets one), or nullptr.
static Capture *capture_of(TransState *ts)
{
    return ts != nullptr ? static_cast<Capture *>(ts->capture.get()) : nullptr;
}

namespace {

void reset(Capture &cap, bool keep_count)
{
    int n = keep_count ? cap.pub.nreplies : 0;
    cap.store.clear();
    cap.values.clear();
    cap.tags.clear();
    memset(&cap.pub, 0, sizeof cap.pub);
    cap.pub.nreplies = n;
}

bool take_value(Reader &rd, Capture &cap)
{
    confd_wire::Value w = rd.value();
    confd_value_t v;
    std::string err;
    if (!rd.ok() || !from_wire(w, v, &cap.store, err))
        return false;
    cap.values.push_back(v);
    return true;
}

bool take_values(Reader &rd, Capture &cap, uint32_t n)
{
    for (uint32_t i = 0; i < n && rd.ok(); i++)
        if (!take_value(rd, cap))
            return false;
    return rd.ok();
}

bool take_tagged(Reader &rd, Capture &cap, uint32_t n)
{
    for (uint32_t i = 0; i < n && rd.ok(); i++) {
        struct xml_tag t;
        t.tag = rd.u32();
        t.ns = rd.u32();
        cap.tags.push_back(t);
        if (!take_value(rd, cap))
            return false;
    }
    return rd.ok();
}

bool decode_reply(Reader &rd, Capture &cap)
{
    struct confd_inproc_capture &p = cap.pub;
    rd.u32(); // request id: none for in-process transactions
    auto kind = static_cast<ReplyKind>(rd.u8());
    switch (kind) {
    case ReplyKind::Value: p.kind = CONFD_INPROC_VALUE; return take_value(rd, cap);
    case ReplyKind::NextKey:
        p.kind = CONFD_INPROC_NEXT_KEY;
        if (!take_values(rd, cap, rd.u32()))
            return false;
        p.next = static_cast<long>(rd.i64());
        return rd.ok();
    case ReplyKind::NextEnd:
        p.kind = CONFD_INPROC_NEXT_END;
        if (!rd.at_end())
            p.next = static_cast<long>(rd.i64());
        return rd.ok();
    case ReplyKind::NotFound: p.kind = CONFD_INPROC_NOT_FOUND; return true;
    case ReplyKind::Found: p.kind = CONFD_INPROC_FOUND; return true;
    case ReplyKind::Done: p.kind = CONFD_INPROC_DONE; return true;
    case ReplyKind::ValueArray: p.kind = CONFD_INPROC_VALUE_ARRAY; return take_values(rd, cap, rd.u32());
    case ReplyKind::TagValueArray:
        p.kind = CONFD_INPROC_TAG_VALUE_ARRAY;
        return take_tagged(rd, cap, rd.u32());
    case ReplyKind::NextObjects: {
        p.kind = CONFD_INPROC_NEXT_OBJECTS;
        uint32_t nobj = rd.u32();
        for (uint32_t i = 0; i < nobj && rd.ok(); i++) {
            bool tagged = rd.u8() != 0;
            uint32_t n = rd.u32();
            if (!(tagged ? take_tagged(rd, cap, n) : take_values(rd, cap, n)))
                return false;
            p.next = static_cast<long>(rd.i64());
        }
        p.nobjects = static_cast<int>(nobj);
        return rd.ok();
    }
    case ReplyKind::Error: {
        p.kind = CONFD_INPROC_ERROR;
        rd.i32(); // result code
        p.error_code = rd.i32();
        std::string text = rd.str();
        snprintf(p.error, sizeof p.error, "%s", text.c_str());
        return rd.ok();
    }
    case ReplyKind::TransInitDone: p.kind = CONFD_INPROC_TRANS_INIT_DONE; return true;
    case ReplyKind::NextRows: return false; // only a socket's get_next asks for several rows
    }
    return false;
}

} // namespace

void capture_reply(Capture &cap, const std::string &payload)
{
    reset(cap, true);
    cap.pub.nreplies++;
    Reader rd(payload);
    rd.op();
    if (!decode_reply(rd, cap)) {
        reset(cap, true);
        cap.pub.kind = CONFD_INPROC_ERROR;
        snprintf(cap.pub.error, sizeof cap.pub.error, "reply could not be decoded");
    }
    cap.pub.nvalues = static_cast<int>(cap.values.size());
    cap.pub.values = cap.values.empty() ? nullptr : cap.values.data();
    cap.pub.tags = cap.tags.empty() ? nullptr : cap.tags.data();
}

} // namespace libconfd

using namespace libconfd;

extern "C" {

const struct confd_data_cbs *confd_inproc_data_cbs(struct confd_daemon_ctx *dx,
                                                   const char *callpoint)
try {
    DaemonState *st = daemon_state(dx);
    if (st == nullptr || callpoint == nullptr)
        return nullptr;
    auto it = st->data_cbs.find(callpoint);
    return it != st->data_cbs.end() ? it->second.get() : nullptr;
} catch (...) {
    return libconfd::caught(__func__, nullptr);
}

const struct confd_trans_cbs *confd_inproc_trans_cbs(struct confd_daemon_ctx *dx)
try {
    DaemonState *st = daemon_state(dx);
    return st != nullptr && st->have_trans_cbs ? &st->trans_cbs : nullptr;
} catch (...) {
    return libconfd::caught(__func__, nullptr);
}

struct confd_trans_ctx *confd_inproc_trans(struct confd_daemon_ctx *dx, enum confd_trans_mode mode,
                                           enum confd_dbname dbname, int thandle)
try {
    if (daemon_state(dx) == nullptr)
        return nullptr;
    struct confd_trans_ctx *tctx = new_trans(dx);
    TransState *ts = trans_state(tctx);
    ts->capture.reset(new Capture());
    snprintf(ts->uinfo.username, sizeof ts->uinfo.username, "%s", "admin");
    snprintf(ts->uinfo.context, sizeof ts->uinfo.context, "%s", "system");
    ts->uinfo.af = AF_INET;
    ts->uinfo.ip.v4.s_addr = htonl(INADDR_LOOPBACK);
    ts->uinfo.proto = CONFD_PROTO_TCP;
    ts->uinfo.usid = 1;
    ts->uinfo.logintime = time(nullptr);
    tctx->mode = mode;
    tctx->dbname = dbname;
    tctx->thandle = thandle;
    return tctx;
} catch (...) {
    return libconfd::caught(__func__, nullptr);
}

const struct confd_inproc_capture *confd_inproc_captured(struct confd_trans_ctx *tctx)
try {
    Capture *cap = capture_of(trans_state(tctx));
    return cap != nullptr ? &cap->pub : nullptr;
} catch (...) {
    return libconfd::caught(__func__, nullptr);
}

void confd_inproc_reset(struct confd_trans_ctx *tctx)
try {
    if (Capture *cap = capture_of(trans_state(tctx)))
        reset(*cap, false);
} catch (...) {
    libconfd::caught(__func__);
}

void confd_inproc_free_trans(struct confd_trans_ctx *tctx)
try {
    TransState *ts = trans_state(tctx);
    if (ts != nullptr && ts->capture)
        free_trans(tctx);
} catch (...) {
    libconfd::caught(__func__);
}

} // extern "C"
