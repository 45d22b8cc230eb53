// UCD collector (see ucdstats.h): system statistics, memory, version and the process snapshot.
#include "ucdstats.h"

#include "core/sysenv.h"
#include "core/trace.h"
#include "procfs.h"
#include "timedcache.h"

#include <cstdlib>
#include <cstring>
#include <ctime>

namespace
{

// /proc/stat and /proc/vmstat as last read, and when.
time_t sys_read_time;
std::vector<char> stat_text;
std::vector<char> vmstat_text;
ucd_sys_flags sys_flags = {1, 1};

// A rereading needs strictly more than 5 seconds since the last read: with
// whole seconds, at least 6.
const int sys_reread_seconds = 6;

const char procstats_script[] = "sh /usr/bin/procdata.sh";
const char procstats_file[] = "/tmp/procstats";

// The number at the start of text as atoi reads it (blanks skipped, a sign,
// digits up to the first other character), without atoi's undefined result
// for numbers out of range: those wrap as the router's 32-bit conversion does.
int32_t to_int(const char *text)
{
    return static_cast<int32_t>(strtoll(text, nullptr, 10));
}

// sscanf of one 64-bit counter after the text key in text; 0 when absent.
unsigned long long counter_after(const char *text, const char *key, const char *format)
{
    unsigned long long value = 0;
    const char *at = strstr(text, key);
    if (at != nullptr && sscanf(at, format, &value) != 1) value = 0;
    return value;
}

// One snapshot line; the line break, if any, ends the last field.
ucd_process parse_process_line(const char *line)
{
    ucd_process p{0, std::string(), {0, 0, 0}};
    std::string copy(line);
    char *rest = &copy[0];
    char *field[5] = {nullptr, nullptr, nullptr, nullptr, nullptr};
    for (char *&f : field)
        f = strsep(&rest, ";\n");
    if (field[0] != nullptr) p.pid = to_int(field[0]);
    if (field[1] != nullptr) p.name = field[1];
    // The entry keeps the fourth, fifth and third fields in this order.
    const int order[3] = {3, 4, 2};
    for (int i = 0; i < 3; i++)
        if (field[order[i]] != nullptr)
            p.counters[i] = static_cast<uint32_t>(to_int(field[order[i]]));
    return p;
}

} // namespace

void ucd_parse_sys_stats(const char *stat, const char *vmstat, ucd_sys_flags *flags,
                         ucd_sys_stats *out)
{
    // CPU count: the number of the last "cpuN" line plus one. The aggregate
    // "cpu" line starts the text, so the search starts after it.
    unsigned long long cpus = 1;
    const char *last = nullptr;
    if (stat[0] != '\0')
        for (const char *p = strstr(stat + 1, "cpu"); p != nullptr; p = strstr(p + 1, "cpu"))
            last = p;
    unsigned long long number;
    if (last != nullptr && sscanf(last, "cpu%llu", &number) == 1 && number + 1 != 0)
        cpus = number + 1;

    const char *aggregate = strstr(stat, "cpu ");
    if (aggregate != nullptr) {
        unsigned long long v[7] = {0, 0, 0, 0, 0, 0, 0};
        // Kernels before 2.6 print four values; once a line reads short the
        // four-value form is used for good.
        if (flags->seven_value && sscanf(aggregate, "cpu  %llu %llu %llu %llu %llu %llu %llu",
                                         &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &v[6]) < 7)
            flags->seven_value = 0;
        if (!flags->seven_value) {
            v[4] = v[5] = v[6] = 0;
            if (sscanf(aggregate, "cpu  %llu %llu %llu %llu", &v[0], &v[1], &v[2], &v[3]) < 4)
                v[0] = v[1] = v[2] = v[3] = 0;
        }
        // The counters are averages per CPU, as the router has always
        // answered them.
        out->user = static_cast<uint32_t>(v[0] / cpus);
        out->nice = static_cast<uint32_t>(v[1] / cpus);
        out->system = static_cast<uint32_t>(v[2] / cpus);
        out->idle = static_cast<uint32_t>(v[3] / cpus);
        out->iowait = static_cast<uint32_t>(v[4] / cpus);
        out->irq = static_cast<uint32_t>(v[5] / cpus);
        out->softirq = static_cast<uint32_t>(v[6] / cpus);
    }

    if (flags->vmstat && vmstat != nullptr) {
        out->pages_in = static_cast<uint32_t>(counter_after(vmstat, "pgpgin ", "pgpgin %llu"));
        out->pages_out = static_cast<uint32_t>(counter_after(vmstat, "pgpgout ", "pgpgout %llu"));
        out->swap_in = static_cast<uint32_t>(counter_after(vmstat, "pswpin ", "pswpin %llu"));
        out->swap_out = static_cast<uint32_t>(counter_after(vmstat, "pswpout ", "pswpout %llu"));
    } else {
        // Kernels without /proc/vmstat print the paging counters in /proc/stat.
        unsigned long long in = 0, out_ = 0;
        const char *page = strstr(stat, "page ");
        if (page != nullptr && sscanf(page, "page %llu %llu", &in, &out_) == 2) {
            out->pages_in = static_cast<uint32_t>(in);
            out->pages_out = static_cast<uint32_t>(out_);
        }
        in = out_ = 0;
        const char *swap = strstr(stat, "swap ");
        if (swap != nullptr && sscanf(swap, "swap %llu %llu", &in, &out_) == 2) {
            out->swap_in = static_cast<uint32_t>(in);
            out->swap_out = static_cast<uint32_t>(out_);
        }
    }

    unsigned long long total = 0, first = 0;
    const char *intr = strstr(stat, "intr ");
    if (intr != nullptr && sscanf(intr, "intr %llu %llu", &total, &first) >= 1) {
        out->interrupts = static_cast<uint32_t>(total);
        out->first_interrupt = static_cast<uint32_t>(first);
    }
    out->contexts = static_cast<uint32_t>(counter_after(stat, "ctxt ", "ctxt %llu"));
}

bool ucd_read_text(const std::string &path, std::vector<char> &text)
{
    for (;;) {
        file_ptr in(fopen(path.c_str(), "r"));
        if (!in) return false;
        if (text.empty()) text.resize(256);
        size_t length = fread(text.data(), 1, text.size(), in.get());
        if (length < text.size()) {
            text[length] = '\0';
            return true;
        }
        // The file filled the buffer: it may go on, so read it again whole
        // into a larger one (a /proc file is generated anew on each open).
        text.resize(text.size() + 256);
    }
}

void ucd_collect_sys_stats(ucd_sys_stats *out)
{
    TRACE_ENTER();
    memset(out, 0, sizeof *out);
    time_t now;
    int elapsed;
    if (timed_cache_due(sys_read_time, sys_reread_seconds, &now, &elapsed)) {
        if (!ucd_read_text(collect_proc_path("stat"), stat_text)) {
            TRACE_EXIT();
            return;
        }
        if (sys_flags.vmstat && !ucd_read_text(collect_proc_path("vmstat"), vmstat_text))
            sys_flags.vmstat = 0;
        sys_read_time = now;
    }
    if (!stat_text.empty())
        ucd_parse_sys_stats(stat_text.data(), vmstat_text.empty() ? nullptr : vmstat_text.data(),
                            &sys_flags, out);
    TRACE_EXIT();
}

void ucd_sys_stats_reset()
{
    sys_read_time = 0;
    stat_text.clear();
    vmstat_text.clear();
    sys_flags = {1, 1};
}

void ucd_parse_meminfo(FILE *in, ucd_memory *memory)
{
    // Tested in this order on every line; a line may match several names.
    static const struct {
        const char *name;
        uint32_t ucd_memory::*field;
    } names[] = {
        {"SwapTotal", &ucd_memory::total_swap}, {"SwapFree", &ucd_memory::avail_swap},
        {"MemTotal", &ucd_memory::total_real},  {"MemFree", &ucd_memory::avail_real},
        {"Shmem", &ucd_memory::shared},         {"Buffers", &ucd_memory::buffer},
        {"Cached", &ucd_memory::cached},
    };
    char *line = nullptr;
    size_t capacity = 0;
    while (getline(&line, &capacity, in) != -1) {
        const char *colon = strchr(line, ':');
        if (colon == nullptr) continue;
        for (const auto &n : names)
            if (strstr(line, n.name) != nullptr)
                memory->*n.field = static_cast<uint32_t>(to_int(colon + 1));
    }
    free(line);
    memory->index = 0;
    snprintf(memory->error_name, sizeof memory->error_name, "%s", "swap");
    memory->total_free = memory->avail_real + memory->avail_swap;
}

int ucd_read_meminfo(ucd_memory *memory)
{
    file_ptr in(fopen(collect_proc_path("meminfo").c_str(), "r"));
    if (!in) return -1;
    ucd_parse_meminfo(in.get(), memory);
    return 0;
}

void ucd_parse_version(FILE *in, ucd_version *version)
{
    char *line = nullptr;
    size_t capacity = 0;
    while (getline(&line, &capacity, in) != -1) {
        line[strcspn(line, "\n")] = '\0';
        // "Linux version RELEASE (builder) (compiler) #1 SMP PREEMPT DATE":
        // the release is the third word, the build text what follows SMP.
        version->build[0] = '\0';
        char *rest = line;
        int words = 0;
        bool after_smp = false;
        for (char *word; (word = strsep(&rest, " ")) != nullptr;) {
            if (++words < 3) continue;
            if (words == 3) {
                snprintf(version->release, sizeof version->release, "%s", word);
            } else if (!after_smp) {
                after_smp = strcmp(word, "SMP") == 0;
            } else {
                size_t used = strlen(version->build);
                snprintf(version->build + used, sizeof version->build - used, "%s ", word);
            }
        }
    }
    free(line);
}

void ucd_read_version(ucd_version *version)
{
    time_t now = timed_cache_now();
    struct tm local;
    if (localtime_r(&now, &local) != nullptr)
        strftime(version->date, sizeof version->date, "%c", &local);
    file_ptr in(fopen(collect_proc_path("version").c_str(), "r"));
    if (in) ucd_parse_version(in.get(), version);
}

void ucd_parse_processes(FILE *in, std::vector<ucd_process> &out)
{
    char *line = nullptr;
    size_t capacity = 0;
    while (getline(&line, &capacity, in) != -1) {
        if (line[0] == '\n' || line[0] == '\0') continue;
        out.push_back(parse_process_line(line));
    }
    free(line);
}

int ucd_collect_processes(std::vector<ucd_process> &out)
{
    TRACE_ENTER();
    sys_system(procstats_script);
    file_ptr in(sys_fopen(procstats_file, "r"));
    if (!in) {
        TRACE_EXIT();
        return -1;
    }
    ucd_parse_processes(in.get(), out);
    in.reset();
    sys_remove(procstats_file);
    TRACE_EXIT();
    return 0;
}
