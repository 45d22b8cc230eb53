// Shared /proc readers of the collectors: the proc root, snmp sections, socket owners.
#ifndef LEISOBEK_COLLECT_PROCFS_H
#define LEISOBEK_COLLECT_PROCFS_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

// A FILE that is closed when it goes out of scope.
struct file_closer {
    void operator()(FILE *file) const { fclose(file); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

// Lines of the kernel's text files are read with fgets into buffers of this
// size; a longer line is taken as several lines, as it always has been.
constexpr int proc_line_size = 8192;

// A socket table opened by open_proc_table; closing it hands its stream
// buffer back.
struct proc_table_closer {
    void operator()(FILE *file) const;
};
using proc_table_ptr = std::unique_ptr<FILE, proc_table_closer>;

// Opens a socket table below the proc root (e.g. "net/tcp6") for reading.
// A read of such a file hands back at most one page of text, and every page
// costs the kernel a walk of its socket hash from the first bucket up to the
// offset reached; so the table is read through one 256 KiB stream buffer,
// allocated once and kept, which makes every read take a whole page. While
// that buffer is in use a second table opened at the same time gets the
// default one. Returns null when the file cannot be opened.
proc_table_ptr open_proc_table(const char *relative);

// Widens a 32-bit kernel counter to a 64-bit total: of raw only the low 32
// bits count; the total grows by the difference between them and the last
// raw value, plus 2^32 when that is negative (a wrap, or a counter that
// restarted), and the last raw value becomes them. Both start at 0, so the
// first call sets the total to the raw value.
inline void widen_counter(uint64_t raw, uint32_t *last_raw, uint64_t *total)
{
    uint32_t now = static_cast<uint32_t>(raw);
    int64_t delta = static_cast<int64_t>(now) - static_cast<int64_t>(*last_raw);
    if (delta < 0) delta += INT64_C(1) << 32;
    *total += static_cast<uint64_t>(delta);
    *last_raw = now;
}

// The directory the collectors read as /proc; "/proc" unless a test set
// another tree with collect_set_proc_root (null restores "/proc").
const char *collect_proc_root();
void collect_set_proc_root(const char *root);

// Path of a file below the proc root, e.g. collect_proc_path("net/tcp").
std::string collect_proc_path(const char *relative);

// Finds the values of the section name ("Tcp", "Udp", ...) of /proc/net/snmp:
// the first line starting with "<name>:" is the header, and when the next line
// starts with it too, that line is the values line. Lines are read with fgets
// into buffer (size bytes, at least 2: fgets with room for the NUL only never
// reaches the end of the file). Returns a pointer into buffer just past
// "<name>: ", or null when size is below 2, the file cannot be opened or it
// has no such pair of lines.
char *read_snmp_section(char *buffer, int size, const char *name);

// The same search on an open stream (the part of read_snmp_section that does
// not depend on where the file is).
char *read_snmp_section_from(FILE *in, char *buffer, int size, const char *name);

// A socket inode and the process that owns it (0 when none was found).
struct socket_pid_pair {
    uint32_t inode;
    uint32_t process;
};

// Resolves socket owners: walks every process directory of /proc and the
// links of its fd directory; a link "socket:[N]" gives process to the first
// pair with inode N. A socket open in several processes ends up with the last
// of them reached. The walk stops as soon as as many links have matched as
// there are pairs. Processes or fd directories that vanish or cannot be read
// are skipped. Returns the number of links that matched.
size_t map_socket_pids(socket_pid_pair *pairs, size_t n);

// Reads one decimal integer ("%d") from the file at path into *result.
// Returns 0, or -1 when the file cannot be opened or holds no number.
int read_int_file(const char *path, int *result);

#endif
