// UCD collector: CPU and paging counters (/proc/stat, /proc/vmstat), memory (/proc/meminfo),
// the kernel version (/proc/version) and the start-up process snapshot (/tmp/procstats).
#ifndef LEISOBEK_COLLECT_UCDSTATS_H
#define LEISOBEK_COLLECT_UCDSTATS_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

// One systemStats snapshot. The CPU tick counters (user, nice, system, idle,
// iowait, irq, softirq) are averages per CPU: the aggregate line divided by
// the CPU count. Wider kernel counters are truncated to 32 bits.
struct ucd_sys_stats {
    uint32_t user;
    uint32_t nice;
    uint32_t system;
    uint32_t idle;
    uint32_t pages_in;
    uint32_t pages_out;
    uint32_t swap_in;
    uint32_t swap_out;
    uint32_t interrupts;
    uint32_t first_interrupt;
    uint32_t contexts;
    uint32_t iowait;
    uint32_t irq;
    uint32_t softirq;
};

// What the parser remembers between requests; each flag starts at 1 and
// only ever goes to 0.
struct ucd_sys_flags {
    int vmstat;      // /proc/vmstat exists: paging counters come from it
    int seven_value; // the aggregate cpu line has iowait, irq and softirq
};

// Parses the cached texts into *out (which the caller zeroed): the CPU count
// from the last "cpuN" after the first character (1 when there is none), the
// aggregate "cpu " line (seven values while flags->seven_value holds, else
// four, clearing the flag for good when seven do not read), the paging
// counters from vmstat when flags->vmstat is set (else the "page" and "swap"
// lines of stat), "intr" and "ctxt". stat and vmstat are NUL-terminated;
// vmstat may be null when flags->vmstat is clear.
void ucd_parse_sys_stats(const char *stat, const char *vmstat, ucd_sys_flags *flags,
                         ucd_sys_stats *out);

// Reads the whole file at path into text, NUL-terminated: the buffer starts
// at 256 bytes and, while a read fills it exactly, grows by 256 and the file
// is read again from the start. Returns false (text unchanged) when the file
// cannot be opened.
bool ucd_read_text(const std::string &path, std::vector<char> &text);

// The systemStats snapshot of one request: /proc/stat (and /proc/vmstat
// while it exists) are reread when more than 5 seconds have passed since the
// last read by the collectors' clock (timedcache.h), and the cached texts are
// parsed on every call. Without /proc/stat every counter is 0.
void ucd_collect_sys_stats(ucd_sys_stats *out);

// Forgets the cached texts, the last read time and the flags (tests).
void ucd_sys_stats_reset();

// The memory group, in kB as the kernel prints it.
struct ucd_memory {
    uint32_t requests; // counter of request_count_due (timedcache.h)
    uint32_t index;    // memIndex, always 0
    char error_name[16];
    uint32_t total_swap;
    uint32_t avail_swap;
    uint32_t total_real;
    uint32_t avail_real;
    uint32_t total_free; // avail_real + avail_swap
    uint32_t shared;
    uint32_t buffer;
    uint32_t cached;
};

// Reads /proc/meminfo lines from in: each line is tested, in this order, for
// containing "SwapTotal", "SwapFree", "MemTotal", "MemFree", "Shmem",
// "Buffers", "Cached", and the number after its ":" goes into the matching
// field. A later matching line overwrites an earlier one, so the SwapCached
// line after Cached decides memCached, and the last line naming Shmem
// decides memShared. Then sets memIndex 0, memErrorName "swap" and
// memTotalFree.
void ucd_parse_meminfo(FILE *in, ucd_memory *memory);

// Refreshes memory from /proc/meminfo; when it cannot be opened nothing
// changes. Returns 0, or -1 then.
int ucd_read_meminfo(ucd_memory *memory);

// The version group.
struct ucd_version {
    uint32_t requests; // counter of request_count_due (timedcache.h)
    char release[80];  // versionTag: the third word of the banner
    char build[60];    // versionDate: the words after "SMP", each followed by a blank
    char date[64];     // versionCDate: local time when last refreshed, strftime "%c"
};

// Reads /proc/version lines from in: the third blank-separated word is the
// release, and the words after the first "SMP" are the build text (empty
// without "SMP"), cut to fit its buffer. The line break is not part of
// either text.
void ucd_parse_version(FILE *in, ucd_version *version);

// Refreshes version: the date from the collectors' clock, then the texts from
// /proc/version, which keep their old contents when it cannot be opened.
void ucd_read_version(ucd_version *version);

// One process of the start-up snapshot; counters[] holds the fourth, fifth
// and third fields of its line, in that order.
struct ucd_process {
    int32_t pid;
    std::string name;
    uint32_t counters[3];
};

// Appends a process per non-empty line "pid;name;n3;n4;n5" of in to out, in
// file order. Missing fields are 0 or empty; numbers read as atoi does.
void ucd_parse_processes(FILE *in, std::vector<ucd_process> &out);

// Takes the process snapshot: runs "sh /usr/bin/procdata.sh", reads the
// "/tmp/procstats" it writes into out and removes the file. Returns 0, or -1
// when the file cannot be opened (out is then unchanged).
int ucd_collect_processes(std::vector<ucd_process> &out);

#endif
