// The link monitor thread: rtnetlink link events raised as linkUp/linkDown for UCI-configured
// interfaces.
#ifndef LEISOBEK_NOTIFY_LINKMON_H
#define LEISOBEK_NOTIFY_LINKMON_H

#include <linux/netlink.h>
#include <sys/socket.h>

// A handler of one netlink message; a negative result stops the reading.
typedef int (*netlink_handler)(struct sockaddr_nl *sender, struct nlmsghdr *msg);

// Thread body, started by the interface-state provider with pthread_create
// and never stopped: opens the netlink socket and reads link events forever.
// arg is not used. A socket that could not be opened is not checked: every
// read then fails and says so.
void *link_monitor_thread(void *arg);

// A routing netlink socket bound to this process's id and the link, IPv4
// address and IPv6 address groups. Returns the socket, the negative socket()
// result, or -1 when bind fails (the socket is then left open).
int open_netlink(void);

// One recvmsg on fd; every message up to NLMSG_DONE goes to callback.
// Returns the last callback result (0 when none ran; a negative one at
// once), 0 when the read would block, the negative read result after
// printing the error, or -1 on NLMSG_ERROR or without a callback.
int read_netlink(int fd, netlink_handler callback);

// RTM_NEWLINK about an interface UCI's "network" package knows: linkUp when
// it is running, linkDown otherwise, with admin status 1 when it is up, else
// 2, and the section name (null when no section names the interface).
// Every other message only looks its interface up, or is ignored. Returns 0.
int link_event(struct sockaddr_nl *sender, struct nlmsghdr *msg);

// Finds the "network" section whose option "ifname" is exactly ifname and
// stores a heap copy of its name in *section_out (the caller frees it), or
// null when none matches. Returns 0, or -1 when UCI cannot be read or memory
// runs out.
int uci_ifname_to_section(const char *ifname, char **section_out);

#endif
