// Transaction callbacks and the ConfD helpers shared by all providers.
#include "leisobek.h"
#include "state.h"

#include <arpa/inet.h>
#include <cstdlib>

void check_confd_ok(int result, int line)
{
    if (result == CONFD_OK) return;
    // The file named is the shared header, whichever source made the call;
    // the line tells the call sites apart.
    fprintf(stderr, "%s:%d: error not CONFD_OK: %d : %s \n", "leisobek.h", line, confd_errno,
            confd_lasterr());
    exit(1);
}

int trans_init(struct confd_trans_ctx *tctx)
{
    check_confd_ok(maapi_attach(maapi_sock, 0, tctx), 110);
    confd_trans_set_fd(tctx, worker_sock);
    tctx->t_opaque = calloc(1, sizeof(struct trans_record));
    return CONFD_OK;
}

// Unlinks the node holding mc from the list at *head and frees the node.
static void unlink_cursor(struct cursor_link **head, struct maapi_cursor *mc)
{
    for (struct cursor_link **link = head; *link != nullptr; link = &(*link)->next) {
        if ((*link)->cursor == mc) {
            struct cursor_link *node = *link;
            *link = node->next;
            free(node);
            return;
        }
    }
}

int trans_finish(struct confd_trans_ctx *tctx)
{
    auto *rec = static_cast<struct trans_record *>(tctx->t_opaque);
    if (rec != nullptr) {
        free(rec->buf);
        while (rec->cursors != nullptr) {
            struct maapi_cursor *mc = rec->cursors->cursor;
            maapi_destroy_cursor(mc);
            unlink_cursor(&rec->cursors, mc);
            free(mc);
        }
        free(rec);
        tctx->t_opaque = nullptr;
    }
    check_confd_ok(maapi_detach(maapi_sock, tctx), 129);
    return CONFD_OK;
}

int start_system_trans(int sock)
{
    struct confd_ip src = {};
    src.af = AF_INET;
    inet_pton(AF_INET, "0.0.0.0", &src.ip.v4);
    check_confd_ok(maapi_start_user_session3(sock, nullptr, "system", nullptr, 0, &src, 0,
                                             CONFD_PROTO_TCP, nullptr, nullptr, nullptr,
                                             "leisobek.c:86"),
                   86);
    return maapi_start_trans_flags2(sock, CONFD_RUNNING, CONFD_READ, 0, 0, nullptr, nullptr,
                                    nullptr, "leisobek.c:87");
}

int xpath_eval(int thandle, const char *expr, const char *path, char **result_out)
{
    char *res = nullptr;
    // The path is a plain keypath, not a format: pass it through "%s" so a
    // '%' in a key cannot be taken for a format escape.
    int ret = path != nullptr
                  ? maapi_xpath_eval_expr(maapi_sock, thandle, expr, &res, nullptr, "%s", path)
                  : maapi_xpath_eval_expr(maapi_sock, thandle, expr, &res, nullptr, nullptr);
    if (res != nullptr) *result_out = res;
    return ret;
}

int ignore_set_elem(struct confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *)
{
    return CONFD_OK;
}

int ignore_create(struct confd_trans_ctx *, confd_hkeypath_t *)
{
    return CONFD_OK;
}

int ignore_remove(struct confd_trans_ctx *, confd_hkeypath_t *)
{
    return CONFD_OK;
}
