// The link monitor: reads the kernel's routing netlink events and raises linkUp/linkDown.
#include "linkmon.h"

#include "notify.h"
#include "core/sysenv.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <string>
#include <sys/uio.h>
#include <unistd.h>
#include <uci.h>

namespace
{

const char uci_confdir[] = "/etc/config";

// The option of a "network" section that names the kernel device.
bool names_device(const struct uci_option *o, const char *ifname)
{
    // A list, or a value naming several devices, never matches.
    return strcmp(o->e.name, "ifname") == 0 && o->type == UCI_TYPE_STRING &&
           strcmp(o->v.string, ifname) == 0;
}

// Name of the first section with such an option, or null.
const char *find_section(struct uci_package *pkg, const char *ifname)
{
    struct uci_element *se, *oe;
    uci_foreach_element(&pkg->sections, se)
    {
        uci_foreach_element(&uci_to_section(se)->options, oe)
        {
            if (names_device(uci_to_option(oe), ifname)) return se->name;
        }
    }
    return nullptr;
}

} // namespace

int open_netlink(void)
{
    int fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
    if (fd < 0) return fd;
    struct sockaddr_nl addr;
    memset(&addr, 0, sizeof addr);
    addr.nl_family = AF_NETLINK;
    addr.nl_pid = static_cast<__u32>(getpid());
    addr.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
    if (bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) < 0) return -1;
    return fd;
}

int read_netlink(int fd, netlink_handler callback)
{
    char buf[4096];
    struct sockaddr_nl sender;
    struct iovec iov = {buf, sizeof buf};
    struct msghdr hdr;
    memset(&hdr, 0, sizeof hdr);
    hdr.msg_name = &sender;
    hdr.msg_namelen = sizeof sender;
    hdr.msg_iov = &iov;
    hdr.msg_iovlen = 1;

    ssize_t got = recvmsg(fd, &hdr, 0);
    if (got < 0) {
        if (errno == EAGAIN) return 0;
        perror("read_netlink: Error: ");
        return static_cast<int>(got);
    }
    int ret = 0;
    size_t left = static_cast<size_t>(got);
    for (char *at = buf; left >= sizeof(struct nlmsghdr);) {
        auto *msg = reinterpret_cast<struct nlmsghdr *>(at);
        // A truncated or malformed message ends the batch quietly.
        if (msg->nlmsg_len < sizeof(struct nlmsghdr) || msg->nlmsg_len > left) break;
        if (msg->nlmsg_type == NLMSG_DONE) break;
        if (msg->nlmsg_type == NLMSG_ERROR || callback == nullptr) return -1;
        ret = callback(&sender, msg);
        if (ret < 0) return ret;
        size_t step = NLMSG_ALIGN(msg->nlmsg_len);
        if (step >= left) break;
        at += step;
        left -= step;
    }
    return ret;
}

int link_event(struct sockaddr_nl *sender, struct nlmsghdr *msg)
{
    (void)sender;
    if (msg->nlmsg_type < RTM_NEWLINK || msg->nlmsg_type > RTM_DELADDR) return 0;
    if (msg->nlmsg_type == RTM_GETLINK || msg->nlmsg_type == RTM_SETLINK) return 0;
    // Link and address messages both start with the interface index.
    size_t body = msg->nlmsg_type == RTM_NEWLINK || msg->nlmsg_type == RTM_DELLINK
                      ? sizeof(struct ifinfomsg)
                      : sizeof(struct ifaddrmsg);
    if (msg->nlmsg_len < NLMSG_LENGTH(body)) return 0;

    int index;
    unsigned int flags = 0;
    if (msg->nlmsg_type == RTM_NEWLINK || msg->nlmsg_type == RTM_DELLINK) {
        auto *info = static_cast<struct ifinfomsg *>(NLMSG_DATA(msg));
        index = info->ifi_index;
        flags = info->ifi_flags;
    } else {
        index = static_cast<int>(static_cast<struct ifaddrmsg *>(NLMSG_DATA(msg))->ifa_index);
    }
    char name[IF_NAMESIZE + 1] = "";
    if_indextoname(static_cast<unsigned int>(index), name);
    // Removed interfaces and address changes raise nothing; every new-link
    // message does, changed or not.
    if (msg->nlmsg_type != RTM_NEWLINK) return 0;

    char *section = nullptr;
    if (uci_ifname_to_section(name, &section) < 0) return 0;
    int admin = (flags & IFF_UP) ? 1 : 2;
    if (flags & IFF_RUNNING)
        send_link_up(index, admin, section);
    else
        send_link_down(index, admin, section);
    free(section);
    return 0;
}

int uci_ifname_to_section(const char *ifname, char **section_out)
{
    struct uci_context *ctx = uci_alloc_context();
    if (ctx == nullptr) return -1;
    std::string dir = sys_path(uci_confdir);
    if (dir != uci_confdir) uci_set_confdir(ctx, dir.c_str());
    struct uci_package *pkg = nullptr;
    if (uci_load(ctx, "network", &pkg) != UCI_OK) {
        uci_free_context(ctx);
        return -1;
    }
    const char *name = find_section(pkg, ifname);
    char *copy = name != nullptr ? strdup(name) : nullptr;
    uci_unload(ctx, pkg);
    uci_free_context(ctx);
    if (name != nullptr && copy == nullptr) return -1;
    *section_out = copy;
    return 0;
}

void *link_monitor_thread(void *arg)
{
    (void)arg;
    int fd = open_netlink();
    for (;;)
        read_netlink(fd, link_event);
    return nullptr;
}
