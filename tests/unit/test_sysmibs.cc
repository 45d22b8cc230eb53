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
#include <string>
#include <vector>

namespace
{

keypath ucd(uint32_t group, uint32_t leaf, const std::string &keys = "")
{
    if (group == UCD_SNMP_MIB_prTable)
        return keypath(UCD_SNMP_MIB__ns,
                       {UCD_SNMP_MIB_UCD_SNMP_MIB, group, UCD_SNMP_MIB_prEntry, leaf}, keys);
    return keypath(UCD_SNMP_MIB__ns, {UCD_SNMP_MIB_UCD_SNMP_MIB, group, leaf});
}

// The UCD provider, with a procdata.sh that writes a snapshot holding a repeated pid, a short line
// and an empty line.
class UcdTest : public provider_test
{
  protected:
    UcdTest() : provider_test(register_ucd, "memory_stats") {}
    void SetUp() override
    {
        env_.script("/usr/bin/procdata.sh", "mkdir -p '" + env_.at("/tmp") +
                                                "'; printf '300;init;1;2;3\\n100;first;4;5;6\\n" +
                                                "\\n200;short;9\\n100;later;7;8;9\\n' > '" +
                                                env_.at("/tmp/procstats") + "'");
        provider_test::SetUp();
    }
    void use(const char *callpoint) { cbs_ = confd_inproc_data_cbs(dx_, callpoint); }
    FixtureEnv env_;
};

// Verifies systemStats: the served leaves from a /proc/stat of several 256-byte reads, reread only
// after more than 5 seconds; once /proc/vmstat is missing, /proc/stat's swap line for good.
TEST_F(UcdTest, SystemStatsTimeRuleAndVmstatFallback)
{
    use("sys_stats");
    auto ss = [&](uint32_t leaf) { return get(ucd(UCD_SNMP_MIB_systemStats, leaf)); };
    const std::string cpus = "cpu0 0 0 0 0\ncpu1 0 0 0 0\ncpu2 0 0 0 0\ncpu3 0 0 0 0\n";
    std::string intr = "intr 9";
    for (int i = 0; i < 300; i++)
        intr += " 0";
    proc_.write("stat", "cpu  4000 0 800 1200\n" + cpus + "swap 1 2\n" + intr + "\nctxt 77\n");
    proc_.write("vmstat", "pswpin 30\npswpout 40\n");
    std::string leaves;
    for (uint32_t leaf :
         {UCD_SNMP_MIB_ssIndex, UCD_SNMP_MIB_ssErrorName, UCD_SNMP_MIB_ssCpuRawUser,
          UCD_SNMP_MIB_ssCpuRawSystem, UCD_SNMP_MIB_ssCpuRawIdle, UCD_SNMP_MIB_ssCpuRawInterrupt,
          UCD_SNMP_MIB_ssRawSwapIn, UCD_SNMP_MIB_ssRawSwapOut, UCD_SNMP_MIB_ssRawContexts,
          UCD_SNMP_MIB_ssCpuUser, UCD_SNMP_MIB_ssCpuRawNice})
        leaves += ss(leaf) + " ";
    EXPECT_EQ(leaves, "1 'systemStats' 1000 200 300 0 30 40 77 noexists noexists ");

    proc_.write("stat", "cpu  8000 0 0 0\n" + cpus + "swap 1 2\n");
    now += 5;
    EXPECT_EQ(ss(UCD_SNMP_MIB_ssCpuRawUser), "1000");
    now += 1;
    EXPECT_EQ(ss(UCD_SNMP_MIB_ssCpuRawUser), "2000");
    std::remove((proc_.root() + "/vmstat").c_str());
    now += 6;
    EXPECT_EQ(ss(UCD_SNMP_MIB_ssRawSwapIn), "1");
    proc_.write("vmstat", "pswpin 30\npswpout 40\n");
    now += 6;
    EXPECT_EQ(ss(UCD_SNMP_MIB_ssRawSwapOut), "2");
}

// Verifies that meminfo is read on the 1st, 20th and 39th memory request, version on the 1st,
// 12th and 23rd version request: the files change before each, so an answer names its reader.
TEST_F(UcdTest, MemoryAndVersionRereadByRequestCount)
{
    use("memory_stats");
    for (int n = 1; n <= 39; n++) {
        proc_.write("meminfo", "MemTotal: " + std::to_string(n) + " kB\n");
        EXPECT_EQ(get(ucd(UCD_SNMP_MIB_memory, UCD_SNMP_MIB_memTotalReal)),
                  std::to_string(n < 20   ? 1
                                 : n < 39 ? 20
                                          : 39));
    }
    EXPECT_EQ(get(ucd(UCD_SNMP_MIB_memory, UCD_SNMP_MIB_memErrorName)), "'swap'");
    EXPECT_EQ(get(ucd(UCD_SNMP_MIB_memory, UCD_SNMP_MIB_memMinimumSwap)), "noexists");

    use("version_info");
    for (int n = 1; n <= 23; n++, now += 60) {
        proc_.write("version", "Linux version " + std::to_string(n) + " (b@h) #1 SMP x\n");
        EXPECT_EQ(get(ucd(UCD_SNMP_MIB_version, UCD_SNMP_MIB_versionTag)),
                  "'" +
                      std::to_string(n < 12   ? 1
                                     : n < 23 ? 12
                                              : 23) +
                      "'");
    }
    time_t refreshed = now - 60;
    char date[64];
    strftime(date, sizeof date, "%c", localtime(&refreshed));
    EXPECT_EQ(get(ucd(UCD_SNMP_MIB_version, UCD_SNMP_MIB_versionCDate)),
              "'" + std::string(date) + "'");
    EXPECT_EQ(get(ucd(UCD_SNMP_MIB_version, UCD_SNMP_MIB_versionDate)), "'x '");
    EXPECT_EQ(get(ucd(UCD_SNMP_MIB_version, UCD_SNMP_MIB_versionIdent)), "noexists");
}

// Verifies prTable from the start-up snapshot: one script run, its file gone, ascending pid with
// the later duplicate first, missing counters 0, not found for an unknown pid, a wrong key aborts.
TEST_F(UcdTest, ProcessTableFromSnapshot)
{
    use("process_info");
    EXPECT_EQ(env_.commands(), std::vector<std::string>{"sh /usr/bin/procdata.sh"});
    EXPECT_FALSE(env_.exists("/tmp/procstats"));
    EXPECT_EQ(walk(ucd(UCD_SNMP_MIB_prTable, UCD_SNMP_MIB_prEntry)),
              (std::vector<std::string>{"i100", "i100", "i200", "i300"}));
    std::string row;
    for (uint32_t leaf : {UCD_SNMP_MIB_prIndex, UCD_SNMP_MIB_prNames, UCD_SNMP_MIB_prMin,
                          UCD_SNMP_MIB_prMax, UCD_SNMP_MIB_prCount, UCD_SNMP_MIB_prErrorFlag})
        row += get(ucd(UCD_SNMP_MIB_prTable, leaf, "i100")) + " " +
               get(ucd(UCD_SNMP_MIB_prTable, leaf, "i200")) + " ";
    EXPECT_EQ(row, "i100 i200 'later' 'short' 8 0 9 0 7 9 noexists noexists ");
    EXPECT_EQ(get(ucd(UCD_SNMP_MIB_prTable, UCD_SNMP_MIB_prNames, "i150")), "not-found");
    EXPECT_DEATH(
        get(ucd(UCD_SNMP_MIB_prTable, UCD_SNMP_MIB_prNames, "100")),
        "find_process_entry: Assertion `\\(&keypath->v\\[1\\]\\[0\\]\\)->type == C_INT32'");
}

// Verifies the exact texts that end the daemon when ConfD refuses a registration (here: one made
// after the registration was completed).
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

// The entity provider with a firmware version file and no systeminfo package yet.
class EntityTest : public provider_test
{
  protected:
    EntityTest() : provider_test(register_entity, "entphyentry-snmp") {}
    void SetUp() override
    {
        env_.write("/etc/firmware_version", "2.1.7-rc1 build 42\n");
        provider_test::SetUp();
    }
    // Two sections: the second one's options win.
    void write_package(const std::string &serial)
    {
        env_.write("/etc/config/systeminfo",
                   "config systeminfo 'sysinfo'\n\toption pid 'KX100'\n\toption vid 'V00'\n"
                   "\toption prod_desc 'Kelto home router'\n\nconfig systeminfo 'factory'\n"
                   "\toption vid 'V02-LONG'\n\toption serial_number '" +
                       serial + "'\n");
    }
    std::string get_leaf(const std::string &index, uint32_t leaf)
    {
        return get(keypath(
            ENTITY_MIB__ns,
            {ENTITY_MIB_ENTITY_MIB, ENTITY_MIB_entPhysicalTable, ENTITY_MIB_entPhysicalEntry, leaf},
            index));
    }
    FixtureEnv env_;
};

// Verifies the chassis row: "not found" while the package cannot be loaded, retried on the 20th
// request only; the same values for every index, cut to their fields; a walk gives the one row.
TEST_F(EntityTest, ChassisRowAndRequestCount)
{
    EXPECT_EQ(get_leaf("i1", ENTITY_MIB_entPhysicalSerialNum), "not-found");
    write_package("SERIAL-NUMBER-TOO-LONG");
    for (int n = 2; n <= 19; n++)
        EXPECT_EQ(get_leaf("i1", ENTITY_MIB_entPhysicalIndex), "i0") << "request " << n;
    std::string rows[2];
    for (int i = 0; i < 2; i++)
        for (uint32_t leaf : {ENTITY_MIB_entPhysicalDescr, ENTITY_MIB_entPhysicalName,
                              ENTITY_MIB_entPhysicalHardwareRev, ENTITY_MIB_entPhysicalFirmwareRev,
                              ENTITY_MIB_entPhysicalSerialNum, ENTITY_MIB_entPhysicalMfgName,
                              ENTITY_MIB_entPhysicalModelName, ENTITY_MIB_entPhysicalIndex,
                              ENTITY_MIB_entPhysicalClass})
            rows[i] += get_leaf(i ? "i7" : "i1", leaf) + " "; // requests 20 to 37
    EXPECT_EQ(rows[0], "'Kelto home router' 'KX100' 'V02-' '2.1.7-rc1' 'SERIAL-NUMBER-' 'Kelto' "
                       "'KX100' i1 noexists ");
    EXPECT_EQ(rows[1], rows[0]);
    write_package("SN2");
    EXPECT_EQ(get_leaf("i1", ENTITY_MIB_entPhysicalSerialNum), "'SERIAL-NUMBER-'");
    EXPECT_EQ(get_leaf("i1", ENTITY_MIB_entPhysicalSerialNum), "'SN2'");
    EXPECT_EQ(walk(keypath(ENTITY_MIB__ns, {ENTITY_MIB_ENTITY_MIB, ENTITY_MIB_entPhysicalTable,
                                            ENTITY_MIB_entPhysicalEntry})),
              std::vector<std::string>{"i1"});
}

} // namespace
