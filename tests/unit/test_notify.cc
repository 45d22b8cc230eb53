// Unit tests of the link notifications' variable bindings.
#include "notify/notify.h"

#include <gtest/gtest.h>

namespace
{

// Verifies the four bindings of a link notification: names, ConfD types and
// values, in order.
TEST(LinkVarbindsTest, FourBindingsInOrder)
{
    struct confd_snmp_varbind vb[LINK_VARBIND_COUNT];
    fill_link_varbinds(vb, 7, 2, "lan", 1);

    const char *names[] = {"ifName", "ifIndex", "ifAdminStatus", "ifOperStatus"};
    for (int i = 0; i < LINK_VARBIND_COUNT; ++i) {
        EXPECT_EQ(vb[i].type, CONFD_SNMP_VARIABLE) << i;
        EXPECT_STREQ(vb[i].var.name, names[i]);
    }
    ASSERT_EQ(vb[0].val.type, C_STR);
    EXPECT_STREQ(vb[0].val.val.c_s, "lan");
    ASSERT_EQ(vb[1].val.type, C_INT32);
    EXPECT_EQ(vb[1].val.val.i32, 7);
    ASSERT_EQ(vb[2].val.type, C_ENUM_VALUE);
    EXPECT_EQ(vb[2].val.val.enumvalue, 2);
    ASSERT_EQ(vb[3].val.type, C_ENUM_VALUE);
    EXPECT_EQ(vb[3].val.val.enumvalue, 1);
}

// Verifies that an interface no UCI section names goes out with a null ifName.
TEST(LinkVarbindsTest, UnknownInterfaceHasNullName)
{
    struct confd_snmp_varbind vb[LINK_VARBIND_COUNT];
    fill_link_varbinds(vb, 3, 1, nullptr, 2);
    EXPECT_EQ(vb[0].val.type, C_STR);
    EXPECT_EQ(vb[0].val.val.c_s, nullptr);
    EXPECT_EQ(vb[3].val.val.enumvalue, 2);
}

} // namespace
