// The audit listener thread "AuditSNMP": failed SNMP authentications and the audit line of each commit.
#include "audit.h"

#include "notify.h"
#include "core/state.h"
#include "core/sysenv.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

// Attribute numbers as ConfD hands them to a diff iterator.
#ifndef CONFD_ATTR_TAGS
#define CONFD_ATTR_TAGS 0x80000000
#endif
#ifndef CONFD_ATTR_ANNOTATION
#define CONFD_ATTR_ANNOTATION 0x80000001
#endif
#ifndef CONFD_ATTR_INACTIVE
#define CONFD_ATTR_INACTIVE 0
#endif

namespace
{

// The listener's own connection to ConfD, 127.0.0.1:4565.
struct sockaddr_in audit_addr;
int audit_notif_sock = -1;

// "<asctime> user:<user> " of the last commit.
char audit_line[512];

// The audit message ConfD logs for an SNMP request that failed authentication.
const char auth_failed_symbol[] = "SNMP_AUTHENTICATION_FAILED";

// Size of each of the diff printer's two text buffers.
constexpr int print_buffer_size = 8192;

const struct sockaddr *addr()
{
    return reinterpret_cast<const struct sockaddr *>(&audit_addr);
}

struct file_closer {
    void operator()(FILE *f) const { fclose(f); }
};

// Closes the per-commit MAAPI socket when the commit is handled; the
// transaction is not detached, ConfD drops the attachment with the socket.
struct socket_closer {
    int fd;
    ~socket_closer() { close(fd); }
};

// Copies at most 49 characters of the symbol of log number logno into a
// zeroed 50-byte buffer and tells whether it names a failed SNMP
// authentication. Log numbers move between ConfD releases, so the symbol's
// name decides, never its number.
bool is_auth_failure(int logno)
{
    char symbol[50];
    memset(symbol, 0, sizeof symbol);
    bool known = logno >= 0;
#ifdef CONFD_MAXLOGSYMS
    known = known && logno < CONFD_MAXLOGSYMS;
#endif
    const char *name = known ? confd_log_symbols[logno] : nullptr;
    if (name != nullptr) strncpy(symbol, name, sizeof symbol - 1);
    return strstr(symbol, auth_failed_symbol) != nullptr;
}

// The local time as asctime writes it, without its newline.
void local_time_text(char *text, size_t size)
{
    time_t now = time(nullptr);
    struct tm parts;
    char buf[64] = {};
    if (localtime_r(&now, &parts) != nullptr && asctime_r(&parts, buf) != nullptr)
        buf[strcspn(buf, "\n")] = '\0';
    snprintf(text, size, "%s", buf);
}

void handle_commit_diff(int notif_sock, struct confd_commit_diff_notification *diff)
{
    char when[64];
    local_time_text(when, sizeof when);
    snprintf(audit_line, sizeof audit_line, "%s user:%s ", when, diff->uinfo.username);

    int msock = socket(PF_INET, SOCK_STREAM, 0);
    if (msock < 0) confd_fatal("Failed to open socket\n");
    {
        socket_closer closer{msock};
        if (maapi_connect(msock, addr(), sizeof audit_addr) < 0)
            confd_fatal("Failed to confd_connect() to confd \n");
        // Neither result is looked at: the commit is answered whatever the
        // iteration made of it.
        maapi_attach(msock, -1, diff->tctx);
        maapi_diff_iterate(msock, diff->tctx->thandle, diff_printer, ITER_WANT_ATTR, nullptr);
        // The commit waits for this answer; it also releases the context.
        confd_diff_notification_done(notif_sock, diff->tctx);
    }
    write_audit_last_log(audit_line);
}

// A keypath with its last keys (row 0) replaced by the C_NOEXISTS-ended key
// array keys, printed into buf. The copy is freed again.
void print_moved_keypath(char *buf, int size, const confd_hkeypath_t *kp, const confd_value_t *keys)
{
    confd_hkeypath_t *moved = confd_hkeypath_dup(kp);
    if (moved == nullptr) return;
    for (int i = 0; i < MAXKEYLEN && keys[i].type != C_NOEXISTS; i++) {
        confd_free_value(&moved->v[0][i]);
        confd_value_dup_to(&keys[i], &moved->v[0][i]);
    }
    confd_pp_kpath(buf, size, moved);
    confd_free_hkeypath(moved);
}

// "NAME", or "NAME -> value" when the attribute was given a value.
void print_attribute(char *buf, int size, confd_value_t *attr)
{
    const char *name = attr_str(&attr[0]);
    if (name == nullptr) name = "";
    if (attr[1].type == C_NOEXISTS) {
        snprintf(buf, size, "%s", name);
        return;
    }
    int used = snprintf(buf, size, "%s -> ", name);
    if (used >= 0 && used < size) confd_pp_value(buf + used, size - used, &attr[1]);
}

// A leaf's new value as text of the leaf's own schema type.
void print_value(char *buf, int size, confd_hkeypath_t *kp, const confd_value_t *value)
{
    struct confd_cs_node *node = confd_find_cs_node(kp, kp->len);
    if (node != nullptr && node->info.type != nullptr)
        confd_val2str(node->info.type, value, buf, size);
}

} // namespace

const char *attr_str(confd_value_t *v)
{
    switch (CONFD_GET_UINT32(v)) {
    case CONFD_ATTR_TAGS:
        return "TAGS";
    case CONFD_ATTR_ANNOTATION:
        return "ANNOTATIONS";
    case CONFD_ATTR_INACTIVE:
        return "INACTIVE";
    default:
        return nullptr;
    }
}

enum maapi_iter_ret diff_printer(confd_hkeypath_t *kp, enum maapi_iter_op op, confd_value_t *oldv,
                                 confd_value_t *newv, void *state)
{
    (void)oldv; // always null from MAAPI
    (void)state;
    // The change is formatted as the router's developers once logged it;
    // nothing reads the text any more, but every change still passes here.
    char path[print_buffer_size];
    char detail[print_buffer_size];
    path[0] = '\0';
    detail[0] = '\0';
    confd_pp_kpath(path, sizeof path, kp);
    switch (op) {
    case MOP_MOVED_AFTER:
        // No key set: moved to the front of the list.
        if (newv != nullptr) print_moved_keypath(detail, sizeof detail, kp, newv);
        break;
    case MOP_ATTR_SET:
        if (newv != nullptr) print_attribute(detail, sizeof detail, newv);
        break;
    case MOP_VALUE_SET:
        if (newv != nullptr) print_value(detail, sizeof detail, kp, newv);
        break;
    default:
        break;
    }
    return ITER_RECURSE;
}

void write_audit_last_log(const char *text)
{
    if (!sys_exists(AUDIT_LAST_LOG)) return;
    std::unique_ptr<FILE, file_closer> log(sys_fopen(AUDIT_LAST_LOG, "w"));
    if (!log) return;
    fprintf(log.get(), "%s\n", text);
}

void audit_handle_notification(int notif_sock, struct confd_notification *n)
{
    switch (n->type) {
    case CONFD_NOTIF_AUDIT:
        if (is_auth_failure(n->n.audit.logno)) send_auth_failure();
        break;
    case CONFD_NOTIF_COMMIT_DIFF:
        handle_commit_diff(notif_sock, &n->n.commit_diff);
        break;
    default:
        break;
    }
}

void *audit_thread(void *arg)
{
    (void)arg;
    confd_init("AuditSNMP", stderr, static_cast<enum confd_debug_level>(debug_level));

    audit_notif_sock = socket(PF_INET, SOCK_STREAM, 0);
    if (audit_notif_sock < 0) confd_fatal("Failed to open notsocket\n");
    memset(&audit_addr, 0, sizeof audit_addr);
    audit_addr.sin_family = AF_INET;
    inet_pton(AF_INET, "127.0.0.1", &audit_addr.sin_addr);
    audit_addr.sin_port = htons(4565);
    if (confd_load_schemas(addr(), sizeof audit_addr) != CONFD_OK)
        confd_fatal("Failed to load schemas from confd\n");
    if (confd_notifications_connect(audit_notif_sock, addr(), sizeof audit_addr,
                                    CONFD_NOTIF_AUDIT | CONFD_NOTIF_COMMIT_DIFF) < 0)
        confd_fatal("Failed to confd_notifications_connect() to confd \n");

    for (;;) {
        struct pollfd set;
        set.fd = audit_notif_sock;
        set.events = POLLIN;
        set.revents = 0;
        if (poll(&set, 1, -1) < 0) {
            perror("Poll failed:");
            continue;
        }
        if (!(set.revents & POLLIN)) continue;
        struct confd_notification n;
        if (confd_read_notification(audit_notif_sock, &n) != CONFD_OK) break;
        audit_handle_notification(audit_notif_sock, &n);
        confd_free_notification(&n);
    }
    // ConfD closed the event socket (or sent what cannot be read): nothing
    // restarts the subscription, so the daemon ends.
    exit(1);
}
