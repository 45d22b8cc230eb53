// MAAPI connections: connect, close, schema load, attach to and detach from ConfD's transactions.
#include <map>
#include <unistd.h>

#include "confd_lib.h"
#include "confd_maapi.h"
#include "lib_core.h"
#include "maapi_internal.h"
#include "schema.h"

using confd_wire::MaapiOp;
using confd_wire::Op;
using confd_wire::Writer;

namespace libconfd {

namespace {

std::mutex g_socks_mu;
std::map<int, std::shared_ptr<MaapiSocket>> g_socks;

Writer maapi_op(MaapiOp op)
{
    Writer w(Op::Maapi);
    w.u8(static_cast<uint8_t>(op));
    return w;
}

int attach(int sock, int hashed_ns, int usid, int thandle)
{
    logf(CONFD_TRACE, "MAAPI attach(sock=%d, thandle=%d, usid=%d)", sock, thandle, usid);
    Writer w = maapi_op(MaapiOp::Attach);
    w.u32(static_cast<uint32_t>(thandle)).i32(hashed_ns).i32(usid);
    std::string answer;
    return maapi_request(sock, w, answer, "maapi_attach");
}

int detach(int sock, int thandle)
{
    logf(CONFD_TRACE, "MAAPI detach(sock=%d, thandle=%d)", sock, thandle);
    Writer w = maapi_op(MaapiOp::Detach);
    w.u32(static_cast<uint32_t>(thandle));
    std::string answer;
    return maapi_request(sock, w, answer, "maapi_detach");
}

} // namespace

std::shared_ptr<MaapiSocket> maapi_socket(int sock, const char *fn)
{
    std::lock_guard<std::mutex> lock(g_socks_mu);
    auto it = g_socks.find(sock);
    if (it == g_socks.end()) {
        confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s: socket %d is not a connected MAAPI socket", fn,
                       sock);
        return nullptr;
    }
    return it->second;
}

int maapi_request(int sock, const Writer &req, std::string &answer, const char *what)
{
    std::shared_ptr<MaapiSocket> ms = maapi_socket(sock, what);
    if (!ms)
        return CONFD_ERR;
    std::lock_guard<std::mutex> lock(ms->mu);
    return request(ms->fd, req.payload(), answer, what);
}

} // namespace libconfd

using namespace libconfd;

extern "C" {

int maapi_connect(int sock, const struct sockaddr *srv, int srv_sz)
try {
    if (connect_socket(sock, srv, srv_sz) != CONFD_OK)
        return CONFD_ERR;
    Writer hello(Op::Hello);
    hello.u8(static_cast<uint8_t>(confd_wire::ConnKind::Maapi));
    std::string answer;
    if (request(sock, hello.payload(), answer, "maapi_connect") != CONFD_OK)
        return CONFD_ERR;
    auto ms = std::make_shared<MaapiSocket>();
    ms->fd = sock;
    std::lock_guard<std::mutex> lock(g_socks_mu);
    g_socks[sock] = ms;
    logf(CONFD_TRACE, "MAAPI socket %d connected", sock);
    return CONFD_OK;
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int maapi_load_schemas(int sock)
try {
    Writer w = maapi_op(MaapiOp::LoadSchemas);
    std::string answer;
    if (maapi_request(sock, w, answer, "maapi_load_schemas") != CONFD_OK)
        return CONFD_ERR;
    return install_schema_payload(answer);
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int maapi_close(int sock)
try {
    std::shared_ptr<MaapiSocket> ms;
    {
        std::lock_guard<std::mutex> lock(g_socks_mu);
        auto it = g_socks.find(sock);
        if (it == g_socks.end())
            return confd_lib_fail(CONFD_ERR_PROTOUSAGE,
                                  "maapi_close: socket %d is not a connected MAAPI socket", sock);
        ms = it->second;
        g_socks.erase(it);
    }
    // Wait for a request another thread may still run on it.
    std::lock_guard<std::mutex> lock(ms->mu);
    close(sock);
    return CONFD_OK;
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int maapi_attach(int sock, int hashed_ns, struct confd_trans_ctx *ctx)
try {
    if (ctx == nullptr)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "maapi_attach: no transaction context");
    int usid = ctx->uinfo != nullptr ? ctx->uinfo->usid : 0;
    return attach(sock, hashed_ns, usid, ctx->thandle);
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int maapi_attach2(int sock, int hashed_ns, int usid, int thandle)
try {
    return attach(sock, hashed_ns, usid, thandle);
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int maapi_detach(int sock, struct confd_trans_ctx *ctx)
try {
    if (ctx == nullptr)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "maapi_detach: no transaction context");
    return detach(sock, ctx->thandle);
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int maapi_detach2(int sock, int thandle) { return detach(sock, thandle); }

} // extern "C"
