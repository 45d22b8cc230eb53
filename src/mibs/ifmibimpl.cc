// Interface configuration provider: "if-snmp" and "if-hook" over a map of the configured
// interfaces.
#include "ifmibimpl.h"

#include "core/dlist.h"
#include "core/leisobek.h"

#include "IF-MIB.h"
#include "router-interfaces.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{

// One configured interface.
struct if_map_entry {
    int32_t if_index;
    char *name;
    char *description; // null when unset
    uint32_t type;     // identity tag of the configured interface type
    int enabled;
};

// Ascending by ifIndex; an entry with an equal ifIndex sits before the older one.
struct dlist *if_map = nullptr;
int if_map_maapi_sock = -1;

// The "enabled" leaf is looked for under the tag value 1, not its hash, as
// the router's provider does.
const uint32_t enabled_tag = 1;

void free_entry(if_map_entry *e)
{
    free(e->name);
    free(e->description);
    free(e);
}

void clear_map()
{
    while (!dlist_is_empty(if_map)) {
        free_entry(static_cast<if_map_entry *>(dlist_data(if_map->next)));
        dlist_remove(if_map->next);
    }
}

// Inserts after the last entry whose ifIndex is smaller, or at the front.
void insert_sorted(if_map_entry *e)
{
    struct dlist *at = if_map->prev;
    while (at != if_map && static_cast<if_map_entry *>(dlist_data(at))->if_index >= e->if_index)
        at = at->prev;
    dlist_insert_after(at, e);
}

// The text of a leaf that maapi_get_buf_elem read (ret its result) as a
// NUL-terminated heap string, or null; the library's buffer is freed.
char *take_text(int ret, unsigned char *buf, int size)
{
    char *text = ret == CONFD_OK && buf != nullptr
                     ? strndup(reinterpret_cast<char *>(buf), static_cast<size_t>(size))
                     : nullptr;
    free(buf);
    return text;
}

void load_map()
{
    int sock = if_map_maapi_sock;
    clear_map();
    int th = start_system_trans(sock);
    check_confd_ok(maapi_set_namespace(sock, th, if__ns), 208);
    struct maapi_cursor mc;
    check_confd_ok(maapi_init_cursor(sock, th, &mc, "/interfaces/interface"), 210);
    check_confd_ok(maapi_get_next(&mc), 211);
    while (mc.n != 0) {
        auto *e = static_cast<if_map_entry *>(calloc(1, sizeof(if_map_entry)));
        if (e == nullptr) return;
        check_confd_ok(maapi_get_int32_elem(sock, th, &e->if_index,
                                            "/interfaces/interface{%x}/ifIndex", &mc.keys[0]),
                       222);
        unsigned char *buf = nullptr;
        int size = 0;
        int ret = maapi_get_buf_elem(sock, th, &buf, &size, "/interfaces/interface{%x}/name",
                                     &mc.keys[0]);
        check_confd_ok(ret, 224);
        e->name = take_text(ret, buf, size);
        buf = nullptr;
        ret = maapi_get_buf_elem(sock, th, &buf, &size, "/interfaces/interface{%x}/description",
                                 &mc.keys[0]);
        e->description = take_text(ret, buf, size);
        struct confd_identityref type;
        check_confd_ok(maapi_get_identityref_elem(sock, th, &type, "/interfaces/interface{%x}/type",
                                                  &mc.keys[0]),
                       236);
        e->type = type.id;
        check_confd_ok(maapi_get_bool_elem(sock, th, &e->enabled,
                                           "/interfaces/interface{%x}/enabled", &mc.keys[0]),
                       240);
        insert_sorted(e);
        check_confd_ok(maapi_get_next(&mc), 242);
    }
    maapi_destroy_cursor(&mc);
    maapi_finish_trans(sock, th);
    maapi_end_user_session(sock);
}

if_map_entry *find_by_index(int32_t if_index)
{
    for (struct dlist *n = if_map->next; n != if_map; n = n->next) {
        auto *e = static_cast<if_map_entry *>(dlist_data(n));
        if (e->if_index == if_index) return e;
    }
    return nullptr;
}

int not_found(struct confd_trans_ctx *tctx)
{
    confd_data_reply_not_found(tctx);
    return CONFD_OK;
}

int not_found_path(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    char path[512];
    confd_pp_kpath(path, sizeof path, kp);
    fprintf(stderr, "%s\n", path);
    return not_found(tctx);
}

int if_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    TRACE_ENTER();
    if (kp->v[0][0].type != C_XMLTAG) return not_found_path(tctx, kp);
    uint32_t leaf = kp->v[0][0].val.xmltag.tag;
    confd_value_t *key = &kp->v[1][0];
    int32_t if_index = CONFD_GET_INT32(key);
    if_map_entry *e = find_by_index(if_index);
    confd_value_t v;
    if (leaf == IF_MIB_ifDescr) {
        if (e == nullptr) {
            fprintf(stderr, "Could not get map ifDesc %d\n", if_index);
            return not_found(tctx);
        }
        CONFD_SET_STR(&v, e->description);
    } else if (leaf == IF_MIB_ifName) {
        if (e == nullptr) {
            fprintf(stderr, "Could not ifName %d\n", if_index);
            return not_found(tctx);
        }
        CONFD_SET_STR(&v, e->name);
    } else if (leaf == IF_MIB_ifIndex) {
        if (e == nullptr) {
            fprintf(stderr, "Could not map ifIndex %d\n", if_index);
            return not_found(tctx);
        }
        CONFD_SET_INT32(&v, CONFD_GET_INT32(key));
    } else if (leaf == enabled_tag) {
        if (e == nullptr) {
            fprintf(stderr, "Could not map ifEnabled %d\n", if_index);
            return not_found(tctx);
        }
        CONFD_SET_BOOL(&v, e->enabled);
    } else {
        return not_found_path(tctx, kp);
    }
    confd_data_reply_value(tctx, &v);
    TRACE_EXIT();
    return CONFD_OK;
}

// Walks the map in ifIndex order; the cookie is the list node of the entry
// just handed out.
int if_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)
{
    TRACE_ENTER();
    struct dlist *node = nullptr;
    if (kp->v[0][0].type == C_XMLTAG && kp->v[0][0].val.xmltag.tag == if_interface)
        node = next == -1 ? if_map->next : reinterpret_cast<struct dlist *>(next)->next;
    if (node == nullptr || node == if_map) {
        confd_data_reply_next_key(tctx, nullptr, -1, -1);
        return CONFD_OK;
    }
    confd_value_t key;
    CONFD_SET_INT32(&key, static_cast<if_map_entry *>(dlist_data(node))->if_index);
    confd_data_reply_next_key(tctx, &key, 1, reinterpret_cast<long>(node));
    TRACE_EXIT();
    return CONFD_OK;
}

int if_hook_set_elem(struct confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *)
{
    return CONFD_OK;
}

// A new interface gets the ifIndex after the highest one (1 for the first),
// written into the configuration, and joins the map under its name.
int if_hook_create(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    TRACE_ENTER();
    if (tctx->dbname != CONFD_RUNNING) return CONFD_OK;
    int32_t if_index = dlist_is_empty(if_map)
                           ? 1
                           : static_cast<if_map_entry *>(dlist_data(if_map->prev))->if_index + 1;
    confd_value_t v;
    CONFD_SET_INT32(&v, if_index);
    check_confd_ok(maapi_set_elem(if_map_maapi_sock, tctx->thandle, &v, "%h/ifIndex", kp), 149);
    auto *e = static_cast<if_map_entry *>(calloc(1, sizeof(if_map_entry)));
    if (e == nullptr) return -1;
    e->if_index = if_index;
    unsigned char *buf = nullptr;
    int size = 0;
    int ret = maapi_get_buf_elem(if_map_maapi_sock, tctx->thandle, &buf, &size, "%h/name", kp);
    check_confd_ok(ret, 160);
    e->name = take_text(ret, buf, size);
    insert_sorted(e);
    TRACE_EXIT();
    return CONFD_OK;
}

// A removed interface leaves the map (matched by its exact name).
int if_hook_remove(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    TRACE_ENTER();
    confd_value_t *key = &kp->v[0][0];
    if (tctx->dbname != CONFD_RUNNING || key->type != C_BUF || kp->len < 2 ||
        kp->v[1][0].type != C_XMLTAG || kp->v[1][0].val.xmltag.tag != if_interface)
        return CONFD_OK;
    const char *name = reinterpret_cast<const char *>(CONFD_GET_BUFPTR(key));
    size_t size = CONFD_GET_BUFSIZE(key);
    for (struct dlist *n = if_map->next; n != if_map; n = n->next) {
        auto *e = static_cast<if_map_entry *>(dlist_data(n));
        if (strlen(e->name) == size && memcmp(e->name, name, size) == 0) {
            free_entry(e);
            dlist_remove(n);
            break;
        }
    }
    TRACE_EXIT();
    return CONFD_OK;
}

} // namespace

int register_if_config(struct confd_daemon_ctx *dctx, int msock)
{
    TRACE_ENTER();
    if_map_maapi_sock = msock;
    if (if_map == nullptr) if_map = dlist_new();
    load_map();

    struct confd_data_cbs hook;
    memset(&hook, 0, sizeof hook);
    snprintf(hook.callpoint, sizeof hook.callpoint, "%s", "if-hook");
    hook.set_elem = if_hook_set_elem;
    hook.create = if_hook_create;
    hook.remove = if_hook_remove;
    if (confd_register_data_cb(dctx, &hook) == CONFD_ERR)
        confd_fatal("Failed to register hook cb \n");

    struct confd_data_cbs transform;
    memset(&transform, 0, sizeof transform);
    snprintf(transform.callpoint, sizeof transform.callpoint, "%s", "if-snmp");
    transform.get_elem = if_get_elem;
    transform.get_next = if_get_next;
    if (confd_register_data_cb(dctx, &transform) == CONFD_ERR)
        confd_fatal("Failed to register transform cb \n");
    TRACE_EXIT();
    return 0;
}
