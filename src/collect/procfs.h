// Shared /proc readers of the collectors: the proc root, snmp sections, socket owners.
#ifndef LEISOBEK_COLLECT_PROCFS_H
#define LEISOBEK_COLLECT_PROCFS_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

// A FILE that is closed when it goes out of scope.
struct file_closer {
    void operator()(FILE *file) const { fclose(file); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

// Opens a socket table below the proc root (e.g. "net/tcp6") for reading with
// buffer as its stream buffer, sized on first use to 256 KiB so that a table
// of tens of thousands of sockets is read in large blocks. The caller keeps
// buffer for the life of the process. Returns null when the file cannot be
// opened.
file_ptr open_proc_table(const char *relative, std::vector<char> &buffer);

// The directory the collectors read as /proc; "/proc" unless a test set
// another tree with collect_set_proc_root (null restores "/proc").
const char *collect_proc_root();
void collect_set_proc_root(const char *root);

// Path of a file below the proc root, e.g. collect_proc_path("net/tcp").
std::string collect_proc_path(const char *relative);

// Finds the values of the section name ("Tcp", "Udp", ...) of /proc/net/snmp:
// the first line starting with "<name>:" is the header, and when the next line
// starts with it too, that line is the values line. Lines are read with fgets
// into buffer (size bytes). Returns a pointer into buffer just past "<name>: ",
// or null when the file cannot be opened or has no such pair of lines.
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
