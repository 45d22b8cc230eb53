// IP collector: the interface list, ipAddressTable and ipv6RouterAdvertTable.
#include "ipstats.h"

#include "procfs.h"
#include "scan.h"
#include "core/trace.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

namespace
{

// A socket closed when it goes out of scope.
struct scoped_socket {
    int fd;
    explicit scoped_socket(int f) : fd(f) {}
    ~scoped_socket()
    {
        if (fd >= 0) close(fd);
    }
    scoped_socket(const scoped_socket &) = delete;
    scoped_socket &operator=(const scoped_socket &) = delete;
};

// Asks the kernel for its interface list (one record per IPv4 address, with
// the address's label as its name). The buffer starts at 8 records and
// doubles until two answers in a row have the same length, so that a list
// cut short by the buffer is never taken for the whole. False on failure.
bool list_interfaces(int sock, std::vector<ifreq> &result)
{
    size_t entries = 8;
    int last_length = -1;
    for (;;) {
        std::vector<ifreq> buffer(entries);
        ifconf conf;
        memset(&conf, 0, sizeof conf);
        conf.ifc_len = static_cast<int>(entries * sizeof(ifreq));
        conf.ifc_req = buffer.data();
        if (ioctl(sock, SIOCGIFCONF, &conf) < 0) {
            // Some kernels refuse a buffer too small for the list.
            if (errno != EINVAL || last_length != -1) return false;
        } else {
            if (conf.ifc_len == last_length) {
                buffer.resize(static_cast<size_t>(conf.ifc_len) / sizeof(ifreq));
                result.swap(buffer);
                return true;
            }
            last_length = conf.ifc_len;
        }
        entries *= 2;
    }
}

// Interface indexes by name for one refresh: the kernel is asked once per name.
class if_index_memo
{
  public:
    // 0 and *index set, or -1.
    int find(const char *name, int *index)
    {
        auto it = known_.find(name);
        if (it == known_.end()) {
            int found = 0;
            it = known_.emplace(name, get_if_index(name, &found) == 0 ? found : -1).first;
        }
        if (it->second < 0) return -1;
        *index = it->second;
        return 0;
    }

  private:
    std::unordered_map<std::string, int> known_;
};

// What an address dump says of an interface: whether any of its addresses
// carried a broadcast or an anycast attribute, and the value of the last
// such attribute (both kinds write the one value, the later one wins).
struct addr_flags {
    bool broadcast = false;
    bool anycast = false;
    uint8_t value[16] = {};
};

// The addresses of one family as the kernel's routing netlink lists them,
// summed up per interface. One dump per refresh answers, for every
// interface, what a dump per address would.
class addr_dump
{
  public:
    explicit addr_dump(int family) { run(family); }

    // The interface's flags; all clear when the dump failed or did not name it.
    const addr_flags &of(int if_index) const
    {
        static const addr_flags none;
        auto it = by_if_.find(if_index);
        return it == by_if_.end() ? none : it->second;
    }

    // The prefix length of the first IPv4 address with this label and local
    // address: what SIOCGIFNETMASK answers for that interface record. -1 when
    // the dump did not list it.
    int prefix_of(const char *label, const uint8_t *local) const
    {
        auto it = prefix_by_label_.find(label_key(label, local));
        return it == prefix_by_label_.end() ? -1 : it->second;
    }

  private:
    void run(int family)
    {
        scoped_socket sock(request_address_dump(family));
        if (sock.fd < 0) return;
        // A dump of many addresses comes in several datagrams; all are read
        // (up to the end marker) so that no interface is missed.
        static std::vector<unsigned char> buffer(32768);
        for (;;) {
            ssize_t received = recv(sock.fd, buffer.data(), buffer.size(), 0);
            if (received <= 0) return;
            if (!walk(buffer.data(), static_cast<size_t>(received))) return;
        }
    }

    // Walks the messages of one datagram; false at the end of the dump or
    // on a message that does not fit.
    bool walk(const unsigned char *data, size_t left)
    {
        while (left > sizeof(nlmsghdr)) {
            nlmsghdr header;
            memcpy(&header, data, sizeof header);
            if (header.nlmsg_len < sizeof header || header.nlmsg_len > left) return false;
            if (header.nlmsg_type == NLMSG_DONE || header.nlmsg_type == NLMSG_ERROR) return false;
            if (header.nlmsg_type == RTM_NEWADDR &&
                header.nlmsg_len >= NLMSG_LENGTH(sizeof(ifaddrmsg)))
                take(data, header.nlmsg_len);
            size_t step = NLMSG_ALIGN(header.nlmsg_len);
            if (step >= left) break;
            data += step;
            left -= step;
        }
        return true;
    }

    void take(const unsigned char *message, size_t length)
    {
        ifaddrmsg body;
        memcpy(&body, message + NLMSG_HDRLEN, sizeof body);
        size_t at = NLMSG_LENGTH(sizeof(ifaddrmsg));
        addr_flags *flags = nullptr;
        const uint8_t *local = nullptr;
        std::string label;
        while (length > at + 3) {
            rtattr attr;
            memcpy(&attr, message + at, sizeof attr);
            if (attr.rta_len < sizeof attr || attr.rta_len > length - at) break;
            const unsigned char *payload = message + at + RTA_LENGTH(0);
            size_t payload_size = attr.rta_len - RTA_LENGTH(0);
            if (attr.rta_type == IFA_LOCAL && payload_size == 4) local = payload;
            if (attr.rta_type == IFA_LABEL)
                label.assign(reinterpret_cast<const char *>(payload),
                             strnlen(reinterpret_cast<const char *>(payload), payload_size));
            if (attr.rta_type == IFA_BROADCAST || attr.rta_type == IFA_ANYCAST) {
                if (!flags) flags = &by_if_[static_cast<int>(body.ifa_index)];
                (attr.rta_type == IFA_BROADCAST ? flags->broadcast : flags->anycast) = true;
                size_t size = std::min<size_t>(attr.rta_len - RTA_LENGTH(0), sizeof flags->value);
                memcpy(flags->value, message + at + RTA_LENGTH(0), size);
            }
            at += RTA_ALIGN(attr.rta_len);
        }
        if (body.ifa_family == AF_INET && local && !label.empty())
            prefix_by_label_.emplace(label_key(label.c_str(), local), body.ifa_prefixlen);
    }

    static std::string label_key(const char *label, const uint8_t *local)
    {
        return std::string(label) + '\0' + std::string(reinterpret_cast<const char *>(local), 4);
    }

    std::unordered_map<int, addr_flags> by_if_;
    std::unordered_map<std::string, int> prefix_by_label_; // the first of each key is kept
};

// Number of leading one bits of a netmask, whole bytes of 0xff first.
int mask_length(const uint8_t mask[4])
{
    int bits = 0, i = 0;
    for (; i < 4 && mask[i] == 0xff; i++)
        bits += 8;
    for (uint8_t rest = i < 4 ? mask[i] : 0; rest & 0x80; rest = static_cast<uint8_t>(rest << 1))
        bits++;
    return bits;
}

// An ioctl on a copy of the interface's record, so that the record keeps its address.
bool interface_ioctl(int sock, unsigned long request, const ifreq &record, ifreq *answer)
{
    *answer = record;
    return ioctl(sock, request, answer) == 0;
}

ip_address_entry *append_zeroed(stats_list *list, int32_t *position)
{
    *position = list->count;
    auto *row = static_cast<ip_address_entry *>(stats_list_at(list, *position));
    memset(row, 0, sizeof *row);
    return row;
}

// The IPv4 rows: one per record of the interface list, and a broadcast row
// where the interface has a broadcast address.
void collect_ipv4_addresses(stats_list *list, if_index_memo &indexes)
{
    scoped_socket sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (sock.fd < 0) return;
    std::vector<ifreq> records;
    if (!list_interfaces(sock.fd, records)) return;
    addr_dump dump(AF_INET);
    std::unordered_map<std::string, int> if_flags;
    for (const ifreq &record : records) {
        int32_t first, second = -1;
        ip_address_entry *row = append_zeroed(list, &first);
        row->addr_type = 1;
        memcpy(row->addr.bytes, &reinterpret_cast<const sockaddr_in *>(&record.ifr_addr)->sin_addr,
               4);
        row->addr.length = 4;
        int if_index = 0;
        indexes.find(record.ifr_name, &if_index);
        row->if_index = if_index;
        const addr_flags &flags = dump.of(if_index);
        if (flags.broadcast) {
            ip_address_entry *bcast = append_zeroed(list, &second);
            bcast->addr_type = 1;
            memcpy(bcast->addr.bytes, flags.value, 4);
            bcast->addr.length = 4;
            bcast->if_index = if_index;
            bcast->type = 3;
            bcast->prefix_oid_len = 2; // the null row pointer 0.0
            row = static_cast<ip_address_entry *>(stats_list_record(list, first));
        }
        ip_address_entry *bcast =
            second < 0 ? nullptr : static_cast<ip_address_entry *>(stats_list_record(list, second));
        // The dump already holds each address's netmask; the ioctl is asked
        // only for an address that came after the dump.
        ifreq answer;
        int prefix_len = dump.prefix_of(record.ifr_name, row->addr.bytes);
        if (prefix_len < 0 && interface_ioctl(sock.fd, SIOCGIFNETMASK, record, &answer))
            prefix_len = mask_length(reinterpret_cast<const uint8_t *>(
                &reinterpret_cast<const sockaddr_in *>(&answer.ifr_netmask)->sin_addr));
        if (prefix_len >= 0) {
            row->prefix_len = prefix_len;
            if (bcast) bcast->prefix_len = prefix_len;
        }
        build_prefix_pointer(row);
        // Interface flags are the device's: asked once per name.
        auto known = if_flags.find(record.ifr_name);
        if (known == if_flags.end()) {
            int flags =
                interface_ioctl(sock.fd, SIOCGIFFLAGS, record, &answer) ? answer.ifr_flags : 0;
            known = if_flags.emplace(record.ifr_name, flags).first;
        }
        row->if_flags = known->second;
        row->storage = 2;
        row->type = flags.anycast ? 2 : 1;
        row->status = 1;
        row->origin = row->addr.bytes[0] == 169 && row->addr.bytes[1] == 254 ? 6 : 2;
        if (bcast) {
            bcast->storage = 2;
            bcast->status = 1;
            bcast->origin = row->origin;
        }
    }
}

// The IPv6 rows: one per line of /proc/net/if_inet6.
void collect_ipv6_addresses(stats_list *list, if_index_memo &indexes)
{
    file_ptr in(fopen(collect_proc_path("net/if_inet6").c_str(), "r"));
    if (!in) return;
    std::vector<if_inet6_line> lines;
    char text[1024];
    while (fgets(text, sizeof text, in.get())) {
        if_inet6_line line;
        if (parse_if_inet6_line(text, &line)) lines.push_back(line);
    }
    if (lines.empty()) return;
    addr_dump dump(AF_INET6);
    for (const if_inet6_line &line : lines) {
        int32_t position;
        ip_address_entry *row = append_zeroed(list, &position);
        int if_index;
        row->if_index = indexes.find(line.device, &if_index) == 0
                            ? if_index
                            : static_cast<int32_t>(line.if_index);
        ip6_address_from_line(line, row);
        row->type = dump.of(row->if_index).anycast ? 2 : 1;
    }
}

// Reads an integer from a file below /proc/sys/net/ipv6, the path made from
// format and the interface name. 0 and *value set, or -1.
int read_ipv6_sys(const char *format, const char *name, int *value)
{
    char relative[1024];
    snprintf(relative, sizeof relative, format, name);
    return read_int_file(collect_proc_path(relative).c_str(), value);
}

} // namespace

int get_if_index(const char *name, int *index)
{
    scoped_socket sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (sock.fd < 0) return -1;
    ifreq request;
    memset(&request, 0, sizeof request);
    snprintf(request.ifr_name, sizeof request.ifr_name, "%s", name);
    if (ioctl(sock.fd, SIOCGIFINDEX, &request) < 0) return -1;
    *index = request.ifr_ifindex;
    return 0;
}

bool parse_if_inet6_line(const char *text, if_inet6_line *line)
{
    memset(line, 0, sizeof *line);
    return scan_ident(&text, line->address, sizeof line->address) == 0 &&
           scan_hex_u32(&text, &line->if_index) == 0 &&
           scan_hex_u32(&text, &line->prefix_len) == 0 && scan_hex_u32(&text, &line->scope) == 0 &&
           scan_hex_u32(&text, &line->flags) == 0 &&
           scan_ident(&text, line->device, sizeof line->device) == 0;
}

void ip6_address_from_line(const if_inet6_line &line, ip_address_entry *row)
{
    const uint32_t permanent = 0x80, temporary = 0x01, deprecated = 0x20, tentative = 0x40;
    row->addr_type = 2;
    const char *cursor = line.address;
    int32_t type;
    int all_zero;
    int length = scan_hex_addr(&cursor, row->addr.bytes, &type, &all_zero, 1);
    row->addr.length = length > 0 ? static_cast<uint32_t>(length) : 0;
    row->prefix_len = static_cast<int32_t>(line.prefix_len);
    build_prefix_pointer(row);
    uint32_t flags = line.flags;
    if (flags == 0 || (flags & (permanent | temporary)))
        row->status = 1;
    else if (flags & deprecated)
        row->status = 2;
    else if (flags & tentative)
        row->status = 6;
    else
        row->status = 5;
    bool link_local = row->addr.bytes[0] == 0xfe && (row->addr.bytes[1] & 0xc0) == 0x80;
    if (flags == 0)
        row->origin = 5;
    else if (flags & temporary)
        row->origin = 6;
    else
        row->origin = link_local ? 5 : 2;
    row->storage = row->origin == 5 ? 4 : 2;
}

void build_prefix_pointer(ip_address_entry *row)
{
    static const uint32_t prefix_origin[] = {1, 3, 6, 1, 2, 1, 4, 32, 1, 5};
    ip_addr_value masked = row->addr;
    mask_prefix(&masked, row->prefix_len);
    uint32_t n = 0;
    for (uint32_t sub : prefix_origin)
        row->prefix_oid[n++] = sub;
    row->prefix_oid[n++] = static_cast<uint32_t>(row->if_index);
    row->prefix_oid[n++] = static_cast<uint32_t>(row->addr_type);
    row->prefix_oid[n++] = masked.length;
    for (uint32_t i = 0; i < masked.length && i < sizeof masked.bytes; i++)
        row->prefix_oid[n++] = masked.bytes[i];
    row->prefix_oid[n++] = static_cast<uint32_t>(row->prefix_len);
    row->prefix_oid_len = n;
}

int update_ip_address(stats_list *list)
{
    TRACE_ENTER();
    list->count = 0;
    if_index_memo indexes;
    collect_ipv4_addresses(list, indexes);
    collect_ipv6_addresses(list, indexes);
    stats_list_sort(list); // duplicates (one broadcast address of several rows) are kept
    TRACE_EXIT();
    return 0;
}

int update_ipv6_router_advert_stats(stats_list *list)
{
    TRACE_ENTER();
    std::vector<ifreq> records;
    {
        scoped_socket sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        if (sock.fd < 0 || !list_interfaces(sock.fd, records)) {
            TRACE_EXIT();
            return -1; // the rows of the last refresh stay
        }
    }
    list->count = 0;
    int all_forwarding;
    if (read_int_file(collect_proc_path("sys/net/ipv6/conf/all/forwarding").c_str(),
                      &all_forwarding) != 0)
        all_forwarding = 1;
    for (const ifreq &record : records) {
        // The slot is not cleared: a file that cannot be read leaves what it held.
        auto *row = static_cast<ip6_router_advert_entry *>(stats_list_at(list, list->count));
        memcpy(row->name, record.ifr_name, sizeof row->name - 1);
        row->name[sizeof row->name - 1] = '\0';
        int value;
        if (get_if_index(row->name, &value) == 0) row->if_index = value;
        int forwarding;
        if (read_ipv6_sys("sys/net/ipv6/conf/%s/forwarding", row->name, &forwarding) != 0)
            forwarding = 1;
        row->send_adverts = all_forwarding && forwarding ? 1 : 2;
        if (read_ipv6_sys("sys/net/ipv6/conf/%s/mtu", row->name, &value) == 0)
            row->link_mtu = static_cast<uint32_t>(value);
        if (read_ipv6_sys("sys/net/ipv6/conf/%s/hop_limit", row->name, &value) == 0)
            row->cur_hop_limit = static_cast<uint32_t>(value);
        // The older files without "_ms" are read as seconds.
        if (read_ipv6_sys("sys/net/ipv6/neigh/%s/retrans_time_ms", row->name, &value) == 0)
            row->retransmit_time = static_cast<uint32_t>(value);
        else if (read_ipv6_sys("sys/net/ipv6/neigh/%s/retrans_time", row->name, &value) == 0)
            row->retransmit_time = static_cast<uint32_t>(value) * 1000;
        if (read_ipv6_sys("sys/net/ipv6/neigh/%s/base_reachable_time_ms", row->name, &value) == 0)
            row->reachable_time = static_cast<uint32_t>(value);
        else if (read_ipv6_sys("sys/net/ipv6/neigh/%s/base_reachable_time", row->name, &value) == 0)
            row->reachable_time = static_cast<uint32_t>(value) * 1000;
        row->max_interval = 600;
        row->min_interval = 200;
        row->managed_flag = 2;
        row->other_config_flag = 2;
        row->default_lifetime = 0;
        row->row_status = 1;
    }
    stats_list_sort(list); // an interface listed twice gives two rows; both are kept
    TRACE_EXIT();
    return 0;
}
