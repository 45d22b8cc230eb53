// Unit tests of the "snmp_lldp_stats" provider, driven through its callbacks on a fixture neighbour file.
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
    std::vector<std::string> columns(int k)
    {
        std::vector<std::string> out;
        for (uint32_t leaf :
             {LLDP_MIB_lldpRemTimeMark, LLDP_MIB_lldpRemLocalPortNum, LLDP_MIB_lldpRemIndex,
              LLDP_MIB_lldpRemChassisIdSubtype, LLDP_MIB_lldpRemChassisId,
              LLDP_MIB_lldpRemPortIdSubtype, LLDP_MIB_lldpRemPortId, LLDP_MIB_lldpRemPortDesc,
              LLDP_MIB_lldpRemSysName, LLDP_MIB_lldpRemSysDesc, LLDP_MIB_lldpRemSysCapSupported,
              LLDP_MIB_lldpRemSysCapEnabled})
            out.push_back(get(column(k, leaf)));
        return out;
    }

    FixtureEnv env_;
};

using rows = std::vector<std::string>;

// Verifies a walk over a two-line file: the script runs first, the rows are
// numbered from 0 with all three keys equal, one zero row follows the last
// line, and each column is answered as the router does (six-byte identifiers
// whatever the subtype, "mac" giving subtype 4, capability numbers OR-ed).
TEST_F(LldpProviderTest, WalkAnswersEveryLinePlusOneRow)
{
    neighbours("x?eth0.2?mac?0:1a:2b:3c:4d:5e?mac?a4:b1:c2:d3:e4:f5?x?Bridge,Router?Router?sw-2?"
               "Switch 100%% up?rest\n"
               "x?lan?local?host-7?ifname?gi0/1?x?Wlan??ap-1?AP\n");
    EXPECT_EQ(walk(entries()), (rows{"0 i0 i0", "1 i1 i1", "0 i0 i0"}));
    EXPECT_EQ(env_.commands(), (rows{"/usr/bin/snmp_lldp_neighinfo.sh > /dev/null 2>&1"}));
    EXPECT_EQ(columns(0), (rows{"0", "i0", "i0", "e4", "x001a2b3c4d5e", "e4", "xa4b1c2d3e4f5",
                                "'eth0.2'", "'sw-2'", "'Switch 100% up'", "b6", "b4"}));
    EXPECT_EQ(columns(1), (rows{"1", "i1", "i1", "e1", "x000000000000", "e1", "x000000000000",
                                "'lan'", "'ap-1'", "'AP'", "b3", "b0"}));
    // Past the records, and a leaf the table does not have.
    EXPECT_EQ(get(column(10, LLDP_MIB_lldpRemSysName)), "noexists");
    EXPECT_EQ(get(lldp({LLDP_MIB_lldpRemTable}, "0 i0 i0")), "noexists");
}

// Verifies that the records are overwritten in place: after a shorter file
// the extra row is the earlier second record, capabilities keep what earlier
// reads OR-ed in, and a missing file ends the walk at once, leaving the
// records as they were.
TEST_F(LldpProviderTest, RecordsPersistAcrossWalks)
{
    neighbours("x?a?mac?1:2:3:4:5:6?mac?1:1:1:1:1:1?x?Bridge?Bridge?n0?d0\n"
               "x?b?mac?7:8:9:a:b:c?mac?2:2:2:2:2:2?x?Router?Router?n1?d1\n");
    EXPECT_EQ(walk(entries()).size(), 3u);
    neighbours("x?c?mac?1:2:3:4:5:6?mac?1:1:1:1:1:1?x?Wlan?Router?n2?d2\n");
    EXPECT_EQ(walk(entries()), (rows{"0 i0 i0", "1 i1 i1"}));
    EXPECT_EQ(get(column(0, LLDP_MIB_lldpRemSysCapSupported)), "b3");
    EXPECT_EQ(get(column(0, LLDP_MIB_lldpRemSysCapEnabled)), "b6");
    EXPECT_EQ(get(column(1, LLDP_MIB_lldpRemSysName)), "'n1'");

    ASSERT_EQ(remove(env_.at(LLDP_NEIGHBOUR_FILE).c_str()), 0);
    EXPECT_EQ(walk(entries()), rows{});
    EXPECT_EQ(get(column(0, LLDP_MIB_lldpRemPortDesc)), "'c'");
}

// Verifies the bounds: lines past the ten records are ignored (and then no
// row follows the last one), and overlong fields are cut to their buffers.
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

    // Lines stay within the 511 characters read at a time; each carries one
    // overlong field.
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

// Verifies that get_next on another list ends at once, and that a key of the
// wrong type aborts the daemon with the type check's text.
TEST_F(LldpProviderTest, OtherListAndWrongKeyType)
{
    EXPECT_EQ(next(lldp({LLDP_MIB_lldpRemTimeMark}), -1), "end");
    EXPECT_TRUE(env_.commands().empty());
    EXPECT_DEATH(get(lldp({LLDP_MIB_lldpRemSysName}, "0 i0 0")), "\\(key3\\)->type == C_INT32");
    EXPECT_DEATH(get(lldp({LLDP_MIB_lldpRemSysName}, "i0 i0 i0")), "\\(key1\\)->type == C_UINT32");
}

} // namespace
