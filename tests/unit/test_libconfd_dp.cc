// Tests of the client library's data-provider side: registration, dispatch, replies, traces, MAAPI
// attach.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

#include "confd_lib.h"
#include "confd_dp.h"
#include "confd_events.h"
#include "confd_inproc.h"
#include "confd_maapi.h"
#include "fake_confd.h"

using confd_wire::ConnKind;
using confd_wire::DataCb;
using confd_wire::Op;
using confd_wire::Reader;
using confd_wire::ReplyKind;
using confd_wire::Writer;

namespace
{

// What the callbacks below saw and what they are told to do.
struct Script {
    int worker_fd = -1;
    confd_trans_ctx *last_tctx = nullptr;
    int inits = 0, finishes = 0;
    int elem_mode = 0; // 0 reply, 1 seterr+CONFD_ERR, 2 OK without reply, 3 delayed, 4 wrong reply
};
Script g;

int t_init(confd_trans_ctx *tctx)
{
    g.inits++;
    g.last_tctx = tctx;
    confd_trans_set_fd(tctx, g.worker_fd);
    return CONFD_OK;
}

int t_finish(confd_trans_ctx *)
{
    g.finishes++;
    return CONFD_OK;
}

int d_get_elem(confd_trans_ctx *tctx, confd_hkeypath_t *)
{
    g.last_tctx = tctx;
    confd_value_t v;
    switch (g.elem_mode) {
    case 1:
        confd_trans_seterr(tctx, "counter %d unreadable", 7);
        return CONFD_ERR;
    case 2:
        return CONFD_OK;
    case 3:
        return CONFD_DELAYED_RESPONSE;
    case 4:
        CONFD_SET_UINT32(&v, 1);
        EXPECT_EQ(confd_data_reply_next_key(tctx, &v, 1, 2), CONFD_ERR);
        EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
        return CONFD_ERR;
    default:
        CONFD_SET_UINT32(&v, 4711);
        return confd_data_reply_value(tctx, &v);
    }
}

int d_get_next(confd_trans_ctx *tctx, confd_hkeypath_t *, long next)
{
    if (next == 2) return confd_data_reply_next_key(tctx, nullptr, -1, -1);
    confd_value_t k[2];
    CONFD_SET_INT32(&k[0], 5);
    CONFD_SET_STR(&k[1], "eth0");
    return confd_data_reply_next_key(tctx, k, 2, next + 1 + 1);
}

int d_set_elem(confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *)
{
    return CONFD_OK;
}

const confd_trans_cbs kTrans = {t_init,  nullptr, nullptr,  nullptr, nullptr,
                                nullptr, nullptr, t_finish, nullptr};

confd_data_cbs make_cbs(const char *cp)
{
    confd_data_cbs cbs;
    memset(&cbs, 0, sizeof cbs);
    snprintf(cbs.callpoint, sizeof cbs.callpoint, "%s", cp);
    cbs.get_elem = d_get_elem;
    cbs.get_next = d_get_next;
    cbs.set_elem = d_set_elem;
    return cbs;
}

confd_wire::Value xmltag(uint32_t t)
{
    confd_wire::Value v;
    v.type = confd_wire::T_XMLTAG;
    v.a = t;
    return v;
}

// A connected daemon with the callpoint "cp" on a fake server.
class LibconfdDispatch : public ::testing::Test
{
  protected:
    FakeConfd srv;
    confd_daemon_ctx *dx = nullptr;
    int ctl = -1, wrk = -1;   // daemon ends
    int sctl = -1, swrk = -1; // server ends
    uint32_t rid = 0;

    void SetUp() override
    {
        g = Script();
        confd_init("unit", stderr,
                   getenv("LIBCONFD_TEST_DEBUG") ? CONFD_PROTO_TRACE : CONFD_SILENT);
        dx = confd_init_daemon("unit");
        ctl = socket(AF_INET, SOCK_STREAM, 0);
        wrk = socket(AF_INET, SOCK_STREAM, 0);
        ASSERT_EQ(confd_connect(dx, ctl, CONTROL_SOCKET, srv.addr(), srv.addrlen()), CONFD_OK);
        ASSERT_EQ(confd_connect(dx, wrk, WORKER_SOCKET, srv.addr(), srv.addrlen()), CONFD_OK);
        g.worker_fd = wrk;
        ASSERT_EQ(confd_register_trans_cb(dx, &kTrans), CONFD_OK);
        confd_data_cbs cbs = make_cbs("cp");
        ASSERT_EQ(confd_register_data_cb(dx, &cbs), CONFD_OK);
        ASSERT_EQ(confd_register_done(dx), CONFD_OK);
        sctl = srv.conn(ConnKind::Control);
        swrk = srv.conn(ConnKind::Worker);
    }

    void TearDown() override
    {
        confd_release_daemon(dx);
        close(ctl);
        close(wrk);
    }

    void trans_init(uint32_t th)
    {
        Writer w(Op::TransInit);
        w.u32(++rid).u32(th).u8(CONFD_READ).u8(CONFD_RUNNING);
        w.str("admin")
            .str("snmp")
            .u8(CONFD_PROTO_UDP)
            .u8(AF_INET)
            .str(std::string("\x7f\0\0\x01", 4));
        w.u16(161).i32(12).str("").u32(99);
        srv.send(sctl, w);
    }

    Writer data_call(uint32_t th, DataCb cb, const std::string &cp = "cp")
    {
        Writer w(Op::DataCall);
        confd_wire::Value key;
        key.type = confd_wire::T_INT32;
        key.i = 3;
        confd_wire::KeyPath kp = {{xmltag(10)}, {key}, {xmltag(20)}, {xmltag(30)}};
        w.u32(++rid).u32(th).u8(static_cast<uint8_t>(cb)).str(cp).keypath(kp);
        return w;
    }

    // The next reply the daemon sent; checks its request id.
    Reader reply(ReplyKind expect, std::string &buf)
    {
        EXPECT_TRUE(srv.next(buf));
        Reader rd(buf);
        EXPECT_EQ(rd.op(), Op::Reply);
        EXPECT_EQ(rd.u32(), rid);
        EXPECT_EQ(rd.u8(), static_cast<uint8_t>(expect));
        return rd;
    }

    void open_trans(uint32_t th)
    {
        trans_init(th);
        ASSERT_EQ(confd_fd_ready(dx, ctl), CONFD_OK);
        std::string buf;
        Reader rd = reply(ReplyKind::TransInitDone, buf);
        EXPECT_EQ(rd.u32(), 100u + static_cast<uint32_t>(swrk)) << "worker id of the chosen fd";
    }
};

} // namespace

// Verifies a transaction's session data as init sees it, and that after finish the handle is
// unknown (the requests of a whole transaction run against confd-emu in the integration tests).
TEST_F(LibconfdDispatch, InitAndFinishOfATransaction)
{
    open_trans(3);
    ASSERT_NE(g.last_tctx, nullptr);
    EXPECT_EQ(g.last_tctx->thandle, 3);
    EXPECT_STREQ(g.last_tctx->uinfo->username, "admin");
    EXPECT_EQ(g.last_tctx->uinfo->af, AF_INET);
    EXPECT_EQ(g.last_tctx->uinfo->port, 161);
    EXPECT_EQ(g.last_tctx->request_data.snmp.request_id, 99u);

    std::string buf;
    Writer fin(Op::TransCall);
    fin.u32(++rid).u32(3).u8(static_cast<uint8_t>(confd_wire::TransCb::Finish));
    srv.send(swrk, fin);
    ASSERT_EQ(confd_fd_ready(dx, wrk), CONFD_OK);
    reply(ReplyKind::Done, buf);
    EXPECT_EQ(g.finishes, 1);
    srv.send(swrk, data_call(3, DataCb::GetElem));
    EXPECT_EQ(confd_fd_ready(dx, wrk), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
    reply(ReplyKind::Error, buf);
}

// Verifies the error paths: a callback's CONFD_ERR becomes an Error reply
// with its text and CONFD_ERR_EXTERNAL; a read callback that returns
// CONFD_OK without replying sends nothing; a missing callback or callpoint
// is answered with an error and reported as a protocol error.
TEST_F(LibconfdDispatch, CallbackErrorsAndSilence)
{
    open_trans(4);
    std::string buf;
    g.elem_mode = 1;
    srv.send(swrk, data_call(4, DataCb::GetElem));
    EXPECT_EQ(confd_fd_ready(dx, wrk), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_EXTERNAL);
    EXPECT_STREQ(confd_lasterr(), "counter 7 unreadable");
    Reader rd = reply(ReplyKind::Error, buf);
    EXPECT_EQ(rd.i32(), CONFD_ERR);
    EXPECT_EQ(rd.i32(), CONFD_ERRCODE_APPLICATION);
    EXPECT_EQ(rd.str(), "counter 7 unreadable");

    g.elem_mode = 2;
    srv.send(swrk, data_call(4, DataCb::GetElem));
    EXPECT_EQ(confd_fd_ready(dx, wrk), CONFD_OK);
    EXPECT_FALSE(srv.next(buf, 100)) << "no implicit reply for a read callback";

    srv.send(swrk, data_call(4, DataCb::ExistsOptional));
    EXPECT_EQ(confd_fd_ready(dx, wrk), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
    rd = reply(ReplyKind::Error, buf);
    rd.i32();
    rd.i32();
    EXPECT_NE(rd.str().find("exists_optional"), std::string::npos);

    srv.send(swrk, data_call(4, DataCb::GetElem, "other"));
    EXPECT_EQ(confd_fd_ready(dx, wrk), CONFD_ERR);
    reply(ReplyKind::Error, buf);
}

// Verifies that replies outside a pending request, of the wrong kind, or a
// second time are refused with CONFD_ERR_PROTOUSAGE, and that a delayed
// reply is accepted later.
TEST_F(LibconfdDispatch, RepliesInTheWrongState)
{
    open_trans(5);
    std::string buf;
    confd_value_t v;
    CONFD_SET_UINT32(&v, 1);
    EXPECT_EQ(confd_data_reply_value(g.last_tctx, &v), CONFD_ERR) << "init() has been answered";
    EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);

    g.elem_mode = 4; // next_key from get_elem
    srv.send(swrk, data_call(5, DataCb::GetElem));
    EXPECT_EQ(confd_fd_ready(dx, wrk), CONFD_ERR);
    reply(ReplyKind::Error, buf);

    g.elem_mode = 3;
    srv.send(swrk, data_call(5, DataCb::GetElem));
    EXPECT_EQ(confd_fd_ready(dx, wrk), CONFD_OK);
    EXPECT_FALSE(srv.next(buf, 50));
    EXPECT_EQ(confd_data_reply_not_found(g.last_tctx), CONFD_OK);
    reply(ReplyKind::NotFound, buf);
    EXPECT_EQ(confd_data_reply_not_found(g.last_tctx), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
    EXPECT_EQ(confd_delayed_reply_ok(g.last_tctx), CONFD_ERR);
}

// Verifies registration rules: an unknown callpoint is refused by the
// server with its errno and text, and nothing registers after register_done.
TEST_F(LibconfdDispatch, RegistrationRules)
{
    confd_data_cbs bad = make_cbs(FakeConfd::kBadCallpoint);
    confd_daemon_ctx *dx2 = confd_init_daemon("second");
    int c2 = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(confd_connect(dx2, c2, CONTROL_SOCKET, srv.addr(), srv.addrlen()), CONFD_OK);
    EXPECT_EQ(confd_register_data_cb(dx2, &bad), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_NOEXISTS);
    EXPECT_STREQ(confd_lasterr(), "callpoint no_such_cp is not in the schema");
    EXPECT_EQ(confd_inproc_data_cbs(dx2, FakeConfd::kBadCallpoint), nullptr);
    EXPECT_EQ(confd_connect(dx2, c2, CONTROL_SOCKET, srv.addr(), srv.addrlen()), CONFD_ERR);
    confd_release_daemon(dx2);
    close(c2);

    confd_data_cbs late = make_cbs("late");
    EXPECT_EQ(confd_register_data_cb(dx, &late), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
    // The server saw the trans mask (init and finish) and the callpoint's mask.
    auto regs = srv.registrations();
    ASSERT_GE(regs.size(), 3u);
    Reader rt(regs[0]);
    EXPECT_EQ(rt.op(), Op::RegTrans);
    EXPECT_EQ(rt.u32(), (1u << 0) | (1u << 7));
    Reader rdata(regs[1]);
    EXPECT_EQ(rdata.op(), Op::RegData);
    EXPECT_EQ(rdata.str(), "cp");
    EXPECT_EQ(rdata.u32(), (1u << 1) | (1u << 2) | (1u << 3));
}

// Verifies that a closed control socket is CONFD_EOF and that only the
// daemon's own sockets are served.
TEST_F(LibconfdDispatch, EndOfFileAndForeignSockets)
{
    EXPECT_EQ(confd_fd_ready(dx, 12345), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
    srv.hang_up(sctl);
    EXPECT_EQ(confd_fd_ready(dx, ctl), CONFD_EOF);
}

// Verifies that a MAAPI refusal is carried into confd_errno and lasterr, that an answer without
// the expected fields fails the call cleanly (no result handed out), and that a closed socket is
// refused.
TEST_F(LibconfdDispatch, MaapiAnswers)
{
    int ms = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(maapi_connect(ms, srv.addr(), srv.addrlen()), CONFD_OK);
    EXPECT_EQ(maapi_attach2(ms, 0, 0, FakeConfd::kBadThandle), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_NOEXISTS);
    EXPECT_STREQ(confd_lasterr(), "no transaction 666");
    char *res = reinterpret_cast<char *>(1);
    EXPECT_EQ(maapi_xpath_eval_expr(ms, 6, "1", &res, nullptr, nullptr), CONFD_ERR);
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
    EXPECT_STREQ(confd_lasterr(), "maapi_xpath_eval_expr: malformed answer from ConfD");
    EXPECT_EQ(confd_read_notification(ms, nullptr), CONFD_ERR);
    EXPECT_EQ(maapi_close(ms), CONFD_OK);
    EXPECT_EQ(maapi_attach2(ms, 0, 0, 6), CONFD_ERR) << "closed socket";
    EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
}

// Verifies the in-process harness: callbacks registered on a daemon that
// never connected are found by callpoint, and their replies are captured.
TEST(LibconfdInproc, CapturesRepliesOfLocalCallbacks)
{
    g = Script();
    confd_daemon_ctx *dx = confd_init_daemon("local");
    confd_data_cbs cbs = make_cbs("tcp_status");
    ASSERT_EQ(confd_register_data_cb(dx, &cbs), CONFD_OK);
    ASSERT_EQ(confd_register_trans_cb(dx, &kTrans), CONFD_OK);
    ASSERT_EQ(confd_register_done(dx), CONFD_OK);
    EXPECT_EQ(confd_inproc_trans_cbs(dx)->init, t_init);
    EXPECT_EQ(confd_inproc_data_cbs(dx, "udp_status"), nullptr);
    const confd_data_cbs *found = confd_inproc_data_cbs(dx, "tcp_status");
    ASSERT_NE(found, nullptr);

    confd_trans_ctx *tctx = confd_inproc_trans(dx, CONFD_READ, CONFD_RUNNING, 1);
    confd_hkeypath_t kp;
    kp.len = 1;
    CONFD_SET_XMLTAG(&kp.v[0][0], 10, 1);
    kp.v[0][1].type = C_NOEXISTS;
    kp.v[1][0].type = C_NOEXISTS;
    EXPECT_EQ(found->get_elem(tctx, &kp), CONFD_OK);
    const confd_inproc_capture *cap = confd_inproc_captured(tctx);
    ASSERT_EQ(cap->kind, CONFD_INPROC_VALUE);
    EXPECT_EQ(CONFD_GET_UINT32(&cap->values[0]), 4711u);

    EXPECT_EQ(found->get_next(tctx, &kp, -1), CONFD_OK);
    ASSERT_EQ(cap->kind, CONFD_INPROC_NEXT_KEY);
    ASSERT_EQ(cap->nvalues, 2);
    EXPECT_EQ(cap->values[1].type, C_STR);
    EXPECT_STREQ(cap->values[1].val.s, "eth0");
    EXPECT_EQ(cap->next, 1);
    EXPECT_EQ(found->get_next(tctx, &kp, 2), CONFD_OK);
    EXPECT_EQ(cap->kind, CONFD_INPROC_NEXT_END);
    EXPECT_EQ(cap->nreplies, 3);
    confd_inproc_reset(tctx);
    EXPECT_EQ(cap->kind, CONFD_INPROC_NONE);
    EXPECT_EQ(cap->nreplies, 0);
    EXPECT_EQ(confd_delayed_reply_error(tctx, "boom"), CONFD_OK);
    EXPECT_EQ(cap->kind, CONFD_INPROC_ERROR);
    EXPECT_STREQ(cap->error, "boom");
    confd_inproc_free_trans(tctx);
    confd_release_daemon(dx);
}
