// Unit tests of the UCD collector's parsers on fixture text: /proc/stat, meminfo and version.
#include "fake_proc.h"
#include "ucdstats.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace
{

// Verifies the systemStats parse: per-CPU division by the last cpuN plus one (one CPU without cpuN
// lines), seven values or four (clearing the flag for good), paging from vmstat or else the page
// and swap lines, no cpu line.
TEST(UcdSysStatsParse, Cases)
{
    const std::string cpus = "cpu0 1 1 1 1\ncpu1 1 1 1 1\ncpu2 1 1 1 1\ncpu3 1 1 1 1\n";
    const char vmstat[] = "nr_free_pages 9\npgpgin 11\npgpgout 22\npswpin 33\npswpout 44\n";
    const struct {
        std::string stat;
        const char *vmstat;
        int seven_before, seven_after;
        const char *want;
    } cases[] = {
        {"cpu  4000 400 800 40000 40 8 4\n" + cpus + "intr 12345 67 0\nctxt 999\n", vmstat, 1, 1,
         "1000 100 200 10000 10 2 1 / 11 22 33 44 / 12345 67 999"},
        {"cpu  4000 400 800 40000\n" + cpus + "intr 5\nctxt 6\n", vmstat, 1, 0,
         "1000 100 200 10000 0 0 0 / 11 22 33 44 / 5 0 6"},
        {"cpu  10 20 30 40 1 2 3\n", vmstat, 0, 0, "10 20 30 40 0 0 0 / 11 22 33 44 / 0 0 0"},
        {"cpu  10 20 30 40 1 2 3\npage 5 6\nswap 7 8\nctxt 3\n", nullptr, 1, 1,
         "10 20 30 40 1 2 3 / 5 6 7 8 / 0 0 3"},
        {"intr 1 2\n", vmstat, 1, 1, "0 0 0 0 0 0 0 / 11 22 33 44 / 1 2 0"},
    };
    for (const auto &c : cases) {
        ucd_sys_flags flags = {c.vmstat != nullptr, c.seven_before};
        ucd_sys_stats s;
        memset(&s, 0, sizeof s);
        ucd_parse_sys_stats(c.stat.c_str(), c.vmstat, &flags, &s);
        char text[200];
        snprintf(text, sizeof text, "%u %u %u %u %u %u %u / %u %u %u %u / %u %u %u", s.user, s.nice,
                 s.system, s.idle, s.iowait, s.irq, s.softirq, s.pages_in, s.pages_out, s.swap_in,
                 s.swap_out, s.interrupts, s.first_interrupt, s.contexts);
        EXPECT_EQ(text, std::string(c.want)) << c.stat;
        EXPECT_EQ(flags.seven_value, c.seven_after) << c.stat;
    }
}

// Verifies the meminfo rules: names matched anywhere in a line, the later match winning,
// memTotalFree = MemFree + SwapFree, the fixed fields.
TEST(UcdMemoryParse, LaterMatchesWin)
{
    ucd_memory m;
    memset(&m, 0, sizeof m);
    m.index = 5;
    const std::string meminfo =
        "MemTotal: 1000 kB\nMemFree:   300 kB\nBuffers: 40 kB\nCached: 200 kB\nSwapCached: 7 kB\n"
        "Shmem: 30 kB\nSwapTotal: 2000 kB\nSwapFree: 1500 kB\nShmemHugePages: 4 kB\n"
        "no colon MemTotal 9\n";
    ucd_parse_meminfo(text_stream(meminfo).get(), &m);
    char text[100];
    snprintf(text, sizeof text, "%u %u %u %u %u %u %u %u %u %s", m.total_real, m.avail_real,
             m.buffer, m.cached, m.shared, m.total_swap, m.avail_swap, m.total_free, m.index,
             m.error_name);
    EXPECT_STREQ(text, "1000 300 40 7 4 2000 1500 1800 0 swap");
}

// Verifies the version banner: the words after SMP are the build text (empty without SMP); release
// and build text are cut to their buffers (the provider's version test reads an ordinary banner).
TEST(UcdVersionParse, ReleaseAndBuildText)
{
    std::string words, built; // six 10-letter words: 66 bytes of build text
    for (char c = 'a'; c < 'g'; c++) {
        words += std::string(c > 'a' ? " " : "") + std::string(10, c);
        built += std::string(10, c) + " ";
    }
    const std::string long_release(100, 'r');
    const struct {
        std::string banner, release, build;
    } cases[] = {
        {"Linux version 4.14.0 (b@h) #2 PREEMPT Mon Feb 6 2023\n", "4.14.0", ""},
        {"Linux version " + long_release + " #1 SMP " + words + "\n", long_release.substr(0, 79),
         built.substr(0, 59)},
    };
    for (const auto &c : cases) {
        ucd_version v;
        memset(&v, 0, sizeof v);
        ucd_parse_version(text_stream(c.banner).get(), &v);
        EXPECT_EQ(v.release, c.release);
        EXPECT_EQ(v.build, c.build);
    }
}

} // namespace
