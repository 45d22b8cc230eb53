// Tests of the client library's data-provider side: registration, dispatch, replies, MAAPI
// answers, SNMP notification contexts.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

#include "confd_lib.h"
#include "confd_dp.h"
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

// What the callbacks below saw.
struct Script {
    int worker_fd = -1;
    confd_trans_ctx *last_tctx = nullptr;
    int finishes = 0, gets = 0;
};
Script g;

int t_init(confd_trans_ctx *tctx)
{
    g.last_tctx = tctx;
    confd_trans_set_fd(tctx, g.worker_fd);
    return CONFD_OK;
}

int t_finish(confd_trans_ctx *)
{
    g.finishes++;
    return CONFD_OK;
}

// Answers a get_elem with a list entry's keys, which the library refuses.
int d_get_elem(confd_trans_ctx *tctx, confd_hkeypath_t *)
{
    g.gets++;
    confd_value_t v;
    CONFD_SET_UINT32(&v, 1);
    EXPECT_EQ(confd_data_reply_next_key(tctx, &v, 1, 2), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
    return CONFD_ERR;
}

const confd_trans_cbs kTrans = {t_init,  nullptr, nullptr,  nullptr, nullptr,
                                nullptr, nullptr, t_finish, nullptr};

confd_data_cbs make_cbs(const char *cp)
{
    confd_data_cbs cbs;
    memset(&cbs, 0, sizeof cbs);
    snprintf(cbs.callpoint, sizeof cbs.callpoint, "%s", cp);
    cbs.get_elem = d_get_elem;
    return cbs;
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
        confd_wire::Value tag;
        tag.type = confd_wire::T_XMLTAG;
        const confd_wire::KeyPath kp = {{tag}};
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

// Verifies that after finish the transaction's handle is unknown (the requests of a whole
// transaction run against confd-emu in the integration tests).
TEST_F(LibconfdDispatch, InitAndFinishOfATransaction)
{
    open_trans(3);
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

// Verifies that a request for a callback or callpoint not registered, a reply outside a pending
// request and a reply of the wrong kind are answered with an error and reported as protocol errors,
// so a provider's misplaced reply fails on the host as with ConfD. (A callback's own CONFD_ERR and
// its text are EmuTest.GetDistinguishesTheKindsOfAnswer and the daemon's UDP-MIB test.)
TEST_F(LibconfdDispatch, MisplacedRequestsAndReplies)
{
    open_trans(4);
    std::string buf;
    srv.send(swrk, data_call(4, DataCb::ExistsOptional));
    EXPECT_EQ(confd_fd_ready(dx, wrk), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
    Reader rd = reply(ReplyKind::Error, buf);
    rd.i32();
    rd.i32();
    EXPECT_NE(rd.str().find("exists_optional"), std::string::npos);
    srv.send(swrk, data_call(4, DataCb::GetElem, "other"));
    EXPECT_EQ(confd_fd_ready(dx, wrk), CONFD_ERR);
    reply(ReplyKind::Error, buf);

    confd_value_t v;
    CONFD_SET_UINT32(&v, 1);
    EXPECT_EQ(confd_data_reply_value(g.last_tctx, &v), CONFD_ERR) << "init() has been answered";
    EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
    srv.send(swrk, data_call(4, DataCb::GetElem)); // answered with next_key
    EXPECT_EQ(confd_fd_ready(dx, wrk), CONFD_ERR);
    reply(ReplyKind::Error, buf);
    EXPECT_EQ(g.gets, 1);
}

// Verifies that no data callback registers after register_done, that an SNMP notification context
// takes only a connected worker socket of the daemon, and that only the daemon's own sockets are
// served (an unknown callpoint is DaemonStartTest.NoConfdOrMissingCallpointIsFatal, a closed
// socket DaemonLoopTest.ClosedSocketOrFailedAttachIsFatal, against confd-emu).
TEST_F(LibconfdDispatch, RegistrationsAndForeignSockets)
{
    confd_data_cbs late = make_cbs("late");
    EXPECT_EQ(confd_register_data_cb(dx, &late), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
    confd_notification_ctx *nctx = nullptr;
    for (int fd : {ctl, 12345})
        EXPECT_EQ(confd_register_snmp_notification(dx, fd, "", "", &nctx), CONFD_ERR) << fd;
    ASSERT_EQ(confd_register_snmp_notification(dx, wrk, "", "", &nctx), CONFD_OK);
    EXPECT_EQ(nctx->fd, wrk);
    EXPECT_EQ(confd_fd_ready(dx, 12345), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
}

// Verifies that a MAAPI answer without the expected fields fails the call cleanly, no result handed
// out (refusals by confd-emu reach confd_errno and lasterr in the MAAPI integration tests).
TEST_F(LibconfdDispatch, MaapiAnswers)
{
    int ms = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(maapi_connect(ms, srv.addr(), srv.addrlen()), CONFD_OK);
    char *res = reinterpret_cast<char *>(1);
    EXPECT_EQ(maapi_xpath_eval_expr(ms, 6, "1", &res, nullptr, nullptr), CONFD_ERR);
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
    EXPECT_STREQ(confd_lasterr(), "maapi_xpath_eval_expr: malformed answer from ConfD");
    EXPECT_EQ(maapi_close(ms), CONFD_OK);
}
