// Fuzzes the client library's end of the IPC: the input is the byte stream the server sends. It
// is read by confd_fd_ready on a daemon's control and worker sockets (requests to callbacks that
// answer them), by confd_read_notification on an event socket, and as the answers to rounds of
// MAAPI requests on a connected MAAPI socket.
#include "fuzz_util.h"

#include "confd_inproc.h"
#include "dp_internal.h"
#include "wire.h"

#include "confd_events.h"
#include "confd_maapi.h"

#include <sys/un.h>
#include <thread>

namespace
{

int worker_fd = -1;

int init(struct confd_trans_ctx *tctx)
{
    confd_trans_set_fd(tctx, worker_fd);
    return CONFD_OK;
}
int finish(struct confd_trans_ctx *)
{
    return CONFD_OK;
}
int get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    char text[512];
    confd_pp_kpath(text, sizeof text, kp);
    confd_value_t v;
    CONFD_SET_UINT32(&v, static_cast<uint32_t>(kp->len));
    return confd_data_reply_value(tctx, &v);
}
// A list of a few entries whose walk (several rows a request, too) meets every kind of answer: a
// cookie, no cookie (find_next follows), a failure, a delayed answer and the end.
int get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)
{
    switch (next) {
    case -1:
    case 1:
        return confd_data_reply_next_key(tctx, &kp->v[0][0], 1, next + 2);
    case 3:
        return confd_data_reply_next_key(tctx, &kp->v[0][0], 1, -1);
    case 4:
        confd_trans_seterr(tctx, "entry %ld unreadable", next);
        return CONFD_ERR;
    case 5:
        return CONFD_DELAYED_RESPONSE;
    default:
        return confd_data_reply_next_key(tctx, nullptr, -1, -1);
    }
}
int set_elem(struct confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *)
{
    return CONFD_OK;
}

// Reads requests from fd until the stream ends or breaks.
void serve(struct confd_daemon_ctx *dx, int fd)
{
    for (int i = 0; i < 1000; i++)
        if (confd_fd_ready(dx, fd) != CONFD_OK &&
            (confd_errno == CONFD_ERR_EOF || confd_errno == CONFD_ERR_OS))
            return;
}

// The server of one MAAPI connection: answers its hello, sends the input and end-of-file, then
// takes whatever the client sends until it closes.
void maapi_peer(int listener, const uint8_t *data, size_t size)
{
    int fd = accept(listener, nullptr, nullptr);
    std::string hello;
    if (confd_wire::recv_frame(fd, hello) == 1)
        confd_wire::send_frame(fd, confd_wire::Writer(confd_wire::Op::Ok).payload());
    for (size_t off = 0; off < size;) {
        ssize_t n = write(fd, data + off, size - off);
        if (n <= 0) break;
        off += static_cast<size_t>(n);
    }
    shutdown(fd, SHUT_WR);
    for (char sink[4096]; read(fd, sink, sizeof sink) > 0;) {
    }
    close(fd);
}

int each_node(confd_hkeypath_t *kp, confd_value_t *, void *)
{
    char text[512];
    confd_pp_kpath(text, sizeof text, kp);
    return ITER_CONTINUE;
}
enum maapi_iter_ret each_change(confd_hkeypath_t *kp, enum maapi_iter_op, confd_value_t *,
                                confd_value_t *, void *)
{
    each_node(kp, nullptr, nullptr);
    return ITER_RECURSE;
}

void maapi_rounds(int sock)
{
    for (int round = 0; round < 3; round++) {
        int th = maapi_start_trans(sock, CONFD_RUNNING, CONFD_READ);
        confd_value_t v;
        if (maapi_get_elem(sock, th, &v, "/system/hostname") == CONFD_OK) confd_free_value(&v);
        maapi_exists(sock, th, "/system");
        maapi_num_instances(sock, th, "/interfaces/interface");
        struct maapi_cursor mc;
        if (maapi_init_cursor(sock, th, &mc, "/interfaces/interface") == CONFD_OK) {
            for (int i = 0; i < 3 && maapi_get_next(&mc) == CONFD_OK && mc.n > 0; i++)
                maapi_find_next(&mc, CONFD_FIND_NEXT, mc.keys, mc.n);
            maapi_destroy_cursor(&mc);
        }
        char *text = nullptr;
        if (maapi_xpath_eval_expr(sock, th, "/system/hostname", &text, nullptr, nullptr) == CONFD_OK)
            free(text);
        maapi_xpath_eval(sock, th, "/interfaces/interface", each_node, nullptr, nullptr, nullptr);
        maapi_diff_iterate(sock, th, each_change, 0, nullptr);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static struct confd_trans_cbs trans = {};
    static struct confd_data_cbs cbs = {};
    static int listener = -1;
    static sockaddr_un address = {};
    if (listener < 0) {
        confd_init("fuzz", nullptr, CONFD_SILENT);
        trans.init = init;
        trans.finish = finish;
        snprintf(cbs.callpoint, sizeof cbs.callpoint, "fuzz_cp");
        cbs.get_elem = get_elem;
        cbs.get_next = get_next;
        cbs.set_elem = set_elem;
        address.sun_family = AF_UNIX;
        snprintf(address.sun_path + 1, sizeof address.sun_path - 1, "leisobek-fuzz-%d", getpid());
        listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
            listen(listener, 4) != 0)
            abort();
    }

    // A daemon whose sockets the server has already accepted.
    struct confd_daemon_ctx *dx = confd_init_daemon("fuzz");
    confd_register_trans_cb(dx, &trans);
    confd_register_data_cb(dx, &cbs);
    confd_register_done(dx);
    fuzz::socket_feed control(data, size), worker(data, size);
    libconfd::DaemonState *st = libconfd::daemon_state(dx);
    st->ctl_fd = control.near;
    st->workers[worker.near] = 1;
    worker_fd = worker.near;
    serve(dx, control.near);
    serve(dx, worker.near);
    confd_release_daemon(dx);

    fuzz::socket_feed events(data, size);
    for (int i = 0; i < 1000; i++) {
        struct confd_notification n;
        int rc = confd_read_notification(events.near, &n);
        if (rc == CONFD_OK && n.type == CONFD_NOTIF_COMMIT_DIFF)
            confd_diff_notification_done(events.near, n.n.commit_diff.tctx);
        if (rc != CONFD_OK && (confd_errno == CONFD_ERR_EOF || confd_errno == CONFD_ERR_OS)) break;
    }

    std::thread peer(maapi_peer, listener, data, size);
    int sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (maapi_connect(sock, reinterpret_cast<sockaddr *>(&address), sizeof address) == CONFD_OK) {
        maapi_rounds(sock);
        maapi_close(sock);
    } else {
        close(sock);
    }
    peer.join();
    return 0;
}
