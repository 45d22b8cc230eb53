// Unit tests of the UCD-SNMP-MIB and ENTITY-MIB providers through their registered callbacks, on a
// fake /proc and a fixture tree, with the collectors' clock set by the test.
#include "mibs/entmibimpl.h"
#include "mibs/ucdmibimpl.h"

#include "fixture_env.h"
#include "provider_driver.h"

#include "ENTITY-MIB.h"
#include "UCD-SNMP-MIB.h"

#include <cstdio>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

namespace
{

keypath ucd(std::vector<uint32_t> tags, const std::string &keys = "")
{
    tags.insert(tags.begin(), UCD_SNMP_MIB_UCD_SNMP_MIB);
    return keypath(UCD_SNMP_MIB__ns, tags, keys);
}
keypath process(const std::string &pid, uint32_t leaf)
{
    return ucd({UCD_SNMP_MIB_prTable, UCD_SNMP_MIB_prEntry, leaf}, pid);
}
keypath entity(const std::string &index, uint32_t leaf)
{
    return keypath(
        ENTITY_MIB__ns,
        {ENTITY_MIB_ENTITY_MIB, ENTITY_MIB_entPhysicalTable, ENTITY_MIB_entPhysicalEntry, leaf},
        index);
}

// The UCD provider with a fixture procdata.sh that writes a snapshot with a
// repeated pid, a short line and an empty line.
class UcdTest : public provider_test
{
  protected:
    UcdTest() : provider_test(register_ucd, "memory_stats") {}
    void SetUp() override
    {
        env_.script("/usr/bin/procdata.sh",
                    "mkdir -p '" + env_.at("/tmp") +
                        "'; printf "
                        "'300;init;1;2;3\\n100;first;4;5;6\\n\\n200;short;9\\n100;later;7;8;9\\n' "
                        "> '" +
                        env_.at("/tmp/procstats") + "'");
        provider_test::SetUp();
    }
    void use(const char *callpoint) { cbs_ = confd_inproc_data_cbs(dx_, callpoint); }
    void write_proc(const std::string &name, const std::string &text)
    {
        std::ofstream(proc_.root() + "/" + name) << text;
    }

    FixtureEnv env_;
};

// Verifies systemStats: the served leaves (per-CPU ticks, irq 0 on a
// four-value line), the rest not served; /proc/stat reread only when more
// than 5 seconds have passed; once /proc/vmstat is missing, the swap line of
// /proc/stat is used for good.
TEST_F(UcdTest, SystemStatsTimeRuleAndVmstatFallback)
{
    use("sys_stats");
    auto ss = [&](uint32_t leaf) { return get(ucd({UCD_SNMP_MIB_systemStats, leaf})); };
    const std::string cpus = "cpu0 0 0 0 0\ncpu1 0 0 0 0\ncpu2 0 0 0 0\ncpu3 0 0 0 0\n";
    write_proc("stat", "cpu  4000 0 800 1200\n" + cpus + "swap 1 2\nctxt 77\n");
    write_proc("vmstat", "pswpin 30\npswpout 40\n");
    std::string leaves;
    for (uint32_t leaf :
         {UCD_SNMP_MIB_ssIndex, UCD_SNMP_MIB_ssErrorName, UCD_SNMP_MIB_ssCpuRawUser,
          UCD_SNMP_MIB_ssCpuRawSystem, UCD_SNMP_MIB_ssCpuRawIdle, UCD_SNMP_MIB_ssCpuRawInterrupt,
          UCD_SNMP_MIB_ssRawSwapIn, UCD_SNMP_MIB_ssRawSwapOut, UCD_SNMP_MIB_ssRawContexts,
          UCD_SNMP_MIB_ssCpuUser, UCD_SNMP_MIB_ssCpuRawNice})
        leaves += ss(leaf) + " ";
    EXPECT_EQ(leaves, "1 'systemStats' 1000 200 300 0 30 40 77 noexists noexists ");

    write_proc("stat", "cpu  8000 0 0 0\n" + cpus + "swap 1 2\n");
    now += 5;
    EXPECT_EQ(ss(UCD_SNMP_MIB_ssCpuRawUser), "1000");
    now += 1;
    EXPECT_EQ(ss(UCD_SNMP_MIB_ssCpuRawUser), "2000");
    EXPECT_EQ(ss(UCD_SNMP_MIB_ssRawSwapIn), "30");

    std::remove((proc_.root() + "/vmstat").c_str());
    now += 6;
    EXPECT_EQ(ss(UCD_SNMP_MIB_ssRawSwapIn), "1");
    write_proc("vmstat", "pswpin 30\npswpout 40\n");
    now += 6;
    EXPECT_EQ(ss(UCD_SNMP_MIB_ssRawSwapOut), "2");
}

// Verifies the request-count rules: /proc/meminfo is read on the 1st, 20th
// and 39th memory request, /proc/version on the 1st, 12th and 23rd version
// request (with the date of that request); the files change before every
// request, so each answer names the request that last read them.
TEST_F(UcdTest, MemoryAndVersionRereadByRequestCount)
{
    use("memory_stats");
    for (int n = 1; n <= 39; n++) {
        write_proc("meminfo", "MemTotal: " + std::to_string(n) + " kB\n");
        EXPECT_EQ(get(ucd({UCD_SNMP_MIB_memory, UCD_SNMP_MIB_memTotalReal})),
                  std::to_string(n < 20   ? 1
                                 : n < 39 ? 20
                                          : 39))
            << "request " << n;
    }
    EXPECT_EQ(get(ucd({UCD_SNMP_MIB_memory, UCD_SNMP_MIB_memErrorName})), "'swap'");
    EXPECT_EQ(get(ucd({UCD_SNMP_MIB_memory, UCD_SNMP_MIB_memMinimumSwap})), "noexists");

    use("version_info");
    for (int n = 1; n <= 23; n++) {
        write_proc("version", "Linux version " + std::to_string(n) + " (b@h) #1 SMP x\n");
        EXPECT_EQ(get(ucd({UCD_SNMP_MIB_version, UCD_SNMP_MIB_versionTag})),
                  "'" +
                      std::to_string(n < 12   ? 1
                                     : n < 23 ? 12
                                              : 23) +
                      "'")
            << "request " << n;
        now += 60;
    }
    time_t refreshed = now - 60; // the 23rd request's time
    char date[64];
    strftime(date, sizeof date, "%c", localtime(&refreshed));
    EXPECT_EQ(get(ucd({UCD_SNMP_MIB_version, UCD_SNMP_MIB_versionCDate})),
              "'" + std::string(date) + "'");
    EXPECT_EQ(get(ucd({UCD_SNMP_MIB_version, UCD_SNMP_MIB_versionDate})), "'x '");
    EXPECT_EQ(get(ucd({UCD_SNMP_MIB_version, UCD_SNMP_MIB_versionIdent})), "noexists");
}

// Verifies prTable from the start-up snapshot: the script ran once and its
// file is gone; the walk is in ascending pid with both lines of pid 100, the
// later first, and a lookup finds that one; a short line's counters are 0;
// an unknown pid is not found, an unserved column C_NOEXISTS; a key that is
// not an int32 aborts.
TEST_F(UcdTest, ProcessTableFromSnapshot)
{
    use("process_info");
    EXPECT_EQ(env_.commands(), std::vector<std::string>{"sh /usr/bin/procdata.sh"});
    EXPECT_FALSE(env_.exists("/tmp/procstats"));
    EXPECT_EQ(walk(ucd({UCD_SNMP_MIB_prTable, UCD_SNMP_MIB_prEntry})),
              (std::vector<std::string>{"i100", "i100", "i200", "i300"}));
    EXPECT_EQ(next(ucd({UCD_SNMP_MIB_prTable}), -1), "end");
    std::string row;
    for (uint32_t leaf : {UCD_SNMP_MIB_prIndex, UCD_SNMP_MIB_prNames, UCD_SNMP_MIB_prMin,
                          UCD_SNMP_MIB_prMax, UCD_SNMP_MIB_prCount, UCD_SNMP_MIB_prErrorFlag})
        row += get(process("i100", leaf)) + " " + get(process("i200", leaf)) + " ";
    EXPECT_EQ(row, "i100 i200 'later' 'short' 8 0 9 0 7 9 noexists noexists ");
    EXPECT_EQ(get(process("i150", UCD_SNMP_MIB_prNames)), "not-found");
    EXPECT_DEATH(
        get(process("100", UCD_SNMP_MIB_prNames)),
        "find_process_entry: Assertion `\\(&keypath->v\\[1\\]\\[0\\]\\)->type == C_INT32'");
}

// Verifies the exact texts that end the daemon when ConfD refuses a
// registration (here: registering after the registration was completed).
TEST(SystemMibRegistration, RefusalTexts)
{
    FixtureEnv env;
    const std::pair<int (*)(confd_daemon_ctx *, int), const char *> cases[] = {
        {register_ucd, "Failed to register ucd_status transform memory  cb \n"},
        {register_entity, "Failed to register entity physical entry transform memory  cb \n"},
    };
    for (const auto &c : cases) {
        confd_daemon_ctx *dx = confd_init_daemon("test");
        ASSERT_EQ(confd_register_done(dx), CONFD_OK);
        EXPECT_EXIT(c.first(dx, -1), testing::ExitedWithCode(1), c.second);
        confd_release_daemon(dx);
    }
}

// The entity provider with a firmware version file and, unless a test
// removes it, a systeminfo package of two sections.
class EntityTest : public provider_test
{
  protected:
    EntityTest() : provider_test(register_entity, "entphyentry-snmp") {}
    void SetUp() override
    {
        env_.write("/etc/firmware_version", "2.1.7-rc1 build 42\n");
        write_package("V01", "SN123");
        provider_test::SetUp();
    }
    void write_package(const std::string &vid, const std::string &serial)
    {
        env_.write("/etc/config/systeminfo",
                   "config systeminfo 'sysinfo'\n\toption pid 'KX100'\n\toption vid 'V00'\n"
                   "\toption prod_desc 'Kelto home router'\n\n"
                   "config systeminfo 'factory'\n\toption vid '" +
                       vid + "'\n\toption serial_number '" + serial + "'\n");
    }
    // The row's served columns, for index.
    std::string row(const std::string &index)
    {
        std::string out;
        for (uint32_t leaf : {ENTITY_MIB_entPhysicalDescr, ENTITY_MIB_entPhysicalName,
                              ENTITY_MIB_entPhysicalHardwareRev, ENTITY_MIB_entPhysicalFirmwareRev,
                              ENTITY_MIB_entPhysicalSerialNum, ENTITY_MIB_entPhysicalMfgName,
                              ENTITY_MIB_entPhysicalModelName, ENTITY_MIB_entPhysicalIndex,
                              ENTITY_MIB_entPhysicalClass})
            out += get(entity(index, leaf)) + " ";
        return out;
    }

    FixtureEnv env_;
};

// Verifies the single row: a walk gives index 1 and ends; every index gets
// the same values, the later section's options winning and over-long ones
// cut to their fields.
TEST_F(EntityTest, SingleChassisRow)
{
    write_package("V02-LONG", "SERIAL-NUMBER-TOO-LONG");
    const std::string want = "'Kelto home router' 'KX100' 'V02-' '2.1.7-rc1' 'SERIAL-NUMBER-' "
                             "'Kelto' 'KX100' i1 noexists ";
    EXPECT_EQ(row("i1"), want);
    EXPECT_EQ(row("i7"), want);
    keypath list(ENTITY_MIB__ns,
                 {ENTITY_MIB_ENTITY_MIB, ENTITY_MIB_entPhysicalTable, ENTITY_MIB_entPhysicalEntry});
    EXPECT_EQ(walk(list), std::vector<std::string>{"i1"});
}

// Verifies the request-count rule: a failed load answers the end of the
// list and is retried only on the 20th request; a loaded package is reread
// on the 20th request after the one that read it.
TEST_F(EntityTest, RereadOn20thRequestAlsoAfterFailure)
{
    std::remove(env_.at("/etc/config/systeminfo").c_str());
    auto serial = [&] { return get(entity("i1", ENTITY_MIB_entPhysicalSerialNum)); };
    EXPECT_EQ(serial(), "end");
    write_package("V01", "SN1");
    for (int n = 2; n <= 19; n++)
        EXPECT_EQ(get(entity("i1", ENTITY_MIB_entPhysicalIndex)), "i0") << "request " << n;
    EXPECT_EQ(serial(), "'SN1'");
    write_package("V01", "SN2");
    for (int n = 21; n <= 38; n++)
        EXPECT_EQ(serial(), "'SN1'") << "request " << n;
    EXPECT_EQ(serial(), "'SN2'");
}

} // namespace
