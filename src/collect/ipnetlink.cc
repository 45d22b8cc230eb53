// IP collector: the tables read over routing netlink: address prefixes, neighbours and default
// routers.
#include "ipstats.h"

#include "core/trace.h"

#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace
{

// Calls fn(type, payload, payload size) for each attribute of the size bytes
// at data, stopping at an attribute shorter than its header or longer than
// what is left.
template <typename F> void walk_attributes(const unsigned char *data, size_t size, F fn)
{
    while (size >= sizeof(rtattr)) {
        rtattr attr;
        memcpy(&attr, data, sizeof attr);
        if (attr.rta_len < sizeof attr || attr.rta_len > size) return;
        fn(attr.rta_type, data + RTA_LENGTH(0), attr.rta_len - RTA_LENGTH(0));
        size_t step = RTA_ALIGN(attr.rta_len);
        if (step >= size) return;
        data += step;
        size -= step;
    }
}

// The attributes of a message whose fixed header (after the netlink one) is
// body bytes long; none when the message is shorter than that.
template <typename F> void message_attributes(const unsigned char *message, size_t body, F fn)
{
    nlmsghdr header;
    memcpy(&header, message, sizeof header);
    size_t start = NLMSG_LENGTH(body);
    if (header.nlmsg_len > start) walk_attributes(message + start, header.nlmsg_len - start, fn);
}

// A socket closed when it goes out of scope.
struct netlink_socket {
    int fd;
    explicit netlink_socket(int f) : fd(f) {}
    netlink_socket(const netlink_socket &) = delete;
    netlink_socket &operator=(const netlink_socket &) = delete;
    ~netlink_socket()
    {
        if (fd >= 0) close(fd);
    }
};

// The dump client's socket, request and receive buffers, kept for the whole run.
const size_t dump_buffer_size = 32768;
int dump_socket = -1;
unsigned char dump_request[NLMSG_LENGTH(sizeof(rtmsg))];
unsigned char dump_buffer[dump_buffer_size];

long clock_ticks = -1; // per second; read on first use

// The neighbour states other than reachable, in the order they are tried.
const struct {
    uint16_t nud;
    uint32_t state;
} neighbour_states[] = {
    {NUD_INCOMPLETE, 7},
    {NUD_STALE, 2},
    {NUD_DELAY, 3},
    {NUD_PROBE, 4},
};

} // namespace

// ---- ipAddressPrefixTable

void parse_addr_datagram(const unsigned char *data, size_t size, item_list *out)
{
    while (size > sizeof(nlmsghdr)) {
        nlmsghdr header;
        memcpy(&header, data, sizeof header);
        if (header.nlmsg_len < sizeof header || header.nlmsg_len > size) return;
        ip_addr_record record;
        memset(&record, 0, sizeof record);
        ifaddrmsg body;
        memset(&body, 0, sizeof body);
        memcpy(&body, data + NLMSG_HDRLEN, std::min(sizeof body, size - NLMSG_HDRLEN));
        record.family = body.ifa_family;
        record.prefix_len = body.ifa_prefixlen;
        record.flags = body.ifa_flags;
        record.scope = body.ifa_scope;
        record.if_index = static_cast<int32_t>(body.ifa_index);
        size_t address_size = record.family == AF_INET ? 4 : 16;
        message_attributes(data, sizeof body, [&](int type, const unsigned char *value, size_t n) {
            uint8_t *field = nullptr;
            uint32_t bit = 0;
            switch (type) {
            case IFA_ADDRESS:
                field = record.address, bit = addr_seen_address;
                break;
            case IFA_LOCAL:
                field = record.local, bit = addr_seen_local;
                break;
            case IFA_BROADCAST:
                field = record.broadcast, bit = addr_seen_broadcast;
                break;
            case IFA_ANYCAST:
                field = record.anycast, bit = addr_seen_anycast;
                break;
            case IFA_LABEL:
                memcpy(record.label, value, std::min(n, sizeof record.label - 1));
                record.seen |= addr_seen_label;
                return;
            case IFA_CACHEINFO: {
                ifa_cacheinfo info;
                memset(&info, 0, sizeof info);
                memcpy(&info, value, std::min(n, sizeof info));
                record.preferred = info.ifa_prefered;
                record.valid = info.ifa_valid;
                record.created = info.cstamp;
                record.updated = info.tstamp;
                record.seen |= addr_seen_cacheinfo;
                return;
            }
            default:
                return;
            }
            memcpy(field, value, std::min(n, address_size));
            record.seen |= bit;
        });
        item_list_append(out, &record);
        size_t step = NLMSG_ALIGN(header.nlmsg_len);
        if (step >= size) return;
        data += step;
        size -= step;
    }
}

int request_address_dump(int family)
{
    int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (fd < 0) return -1;
    struct {
        nlmsghdr header;
        ifaddrmsg body;
    } request;
    memset(&request, 0, sizeof request);
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = RTM_GETADDR;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ROOT;
    request.body.ifa_family = static_cast<unsigned char>(family);
    if (send(fd, &request, sizeof request, 0) < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int dump_addresses(item_list *out)
{
    static unsigned char buffer[16384];
    for (int family : {AF_INET, AF_INET6}) {
        netlink_socket sock(request_address_dump(family));
        if (sock.fd < 0) continue;
        // One datagram only: addresses beyond it are not seen.
        ssize_t received = recv(sock.fd, buffer, sizeof buffer, 0);
        if (received > 0) parse_addr_datagram(buffer, static_cast<size_t>(received), out);
    }
    return 0;
}

void ip_prefix_rows(const item_list *records, stats_list *list)
{
    for (uint32_t i = 0; i < records->count; i++) {
        const auto *record = static_cast<const ip_addr_record *>(item_list_get(records, i));
        // The slot is not cleared: what a record does not set stays as it was.
        auto *row = static_cast<ip_addr_prefix_entry *>(stats_list_at(list, list->count));
        row->if_index = record->if_index;
        row->prefix_len = record->prefix_len;
        bool seen = record->seen & addr_seen_address;
        uint32_t origin = 0;
        if (record->family == AF_INET) {
            row->type = 1;
            if (seen) {
                row->prefix.length = 4;
                memcpy(row->prefix.bytes, record->address, 4);
                origin = record->address[0] == 169 && record->address[1] == 254 ? 3 : 2;
            }
        } else if (record->family == AF_INET6) {
            row->type = 2;
            if (seen) {
                row->prefix.length = 16;
                memcpy(row->prefix.bytes, record->address, 16);
                bool link_local = record->address[0] == 0xfe && (record->address[1] & 0xc0) == 0x80;
                if (record->flags == 0 || (record->flags & 0x01))
                    origin = 5; // learned from a router advertisement
                else
                    origin = link_local ? 3 : 2;
            }
        }
        row->origin = origin ? origin : 1; // other: no address seen
        mask_prefix(&row->prefix, static_cast<int>(row->prefix_len));
        if (record->seen & addr_seen_cacheinfo) {
            row->preferred_lifetime = record->preferred;
            row->valid_lifetime = record->valid;
        }
        row->on_link = 1;
        row->autonomous = 2;
    }
    stats_list_sort(list);
    stats_list_uniq(list);
}

int update_ip_address_prefix(stats_list *list)
{
    TRACE_ENTER();
    list->count = 0;
    item_list records;
    item_list_init(&records, sizeof(ip_addr_record), 64);
    dump_addresses(&records);
    ip_prefix_rows(&records, list);
    item_list_free(&records);
    TRACE_EXIT();
    return 0;
}

// ---- The dump client of ipNetToPhysicalTable and ipDefaultRouterTable

int rtnl_walk(const unsigned char *data, size_t size, rtnl_message_fn fn, stats_list *list)
{
    while (size >= sizeof(nlmsghdr)) {
        nlmsghdr header;
        memcpy(&header, data, sizeof header);
        if (header.nlmsg_len < sizeof header || header.nlmsg_len > size) return 1;
        if (header.nlmsg_type == NLMSG_ERROR) return -1;
        if (header.nlmsg_type & 3) return 0; // the end marker, or nothing of the dump
        // Byte 1 of the body: a route's destination prefix length, 0 in a
        // neighbour message. A message without it is passed over.
        if (header.nlmsg_len > NLMSG_HDRLEN + 1 && data[NLMSG_HDRLEN + 1] == 0) fn(data, list);
        size_t step = NLMSG_ALIGN(header.nlmsg_len);
        if (step >= size) return 1;
        data += step;
        size -= step;
    }
    return 1;
}

int rtnl_dump(int type, rtnl_message_fn fn, stats_list *list)
{
    if (dump_socket < 0) {
        int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_ROUTE);
        if (fd < 0) return -1;
        int size = dump_buffer_size;
        if (setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) < 0) {
            close(fd);
            return -1;
        }
        dump_socket = fd;
    }
    // The body is a routing message naming the main table; the neighbour
    // dump is sent the same bytes.
    memset(dump_request, 0, sizeof dump_request);
    nlmsghdr header;
    memset(&header, 0, sizeof header);
    header.nlmsg_len = sizeof dump_request;
    header.nlmsg_type = static_cast<uint16_t>(type);
    header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    header.nlmsg_pid = static_cast<uint32_t>(getpid());
    memcpy(dump_request, &header, sizeof header);
    dump_request[NLMSG_HDRLEN + offsetof(rtmsg, rtm_table)] = RT_TABLE_MAIN;
    sockaddr_nl kernel;
    memset(&kernel, 0, sizeof kernel);
    kernel.nl_family = AF_NETLINK;
    if (sendto(dump_socket, dump_request, sizeof dump_request, 0,
               reinterpret_cast<sockaddr *>(&kernel), sizeof kernel) < 0)
        return -1;
    for (;;) {
        // Only the bytes received are walked, so the buffer is not cleared first.
        ssize_t received =
            recvfrom(dump_socket, dump_buffer, sizeof dump_buffer, 0, nullptr, nullptr);
        if (received < 0) return 0;
        int more = rtnl_walk(dump_buffer, static_cast<size_t>(received), fn, list);
        if (more <= 0) return more;
    }
}

// ---- ipNetToPhysicalTable

// The kernel lists neighbours in hash order, and with thousands of them a
// comparison sort costs more than the dump itself: the index is packed into
// three integers (ifIndex, type, length and the address bytes, most
// significant first) and sorted with a stable radix sort that passes over
// only the bytes in which some rows differ.
void ip_net_phys_sort(stats_list *list)
{
    struct keyed {
        uint64_t word[3];
        uint32_t record;
    };
    static std::vector<keyed> keys, spare; // kept so that a refresh does not allocate again
    size_t n = static_cast<size_t>(std::max(list->count, 0));
    keys.resize(n);
    spare.resize(n);
    uint64_t differ[3] = {};
    for (size_t p = 0; p < n; p++) {
        const auto *row = static_cast<const ip_net_phys_entry *>(
            stats_list_record(list, static_cast<int32_t>(p)));
        if (row->addr.length > sizeof row->addr.bytes || row->addr_type > 0xff) {
            stats_list_sort(list); // no compact key: the comparator decides
            return;
        }
        uint8_t b[16] = {};
        memcpy(b, row->addr.bytes, row->addr.length);
        keyed &k = keys[p];
        k.word[0] = uint64_t(static_cast<uint32_t>(row->if_index) ^ 0x80000000u) << 32 |
                    uint64_t(row->addr_type) << 24 | uint64_t(row->addr.length) << 16 |
                    uint64_t(b[0]) << 8 | b[1];
        k.word[1] = 0;
        for (int i = 2; i < 10; i++)
            k.word[1] = k.word[1] << 8 | b[i];
        k.word[2] = 0;
        for (int i = 10; i < 16; i++)
            k.word[2] = k.word[2] << 8 | b[i];
        k.record = list->order[p];
        for (int w = 0; w < 3; w++)
            differ[w] |= k.word[w] ^ keys[0].word[w];
    }
    for (int w = 2; w >= 0; w--)
        for (int shift = 0; shift < 64; shift += 8) {
            if (!((differ[w] >> shift) & 0xff)) continue;
            uint32_t start[257] = {};
            for (const keyed &k : keys)
                start[((k.word[w] >> shift) & 0xff) + 1]++;
            for (int i = 0; i < 256; i++)
                start[i + 1] += start[i];
            for (const keyed &k : keys)
                spare[start[(k.word[w] >> shift) & 0xff]++] = k;
            keys.swap(spare);
        }
    for (size_t p = 0; p < n; p++)
        list->order[p] = keys[p].record;
}

void parse_neigh_msg(const unsigned char *message, stats_list *list)
{
    nlmsghdr header;
    memcpy(&header, message, sizeof header);
    if (header.nlmsg_len < NLMSG_LENGTH(sizeof(ndmsg))) return;
    ndmsg body;
    memcpy(&body, message + NLMSG_HDRLEN, sizeof body);
    if (body.ndm_family != AF_INET && body.ndm_family != AF_INET6) return;
    auto *row = static_cast<ip_net_phys_entry *>(stats_list_at(list, list->count));
    row->if_index = body.ndm_ifindex;
    row->addr_type = body.ndm_family == AF_INET ? 1 : 2;
    // Without a destination or link-layer address the row keeps what the
    // reused slot held there.
    message_attributes(message, sizeof body, [&](int type, const unsigned char *value, size_t n) {
        if (type == NDA_DST) {
            row->addr.length = body.ndm_family == AF_INET ? 4 : 16;
            memcpy(row->addr.bytes, value, std::min<size_t>(n, row->addr.length));
        } else if (type == NDA_LLADDR) {
            row->phys_addr_len = static_cast<uint32_t>(std::min(n, sizeof row->phys_addr));
            memcpy(row->phys_addr, value, row->phys_addr_len);
        }
    });
    row->router = body.ndm_flags & NTF_ROUTER ? 1 : 0;
    // Reachable, failed, no-ARP and permanent entries all answer reachable.
    row->state = 1;
    for (const auto &s : neighbour_states)
        if (body.ndm_state & s.nud) {
            row->state = s.state;
            break;
        }
    row->type = body.ndm_state & (NUD_NOARP | NUD_PERMANENT) ? 4 : 3;
}

int update_net_phys_list(stats_list *list)
{
    TRACE_ENTER();
    list->count = 0;
    // After an error the rows received so far stay, in arrival order.
    if (rtnl_dump(RTM_GETNEIGH, parse_neigh_msg, list) >= 0) ip_net_phys_sort(list);
    TRACE_EXIT();
    return 0;
}

// ---- ipDefaultRouterTable

void ip_route_set_clock_ticks(long ticks)
{
    clock_ticks = ticks;
}

void parse_route_msg(const unsigned char *message, stats_list *list)
{
    if (clock_ticks < 0) clock_ticks = sysconf(_SC_CLK_TCK);
    nlmsghdr header;
    memcpy(&header, message, sizeof header);
    if (header.nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg))) return;
    rtmsg body;
    memcpy(&body, message + NLMSG_HDRLEN, sizeof body);
    uint32_t type, lifetime;
    if (body.rtm_family == AF_INET)
        type = 1, lifetime = 65535;
    else if (body.rtm_family == AF_INET6)
        type = 2, lifetime = 0; // listed only with an expiry
    else
        return;
    uint8_t gateway[64] = {};
    size_t gateway_size = 0;
    int32_t if_index = 0;
    bool have_if = false;
    message_attributes(message, sizeof body, [&](int attr, const unsigned char *value, size_t n) {
        if (attr == RTA_GATEWAY) {
            gateway_size = std::min(n, sizeof gateway);
            memcpy(gateway, value, gateway_size);
        } else if (attr == RTA_OIF && n >= sizeof if_index) {
            memcpy(&if_index, value, sizeof if_index);
            have_if = true;
        } else if (attr == RTA_CACHEINFO && n >= sizeof(rta_cacheinfo)) {
            rta_cacheinfo info;
            memcpy(&info, value, sizeof info);
            if ((body.rtm_flags & RTM_F_CLONED) || info.rta_expires != 0)
                lifetime = static_cast<uint32_t>(info.rta_expires / clock_ticks);
        }
    });
    if (!have_if || gateway_size == 0 || lifetime == 0) return;
    auto *row = static_cast<ip_def_router_entry *>(stats_list_at(list, list->count));
    row->addr_type = type;
    memcpy(row->addr.bytes, gateway, sizeof row->addr.bytes);
    row->addr.length = type == 1 ? 4 : 16;
    row->if_index = if_index;
    row->lifetime = lifetime;
    row->preference = 0;
}

int update_ip_def_router(stats_list *list)
{
    TRACE_ENTER();
    list->count = 0;
    rtnl_dump(RTM_GETROUTE, parse_route_msg, list);
    stats_list_sort(list);
    TRACE_EXIT();
    return 0;
}
