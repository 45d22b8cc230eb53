// Readers of the kernel's /proc files shared by the collectors (see procfs.h).
#include "procfs.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <vector>

namespace
{

const char default_proc_root[] = "/proc";
std::string proc_root = default_proc_root;

struct dir_closer {
    void operator()(DIR *dir) const { closedir(dir); }
};
using dir_ptr = std::unique_ptr<DIR, dir_closer>;

// Inode -> index of the first pair holding it. Socket inodes come from one
// counter and mostly lie close together, so the index is usually a plain
// array over the span of inodes; when they are spread too far it is a hash
// table with linear probing whose slots keep the inode beside the index. Both
// hold index + 1 so that 0 marks "no pair". The storage is kept between
// refreshes so that it is allocated once.
class inode_index
{
  public:
    void build(const socket_pid_pair *pairs, size_t n)
    {
        uint32_t low = UINT32_MAX;
        uint32_t high = 0;
        for (size_t i = 0; i < n; i++) {
            low = std::min(low, pairs[i].inode);
            high = std::max(high, pairs[i].inode);
        }
        uint64_t span = static_cast<uint64_t>(high) - low + 1;
        direct_ = n > 0 && span <= 4 * static_cast<uint64_t>(n) + 4096;
        if (direct_) {
            low_ = low;
            table_.assign(static_cast<size_t>(span), 0);
            for (size_t i = n; i-- > 0;) // the first pair of a repeated inode wins
                table_[pairs[i].inode - low] = static_cast<uint32_t>(i + 1);
            return;
        }
        size_t size = 16;
        while (size < 2 * n)
            size *= 2;
        mask_ = size - 1;
        slots_.assign(size, slot{0, 0});
        for (size_t i = 0; i < n; i++) {
            size_t at = home(pairs[i].inode);
            while (slots_[at].index != 0 && slots_[at].inode != pairs[i].inode)
                at = (at + 1) & mask_;
            if (slots_[at].index == 0)
                slots_[at] = slot{pairs[i].inode, static_cast<uint32_t>(i + 1)};
        }
    }

    // Index of the first pair with this inode, or -1.
    long find(uint32_t inode) const
    {
        if (direct_) {
            if (inode < low_ || inode - low_ >= table_.size()) return -1;
            return static_cast<long>(table_[inode - low_]) - 1;
        }
        for (size_t at = home(inode); slots_[at].index != 0; at = (at + 1) & mask_)
            if (slots_[at].inode == inode) return static_cast<long>(slots_[at].index) - 1;
        return -1;
    }

  private:
    struct slot {
        uint32_t inode;
        uint32_t index;
    };

    size_t home(uint32_t inode) const
    {
        return static_cast<size_t>((static_cast<uint64_t>(inode) * 0x9E3779B97F4A7C15ull) >> 32) &
               mask_;
    }

    bool direct_ = false;
    uint32_t low_ = 0;
    std::vector<uint32_t> table_;
    std::vector<slot> slots_;
    size_t mask_ = 0;
};

inode_index socket_index;

// The stream buffer of the socket tables and the table that holds it (null
// when it is free).
std::vector<char> table_buffer;
FILE *table_buffer_user;

bool all_digits(const char *text, size_t max_length)
{
    size_t length = 0;
    for (; text[length]; length++)
        if (text[length] < '0' || text[length] > '9' || length >= max_length) return false;
    return length > 0;
}

// Name of the link to read for an fd entry: entries whose name starts with a
// number are read under that number printed back in decimal. The kernel names
// fds in plain decimal, and such a name is used as it stands; others are
// formatted into scratch. Returns null for an entry that is not an fd.
const char *fd_link_name(const char *entry, char *scratch, size_t size)
{
    if (all_digits(entry, 9) && (entry[0] != '0' || entry[1] == '\0')) return entry;
    int fd;
    if (sscanf(entry, "%d", &fd) != 1) return nullptr;
    snprintf(scratch, size, "%d", fd);
    return scratch;
}

// Inode of a link text "socket:[N]"; false for any other link.
bool socket_inode(const char *link, uint32_t *inode)
{
    static const char prefix[] = "socket:[";
    if (strncmp(link, prefix, sizeof prefix - 1) != 0) return false;
    const char *p = link + sizeof prefix - 1;
    if (*p < '0' || *p > '9') {
        unsigned value;
        if (sscanf(link, "socket:[%u]", &value) != 1) return false;
        *inode = value;
        return true;
    }
    uint64_t value = 0;
    for (; *p >= '0' && *p <= '9'; p++)
        value = value * 10 + static_cast<uint64_t>(*p - '0');
    *inode = static_cast<uint32_t>(value);
    return true;
}

} // namespace

const char *collect_proc_root()
{
    return proc_root.c_str();
}

void collect_set_proc_root(const char *root)
{
    proc_root = root ? root : default_proc_root;
}

void proc_table_closer::operator()(FILE *file) const
{
    if (file == table_buffer_user) table_buffer_user = nullptr;
    fclose(file);
}

proc_table_ptr open_proc_table(const char *relative)
{
    proc_table_ptr in(fopen(collect_proc_path(relative).c_str(), "r"));
    if (in && !table_buffer_user) {
        if (table_buffer.empty()) table_buffer.resize(256 * 1024);
        setvbuf(in.get(), table_buffer.data(), _IOFBF, table_buffer.size());
        table_buffer_user = in.get();
    }
    return in;
}

std::string collect_proc_path(const char *relative)
{
    return proc_root + "/" + relative;
}

char *read_snmp_section_from(FILE *in, char *buffer, int size, const char *name)
{
    if (!in || size < 2) return nullptr;
    std::string prefix = std::string(name) + ":";
    while (fgets(buffer, size, in)) {
        if (strncmp(buffer, prefix.c_str(), prefix.size()) != 0) continue;
        // Header line found: the values must follow on the very next line;
        // when they do not, the search resumes after that line.
        if (!fgets(buffer, size, in)) return nullptr;
        if (strncmp(buffer, prefix.c_str(), prefix.size()) == 0) {
            // Past the prefix and the blank after it; a values line cut
            // short right after the prefix yields an empty text.
            return buffer[prefix.size()] ? buffer + prefix.size() + 1 : buffer + prefix.size();
        }
    }
    return nullptr;
}

char *read_snmp_section(char *buffer, int size, const char *name)
{
    if (size < 2) return nullptr;
    file_ptr in(fopen(collect_proc_path("net/snmp").c_str(), "r"));
    if (!in) return nullptr;
    return read_snmp_section_from(in.get(), buffer, size, name);
}

size_t map_socket_pids(socket_pid_pair *pairs, size_t n)
{
    size_t matched = 0;
    if (n == 0) return 0;
    dir_ptr proc(opendir(proc_root.c_str()));
    if (!proc) return 0;
    socket_index.build(pairs, n);

    struct dirent *entry;
    while (matched < n && (entry = readdir(proc.get())) != nullptr) {
        int pid;
        char extra;
        if (sscanf(entry->d_name, "%d%c", &pid, &extra) != 1) continue;
        char path[4096];
        int length = snprintf(path, sizeof path, "%s/%d/fd/", proc_root.c_str(), pid);
        if (length < 0 || static_cast<size_t>(length) >= sizeof path) continue;
        int fd_dir_fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd_dir_fd < 0) continue; // process gone, or not ours to look into
        dir_ptr fd_dir(fdopendir(fd_dir_fd));
        if (!fd_dir) {
            close(fd_dir_fd);
            continue;
        }
        struct dirent *fd_entry;
        while (matched < n && (fd_entry = readdir(fd_dir.get())) != nullptr) {
            char scratch[16];
            const char *name = fd_link_name(fd_entry->d_name, scratch, sizeof scratch);
            if (!name) continue;
            // Socket links are short; one of 63 bytes or more, or a link that
            // vanished (readlink fails), is not a socket we can name.
            char link[64];
            ssize_t link_length = readlinkat(dirfd(fd_dir.get()), name, link, sizeof link - 1);
            if (link_length < 0 || link_length >= static_cast<ssize_t>(sizeof link - 1)) continue;
            link[link_length] = '\0';
            uint32_t inode;
            if (!socket_inode(link, &inode)) continue;
            long index = socket_index.find(inode);
            if (index < 0) continue;
            pairs[index].process = static_cast<uint32_t>(pid);
            matched++;
        }
    }
    return matched;
}

int read_int_file(const char *path, int *result)
{
    file_ptr in(fopen(path, "r"));
    if (!in) return -1;
    return fscanf(in.get(), "%d", result) == 1 ? 0 : -1;
}
