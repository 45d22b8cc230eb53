// MAAPI socket table and request/answer helper shared by the MAAPI sources (internal interface).
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include <cstdarg>

#include "confd_lib.h"
#include "wire.h"

// va_list forms of the XPath calls. The router's 6.x headers do not declare
// them, so they stay internal here.
extern "C" {
int maapi_vxpath_eval_expr(int sock, int thandle, const char *expr, char **res,
                           void (*trace)(char *), const char *fmtpath, va_list args);
int maapi_vxpath_eval(int sock, int thandle, const char *expr,
                      int (*result)(confd_hkeypath_t *kp, confd_value_t *v, void *state),
                      void (*trace)(char *), void *initstate, const char *fmtpath, va_list args);
}

namespace libconfd {

// One connected MAAPI socket. Requests on it are serialised by mu, so two
// threads sharing a socket cannot take each other's answers; different
// sockets run in parallel.
struct MaapiSocket {
    int fd = -1;
    std::mutex mu;
};

// The connected MAAPI socket sock, or nullptr (confd_errno set to
// CONFD_ERR_PROTOUSAGE, lasterr naming fn) when maapi_connect() did not make it.
std::shared_ptr<MaapiSocket> maapi_socket(int sock, const char *fn);

// Sends a Maapi request (a Writer started with Op::Maapi and the MaapiOp)
// on sock and waits for the answer under the socket's lock. CONFD_OK with
// the answer in `answer` (op byte first), or CONFD_ERR with confd_errno and
// the last-error text from the server or the I/O failure.
int maapi_request(int sock, const confd_wire::Writer &req, std::string &answer, const char *what);

} // namespace libconfd
