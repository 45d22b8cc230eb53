// UCD-SNMP-MIB and ENTITY-MIB end to end on fixture files and a process-snapshot script.
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "cli_json.h"
#include "daemon_env.h"

namespace
{

using daemon_env::Emu;

const char kMeminfo[] = "MemTotal:       123456 kB\nMemFree:         23456 kB\n"
                        "Buffers:          3456 kB\nCached:          45678 kB\n"
                        "SwapCached:         12 kB\nShmem:             789 kB\n"
                        "SwapTotal:       65536 kB\nSwapFree:        65000 kB\n";

// The aggregate user ticks of /proc/stat divided by its CPU count (the last cpuN plus one).
unsigned long long user_ticks_per_cpu()
{
    std::istringstream stat(harness::read_file("/proc/stat"));
    unsigned long long user = 0, cpus = 1;
    for (std::string word; stat >> word;) {
        if (word == "cpu")
            stat >> user;
        else if (word.rfind("cpu", 0) == 0)
            cpus = std::stoull(word.substr(3)) + 1;
    }
    return user / cpus;
}

// Memory, CPU, process and chassis values from their files; no snapshot, no process rows.
ISOLATED_TEST(SystemMibsTest, ServeTheFixtures)
{
    // The fixture files and the snapshot script, in this namespace only.
    daemon_env::overlay_dir("/etc");
    daemon_env::write_file("/etc/config/systeminfo", "config systeminfo 'sysinfo'\n"
                                                     "\toption pid 'KX100'\n"
                                                     "\toption prod_desc 'Kelto router'\n");
    daemon_env::write_file("/etc/firmware_version", "3.0.2 build 77\n");
    daemon_env::bind_text("/proc/meminfo", kMeminfo);
    daemon_env::overlay_dir("/usr/bin");
    daemon_env::write_file("/usr/bin/procdata.sh",
                           "printf '412;dropbear;1;2;3\\n7;procd;4;5;6\\n' > /tmp/procstats\n",
                           0755);
    Emu emu;
    auto d = emu.start_with_daemon();
    ASSERT_TRUE(d);
    std::string memory;
    for (const char *leaf : {"memTotalReal", "memAvailReal", "memTotalSwap", "memAvailSwap",
                             "memTotalFree", "memShared", "memBuffer", "memCached"})
        memory += emu.cli({"get", std::string("/UCD-SNMP-MIB/memory/") + leaf}) + " ";
    std::string want;
    for (const char *kb : {"123456", "23456", "65536", "65000", "88456", "789", "3456", "12"})
        want += std::string("{\"type\":\"C_UINT32\",\"value\":") + kb + "} ";
    EXPECT_EQ(memory, want);

    unsigned long long before = user_ticks_per_cpu();
    cli_json::value user;
    ASSERT_TRUE(cli_json::parse(emu.cli({"get", "/UCD-SNMP-MIB/systemStats/ssCpuRawUser"}), user));
    unsigned long long after = user_ticks_per_cpu();
    EXPECT_LE(before, std::stoull(user["value"].text));
    EXPECT_GE(after, std::stoull(user["value"].text));

    std::vector<cli_json::row> rows;
    ASSERT_TRUE(cli_json::parse_walk(
        emu.cli({"walk", "/UCD-SNMP-MIB/prTable/prEntry", "--leaves", "prNames,prCount"}), rows));
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0].keys[0] + " " + rows[0].leaves["prNames"] + " " + rows[0].leaves["prCount"] +
                  " " + rows[1].keys[0] + " " + rows[1].leaves["prNames"],
              "7 procd 4 412 dropbear");
    EXPECT_FALSE(std::filesystem::exists("/tmp/procstats"));

    rows = emu.walk("/ENTITY-MIB/entPhysicalTable/entPhysicalEntry");
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].keys, std::vector<std::string>{"1"});
    EXPECT_EQ(rows[0].leaves["entPhysicalMfgName"] + " " +
                  rows[0].leaves["entPhysicalFirmwareRev"] + " " +
                  rows[0].leaves["entPhysicalModelName"] + " " + rows[0].leaves["entPhysicalDescr"],
              "Kelto 3.0.2 KX100 Kelto router");
    EXPECT_TRUE(d->running()) << d->err();

    // Without the snapshot script (so without /tmp/procstats) prTable is empty.
    d.reset();
    std::filesystem::remove("/usr/bin/procdata.sh");
    ASSERT_TRUE(emu.wait_no_daemons());
    daemon_env::Daemon again({});
    ASSERT_TRUE(emu.wait_registered()) << again.err();
    EXPECT_EQ(emu.cli({"walk", "/UCD-SNMP-MIB/prTable/prEntry"}), "[]");
    EXPECT_TRUE(again.running()) << again.err();
}

} // namespace
