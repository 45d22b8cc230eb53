// Unit tests of the "snmp_lldp_stats" provider, driven through its callbacks on a fixture neighbour
// file.
#include "mibs/lldpmib.h"
#include "fixture_env.h"
#include "provider_driver.h"

#include "LLDP-MIB.h"

#include <string>
#include <vector>

namespace
{

keypath lldp(std::vector<uint32_t> tags, const std::string &keys = "")
{
    tags.insert(tags.begin(), {LLDP_MIB_LLDP_MIB, LLDP_MIB_lldpRemTable, LLDP_MIB_lldpRemEntry});
    return keypath(LLDP_MIB__ns, tags, keys);
}
keypath entries()
{
    return lldp({});
}
// A column of row k, named by keys all equal to k as the table numbers them.
keypath column(int k, uint32_t leaf)
{
    std::string n = std::to_string(k);
    return lldp({leaf}, n + " i" + n + " i" + n);
}

class LldpProviderTest : public provider_test
{
  protected:
    LldpProviderTest() : provider_test(lldp_register, "snmp_lldp_stats") {}
    void neighbours(const std::string &text) { env_.write(LLDP_NEIGHBOUR_FILE, text); }

    FixtureEnv env_;
};

using rows = std::vector<std::string>;

// Verifies the bounds (the walks themselves are shown end to end): lines past the ten records are
// ignored and then no row follows the last one, an index past the records or a leaf the table lacks
// is answered C_NOEXISTS, and overlong fields are cut to their buffers.
TEST_F(LldpProviderTest, TenRecordsAndBoundedTexts)
{
    std::string text;
    for (int i = 0; i < 12; i++)
        text += "x?port" + std::to_string(i) + "\n";
    neighbours(text);
    rows all = walk(entries());
    ASSERT_EQ(all.size(), 10u);
    EXPECT_EQ(all.back(), "9 i9 i9");
    EXPECT_EQ(get(column(9, LLDP_MIB_lldpRemPortDesc)), "'port9'");
    EXPECT_EQ(get(column(10, LLDP_MIB_lldpRemSysName)), "noexists");
    EXPECT_EQ(get(lldp({LLDP_MIB_lldpRemTable}, "0 i0 i0")), "noexists");

    // Lines stay within the 511 characters read at a time; each carries one overlong field.
    std::string y(300, 'y'), cut = "'" + std::string(254, 'y') + "'";
    neighbours("x?" + y + "\nx?a?m?" + y + "\nx?a?m?c?m?" + y + "\nx?a?m?c?m?p?x?x?x?" + y +
               "\nx?a?m?c?m?p?x?x?x?b?" + y + "\n");
    walk(entries());
    EXPECT_EQ(get(column(0, LLDP_MIB_lldpRemPortDesc)), cut);
    EXPECT_EQ(get(column(1, LLDP_MIB_lldpRemChassisId)), "x000000000000");
    EXPECT_EQ(get(column(2, LLDP_MIB_lldpRemPortId)), "x000000000000");
    EXPECT_EQ(get(column(3, LLDP_MIB_lldpRemSysName)), cut);
    EXPECT_EQ(get(column(4, LLDP_MIB_lldpRemSysDesc)), cut);
}

// Verifies that get_next on another list ends at once, and that a key of the wrong type aborts the
// daemon with the type check's text.
TEST_F(LldpProviderTest, OtherListAndWrongKeyType)
{
    EXPECT_EQ(next(lldp({LLDP_MIB_lldpRemTimeMark}), -1), "end");
    EXPECT_TRUE(env_.commands().empty());
    EXPECT_DEATH(get(lldp({LLDP_MIB_lldpRemSysName}, "0 i0 0")),
                 "lldpmib.*Assertion `\\(key3\\)->type == C_INT32' failed\\.");
    EXPECT_DEATH(get(lldp({LLDP_MIB_lldpRemSysName}, "i0 i0 i0")), "\\(key1\\)->type == C_UINT32");
}

} // namespace
