// Unit tests of the UCD collector's parsers on fixture text: /proc/stat, meminfo, version,
// snapshot.
#include "ucdstats.h"

#include "fake_proc.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string>

namespace
{

// A stdio stream over text (not empty).
class text_stream
{
  public:
    explicit text_stream(const std::string &text)
        : text_(text), file_(fmemopen(&text_[0], text_.size(), "r"))
    {
    }
    ~text_stream() { fclose(file_); }
    FILE *get() const { return file_; }

  private:
    std::string text_;
    FILE *file_;
};

std::string sys_text(const ucd_sys_stats &s)
{
    char text[200];
    snprintf(text, sizeof text, "cpu %u %u %u %u %u %u %u page %u %u swap %u %u intr %u %u ctxt %u",
             s.user, s.nice, s.system, s.idle, s.iowait, s.irq, s.softirq, s.pages_in, s.pages_out,
             s.swap_in, s.swap_out, s.interrupts, s.first_interrupt, s.contexts);
    return text;
}

const char kFourCpus[] = "cpu0 1 1 1 1\ncpu1 1 1 1 1\ncpu2 1 1 1 1\ncpu3 1 1 1 1\n";
const char kVmstat[] = "nr_free_pages 9\npgpgin 11\npgpgout 22\npswpin 33\npswpout 44\n";

// Verifies the systemStats parse: per-CPU division by the last cpuN plus one
// (one CPU without cpuN lines), the seven-value line and the four-value
// fallback that clears the flag for good, paging from vmstat or from the
// page and swap lines of /proc/stat, and a text without a cpu line.
TEST(UcdSysStatsParse, Cases)
{
    struct {
        const char *name;
        std::string stat;
        const char *vmstat;
        int seven_before;
        const char *want;
        int seven_after;
    } cases[] = {
        {"seven values on four CPUs",
         std::string("cpu  4000 400 800 40000 40 8 4\n") + kFourCpus +
             "intr 12345 67 0\nctxt 999\n",
         kVmstat, 1, "cpu 1000 100 200 10000 10 2 1 page 11 22 swap 33 44 intr 12345 67 ctxt 999",
         1},
        {"four values clear the flag",
         std::string("cpu  4000 400 800 40000\n") + kFourCpus + "intr 5\nctxt 6\n", kVmstat, 1,
         "cpu 1000 100 200 10000 0 0 0 page 11 22 swap 33 44 intr 5 0 ctxt 6", 0},
        {"a cleared flag stays cleared", "cpu  10 20 30 40 1 2 3\n", kVmstat, 0,
         "cpu 10 20 30 40 0 0 0 page 11 22 swap 33 44 intr 0 0 ctxt 0", 0},
        {"no cpuN line is one CPU, no vmstat reads page and swap",
         "cpu  10 20 30 40 1 2 3\npage 5 6\nswap 7 8\nctxt 3\n", nullptr, 1,
         "cpu 10 20 30 40 1 2 3 page 5 6 swap 7 8 intr 0 0 ctxt 3", 1},
        {"no cpu line", "intr 1 2\n", kVmstat, 1,
         "cpu 0 0 0 0 0 0 0 page 11 22 swap 33 44 intr 1 2 ctxt 0", 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        ucd_sys_flags flags = {c.vmstat != nullptr, c.seven_before};
        ucd_sys_stats s;
        memset(&s, 0, sizeof s);
        ucd_parse_sys_stats(c.stat.c_str(), c.vmstat, &flags, &s);
        EXPECT_EQ(sys_text(s), c.want);
        EXPECT_EQ(flags.seven_value, c.seven_after);
    }
}

// Verifies that /proc/stat is read whole at sizes around and well past the
// 256-byte steps of its buffer, and parsed to its last line.
TEST(UcdSysStatsParse, ReadsLargeFilesWhole)
{
    fake_proc proc;
    for (size_t size : {255u, 256u, 257u, 2000u}) {
        SCOPED_TRACE(size);
        std::string text = "cpu  6400 0 0 0 0 0 0\n";
        for (int n = 0; text.size() + 28 < size; n++)
            text += "cpu" + std::to_string(n) + " 1 1 1 1 1 1 1\n";
        text += "ctxt " + std::string(size - text.size() - 6, '7') + "\n";
        std::ofstream(proc.root() + "/stat") << text;
        std::vector<char> buffer;
        ASSERT_TRUE(ucd_read_text(collect_proc_path("stat"), buffer));
        EXPECT_EQ(std::string(buffer.data()), text);
    }
    std::vector<char> untouched;
    EXPECT_FALSE(ucd_read_text(collect_proc_path("vmstat"), untouched));
}

// Verifies the meminfo rules: names matched anywhere in a line, a later
// match overwriting an earlier one (SwapCached decides memCached, the last
// Shmem line memShared), memTotalFree = MemFree + SwapFree, fixed fields.
TEST(UcdMemoryParse, LaterMatchesWin)
{
    text_stream in(
        "MemTotal:        1000 kB\nMemFree:          300 kB\nMemAvailable:     500 kB\n"
        "Buffers:           40 kB\nCached:           200 kB\nSwapCached:         7 kB\n"
        "Shmem:             30 kB\nSwapTotal:        2000 kB\nSwapFree:         1500 kB\n"
        "ShmemHugePages:     4 kB\nno colon MemTotal 9\n");
    ucd_memory m;
    memset(&m, 0, sizeof m);
    m.index = 5;
    ucd_parse_meminfo(in.get(), &m);
    EXPECT_EQ(std::to_string(m.total_real) + " " + std::to_string(m.avail_real) + " " +
                  std::to_string(m.buffer) + " " + std::to_string(m.cached) + " " +
                  std::to_string(m.shared) + " " + std::to_string(m.total_swap) + " " +
                  std::to_string(m.avail_swap) + " " + std::to_string(m.total_free),
              "1000 300 40 7 4 2000 1500 1800");
    EXPECT_EQ(m.index, 0u);
    EXPECT_STREQ(m.error_name, "swap");
}

// Verifies the version banner: the third word is the release, the words
// after SMP the build text (empty without SMP), both cut to their buffers.
TEST(UcdVersionParse, ReleaseAndBuildText)
{
    const std::string long_release(100, 'r');
    std::string words, built; // six 10-letter words after SMP: 66 bytes of build text
    for (int i = 0; i < 6; i++) {
        words += std::string(i ? " " : "") + std::string(10, char('a' + i));
        built += std::string(10, char('a' + i)) + " ";
    }
    struct {
        std::string banner, release, build;
    } cases[] = {
        {"Linux version 5.10.161 (b@h) (gcc 12.2) #1 SMP PREEMPT Tue Jan 3 2023\n", "5.10.161",
         "PREEMPT Tue Jan 3 2023 "},
        {"Linux version 4.14.0 (b@h) #2 PREEMPT Mon Feb 6 2023\n", "4.14.0", ""},
        {"Linux version " + long_release + " #1 SMP " + words + "\n", long_release.substr(0, 79),
         built.substr(0, 59)},
    };
    for (const auto &c : cases) {
        ucd_version v;
        memset(&v, 0, sizeof v);
        text_stream in(c.banner);
        ucd_parse_version(in.get(), &v);
        EXPECT_EQ(v.release, c.release);
        EXPECT_EQ(v.build, c.build);
    }
}

// Verifies the snapshot lines: empty lines skipped, counters kept as the
// fourth, fifth and third fields, missing fields 0.
TEST(UcdProcessParse, FieldsAndShortLines)
{
    text_stream in("300;init;1;2;3\n\n100;sh;4;5\n7\n");
    std::vector<ucd_process> p;
    ucd_parse_processes(in.get(), p);
    ASSERT_EQ(p.size(), 3u);
    std::string text;
    for (const ucd_process &e : p)
        text += std::to_string(e.pid) + ":" + e.name + ":" + std::to_string(e.counters[0]) + "," +
                std::to_string(e.counters[1]) + "," + std::to_string(e.counters[2]) + " ";
    EXPECT_EQ(text, "300:init:2,3,1 100:sh:5,0,4 7::0,0,0 ");
}

} // namespace
