// Unit tests of the dormant interface configuration provider, driven in process against confd-emu's
// datastore (the demo configuration's three interfaces).
#include "harness.h"
#include "mibs/ifmibimpl.h"
#include "provider_driver.h"

#include "IF-MIB.h"
#include "router-interfaces.h"

#include <sys/socket.h>
#include <unistd.h>

namespace
{

// /interfaces/interface{name}, as a hook receives it.
struct entry_path {
    explicit entry_path(const char *name)
    {
        memset(&kp, 0, sizeof kp);
        kp.len = 3;
        CONFD_SET_BUF(&kp.v[0][0], reinterpret_cast<unsigned char *>(const_cast<char *>(name)),
                      strlen(name));
        kp.v[0][1].type = C_NOEXISTS;
        CONFD_SET_XMLTAG(&kp.v[1][0], if_interface, if__ns);
        CONFD_SET_XMLTAG(&kp.v[2][0], if_interfaces, if__ns);
    }
    confd_hkeypath_t kp;
};

class IfConfigProviderTest : public provider_test
{
  protected:
    IfConfigProviderTest() : provider_test(register_with_emu, "if-snmp") {}
    static int register_with_emu(confd_daemon_ctx *dx, int)
    {
        return register_if_config(dx, maapi_fd);
    }
    void SetUp() override
    {
        std::string err;
        ASSERT_TRUE(emu_.start(err)) << err;
        sockaddr_in sa = harness::loopback(emu_.port());
        maapi_fd = socket(AF_INET, SOCK_STREAM, 0);
        ASSERT_EQ(maapi_connect(maapi_fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa), CONFD_OK);
        // WLAN1 takes WAN1's ifIndex, so the map holds two equal ones.
        int th = start_system_trans_rw();
        ASSERT_GE(th, 0);
        ASSERT_EQ(maapi_set_elem2(maapi_fd, th, "2", "/interfaces/interface{WLAN1}/ifIndex"),
                  CONFD_OK);
        ASSERT_EQ(maapi_apply_trans(maapi_fd, th, 0), CONFD_OK);
        maapi_finish_trans(maapi_fd, th);
        maapi_end_user_session(maapi_fd);
        provider_test::SetUp();
    }
    void TearDown() override
    {
        provider_test::TearDown();
        close(maapi_fd);
        emu_.stop();
    }
    int start_system_trans_rw()
    {
        struct confd_ip src = {};
        src.af = AF_INET;
        if (maapi_start_user_session3(maapi_fd, nullptr, "system", nullptr, 0, &src, 0,
                                      CONFD_PROTO_TCP, nullptr, nullptr, nullptr,
                                      "test") != CONFD_OK)
            return -1;
        return maapi_start_trans(maapi_fd, CONFD_RUNNING, CONFD_READ_WRITE);
    }
    keypath leaf(uint32_t tag, int index)
    {
        return keypath(if__ns, {if_interfaces, if_interface, tag}, "i" + std::to_string(index));
    }
    // The ifIndex keys of a walk (its cookies are the map's nodes).
    std::vector<std::string> keys()
    {
        return walk(keypath(if__ns, {if_interfaces, if_interface}), false);
    }

    static inline int maapi_fd = -1;
    harness::Emu emu_;
};

// Verifies the map loaded from the configuration: ascending ifIndex with the later of two equal
// ones first, the four leaves, and the not-found answers.
TEST_F(IfConfigProviderTest, MapFromTheRunningConfiguration)
{
    EXPECT_EQ(keys(), (std::vector<std::string>{"i1", "i2", "i2"}));
    EXPECT_EQ(get(leaf(IF_MIB_ifName, 2)), "'WLAN1'");
    EXPECT_EQ(get(leaf(IF_MIB_ifDescr, 1)), "'Home network'");
    EXPECT_EQ(get(leaf(IF_MIB_ifIndex, 1)), "i1");
    EXPECT_EQ(get(leaf(1, 2)), "type" + std::to_string(C_BOOL)); // the "enabled" branch
    EXPECT_EQ(confd_inproc_captured(tctx_)->values[0].val.boolean, 0);
    for (uint32_t tag :
         std::vector<uint32_t>{IF_MIB_ifName, IF_MIB_ifDescr, IF_MIB_ifIndex, 1, IF_MIB_ifType})
        EXPECT_EQ(get(leaf(tag, 9)), "not-found") << tag;
    EXPECT_EQ(get(leaf(if_enabled, 1)), "not-found");
}

// Verifies the hook: a created interface gets the next ifIndex written into the transaction and
// joins the map; removal matches the whole name only.
TEST_F(IfConfigProviderTest, HookNumbersAndForgetsInterfaces)
{
    const confd_data_cbs *hook = confd_inproc_data_cbs(dx_, "if-hook");
    ASSERT_NE(hook, nullptr);
    int th = start_system_trans_rw();
    ASSERT_GE(th, 0);
    ASSERT_EQ(maapi_create(maapi_fd, th, "/interfaces/interface{LAN2}"), CONFD_OK);
    confd_trans_ctx *wctx = confd_inproc_trans(dx_, CONFD_READ_WRITE, CONFD_RUNNING, th);
    entry_path lan2("LAN2"), wan("WAN"), wan1("WAN1");
    EXPECT_EQ(hook->create(wctx, &lan2.kp), CONFD_OK);
    int32_t index = 0;
    EXPECT_EQ(maapi_get_int32_elem(maapi_fd, th, &index, "/interfaces/interface{LAN2}/ifIndex"),
              CONFD_OK);
    EXPECT_EQ(index, 3);
    EXPECT_EQ(get(leaf(IF_MIB_ifName, 3)), "'LAN2'");

    EXPECT_EQ(hook->remove(wctx, &wan.kp), CONFD_OK);
    EXPECT_EQ(keys(), (std::vector<std::string>{"i1", "i2", "i2", "i3"}));
    EXPECT_EQ(hook->remove(wctx, &wan1.kp), CONFD_OK);
    EXPECT_EQ(keys(), (std::vector<std::string>{"i1", "i2", "i3"}));
    confd_inproc_free_trans(wctx);
    maapi_finish_trans(maapi_fd, th);
    maapi_end_user_session(maapi_fd);
}

} // namespace
