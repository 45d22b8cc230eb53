// The MAAPI requests of one connection: user sessions, transactions, reads, writes, cursors, XPath, diffs.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "datastore.h"
#include "registry.h"
#include "schema.h"
#include "wire.h"

namespace emu
{

class MaapiService
{
  public:
    // diff_timeout_ms bounds how long an apply waits for the commit-diff subscribers.
    MaapiService(Registry &reg, Datastore &ds, const Schema &schema, ConnPtr conn,
                 int diff_timeout_ms);
    // Finishes the transactions started on the connection and still open.
    ~MaapiService();
    MaapiService(const MaapiService &) = delete;
    MaapiService &operator=(const MaapiService &) = delete;

    // Answers one request whose MaapiOp byte op has been read from r: an Ok frame with the
    // operation's fields, or an Err frame with a CONFD_ERR_* number and a message.
    std::string handle(uint8_t op, confd_wire::Reader &r);

    // Name of a MAAPI operation as `fail OP` takes it ("attach", "xpath_eval", ...); null when the
    // number is not an operation.
    static const char *op_name(uint8_t op);

  private:
    // 0 when the connection may use transaction th (started here or attached), else the error.
    int access(uint32_t th, std::string &err);
    // The path with the namespace set for th put in front of an unprefixed top-level name.
    std::string in_ns(uint32_t th, const std::string &path) const;
    void finish(uint32_t th);

    Registry &reg_;
    Datastore &ds_;
    const Schema &schema_;
    const ConnPtr conn_;
    const int diff_timeout_ms_;
    std::map<int32_t, UserInfo> sessions_; // user sessions started here, by usid
    int32_t current_ = 0;                  // the socket's current session, 0 = none
    std::map<uint32_t, int32_t> own_;      // transactions started here -> their session
    // Most transactions one MAAPI socket may hold open (see Registry::kMaxOpenTrans).
    static constexpr size_t kMaxOwnTrans = 64;
    std::map<uint32_t, uint32_t> ns_;      // namespace set for a transaction on this socket
};

} // namespace emu
