// Tests of the client library's SNMP notification senders: registration, frame contents, concurrent senders.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <sys/socket.h>

#include "confd_lib.h"
#include "confd_dp.h"
#include "confd_inproc.h"
#include "fake_confd.h"

namespace {

struct SocketPair {
    int fd[2] = {-1, -1};
    SocketPair() { socketpair(AF_UNIX, SOCK_STREAM, 0, fd); }
    ~SocketPair()
    {
        close(fd[0]);
        close(fd[1]);
    }
};

struct confd_snmp_varbind var(const char *name)
{
    struct confd_snmp_varbind vb;
    memset(&vb, 0, sizeof vb);
    vb.type = CONFD_SNMP_VARIABLE;
    snprintf(vb.var.name, sizeof vb.var.name, "%s", name);
    return vb;
}

} // namespace

// Verifies the preconditions of registration (connected control socket, a
// worker fd of the daemon) and that the server's sender id is used.
TEST(LibconfdNotif, RegistrationNeedsConnectedSockets)
{
    FakeConfd srv;
    confd_daemon_ctx *dx = confd_init_daemon("notifier");
    confd_notification_ctx *nctx = nullptr;
    int ctl = socket(AF_INET, SOCK_STREAM, 0);
    int wrk = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(confd_register_snmp_notification(dx, wrk, "", "", &nctx), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
    ASSERT_EQ(confd_connect(dx, ctl, CONTROL_SOCKET, srv.addr(), srv.addrlen()), CONFD_OK);
    EXPECT_EQ(confd_register_snmp_notification(dx, wrk, "", "", &nctx), CONFD_ERR)
        << "not a connected worker yet";
    EXPECT_EQ(confd_register_snmp_notification(dx, ctl, "", "", &nctx), CONFD_ERR);
    ASSERT_EQ(confd_connect(dx, wrk, WORKER_SOCKET, srv.addr(), srv.addrlen()), CONFD_OK);
    ASSERT_EQ(confd_register_snmp_notification(dx, wrk, "traps", "", &nctx), CONFD_OK);
    ASSERT_NE(nctx, nullptr);
    EXPECT_EQ(nctx->fd, wrk);
    EXPECT_STREQ(nctx->name, "traps");

    ASSERT_EQ(confd_notification_send_snmp(nctx, "coldStart", nullptr, 0), CONFD_OK);
    std::string frame;
    ASSERT_TRUE(srv.next(frame));
    confd_wire::Reader rd(frame);
    EXPECT_EQ(rd.op(), confd_wire::Op::SnmpNotif);
    EXPECT_EQ(rd.u32(), 42u);
    EXPECT_EQ(rd.str(), "traps");
    confd_release_daemon(dx);
    close(ctl);
    close(wrk);
}

// Verifies one frame per notification carrying every varbind kind and value
// type as sent, decoded field by field with the frame codec.
TEST(LibconfdNotif, FrameCarriesAllVarbindKinds)
{
    SocketPair sp;
    confd_daemon_ctx *dx = confd_init_daemon("notifier");
    confd_notification_ctx *nctx = confd_inproc_notification_ctx(dx, sp.fd[0], "", "ctx1");
    struct confd_snmp_oid oid = {{1, 3, 6, 1, 2, 1, 2, 2, 1, 2, 5}, 11};
    static const unsigned char mac[] = {0, 0x11, 0x22, 0x33, 0x44, 0x55};
    struct confd_snmp_varbind vb[4];
    vb[0] = var("ifIndex");
    CONFD_SET_INT32(&vb[0].val, 5);
    memset(&vb[1], 0, sizeof vb[1]);
    vb[1].type = CONFD_SNMP_OID;
    vb[1].var.oid = oid;
    CONFD_SET_STR(&vb[1].val, "lan");
    memset(&vb[2], 0, sizeof vb[2]);
    vb[2].type = CONFD_SNMP_COL_ROW;
    snprintf(vb[2].var.cr.column, sizeof vb[2].var.cr.column, "%s", "ifPhysAddress");
    vb[2].var.cr.rowindex.oid[0] = 5;
    vb[2].var.cr.rowindex.len = 1;
    CONFD_SET_BINARY(&vb[2].val, mac, sizeof mac);
    vb[3] = var("sysUpTime");
    CONFD_SET_NOEXISTS(&vb[3].val);
    ASSERT_EQ(confd_notification_send_snmp(nctx, "linkUp", vb, 4), CONFD_OK);
    ASSERT_EQ(confd_notification_set_snmp_notify_name(nctx, "other"), CONFD_OK);
    ASSERT_EQ(confd_notification_send_snmp_inform(nctx, "linkDown", vb, 1, "cb", 3), CONFD_OK);

    std::string frame;
    ASSERT_EQ(confd_wire::recv_frame(sp.fd[1], frame, 1000), 1);
    confd_wire::Reader rd(frame);
    EXPECT_EQ(rd.op(), confd_wire::Op::SnmpNotif);
    EXPECT_EQ(rd.u32(), 0u);
    EXPECT_EQ(rd.str(), "");
    EXPECT_EQ(rd.str(), "ctx1");
    EXPECT_EQ(rd.str(), "linkUp");
    ASSERT_EQ(rd.u32(), 4u);
    EXPECT_EQ(rd.u8(), CONFD_SNMP_VARIABLE);
    EXPECT_EQ(rd.str(), "ifIndex");
    confd_wire::Value v = rd.value();
    EXPECT_EQ(v.type, confd_wire::T_INT32);
    EXPECT_EQ(v.i, 5);
    rd.u8();
    EXPECT_EQ(rd.u8(), CONFD_SNMP_OID);
    ASSERT_EQ(rd.u32(), 11u);
    for (int i = 0; i < 10; i++)
        rd.u32();
    EXPECT_EQ(rd.u32(), 5u);
    EXPECT_EQ(rd.value().bytes, "lan");
    rd.u8();
    EXPECT_EQ(rd.u8(), CONFD_SNMP_COL_ROW);
    EXPECT_EQ(rd.str(), "ifPhysAddress");
    EXPECT_EQ(rd.u32(), 1u);
    EXPECT_EQ(rd.u32(), 5u);
    v = rd.value();
    EXPECT_EQ(v.type, confd_wire::T_BINARY);
    EXPECT_EQ(v.bytes, std::string(reinterpret_cast<const char *>(mac), 6));
    rd.u8();
    EXPECT_EQ(rd.u8(), CONFD_SNMP_VARIABLE);
    EXPECT_EQ(rd.str(), "sysUpTime");
    EXPECT_EQ(rd.value().type, confd_wire::T_NOEXISTS);
    rd.u8();
    EXPECT_TRUE(rd.ok());
    EXPECT_TRUE(rd.at_end());

    confd_inproc_snmp_notif n;
    ASSERT_EQ(confd_inproc_recv_snmp_notif(sp.fd[1], 1000, &n), CONFD_OK);
    EXPECT_STREQ(n.notification, "linkDown");
    EXPECT_STREQ(n.notify_name, "other");
    ASSERT_EQ(n.num_vars, 1);
    EXPECT_EQ(CONFD_GET_INT32(&n.vb[0].val), 5);
    confd_inproc_free_snmp_notif(&n);

    vb[0].val.type = C_QNAME; // cannot be sent: nothing goes out
    EXPECT_EQ(confd_notification_send_snmp(nctx, "linkUp", vb, 1), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_BADTYPE);
    EXPECT_EQ(confd_inproc_recv_snmp_notif(sp.fd[1], 50, &n), CONFD_ERR);
    confd_release_daemon(dx);
}
