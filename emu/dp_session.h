// Transactions that confd-emu runs towards data-provider daemons for one management request.
//
// A request may touch nodes of several callpoints; each daemon involved gets its own transaction,
// opened on first use (TransInit on its control socket, data callbacks on the worker it names) and
// finished when the session ends.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "registry.h"
#include "schema.h"
#include "wire.h"

namespace emu
{

// A daemon's answer to a data callback.
struct DpReply {
    confd_wire::ReplyKind kind = confd_wire::ReplyKind::Done;
    confd_wire::Value value;               // Value
    std::vector<confd_wire::Value> values; // NextKey keys, ValueArray
    int64_t next = -1;                     // NextKey cookie
    int32_t result = 0, errcode = 0;       // Error
    std::string message;                   // Error
    std::vector<DpReply> rows;             // NextRows: NextKey answers, maybe a NextEnd last
};

class DpSession
{
  public:
    // mode is CONFD_READ or CONFD_READ_WRITE; context is the user session context ("cli", "snmp");
    // user the name the daemons see in the transaction's user info.
    DpSession(Registry &reg, const Schema &schema, int mode, std::string context,
              std::string user = "admin");
    // Finishes every transaction still open.
    ~DpSession();
    DpSession(const DpSession &) = delete;
    DpSession &operator=(const DpSession &) = delete;

    // One open transaction towards one daemon.
    struct Txn {
        Route route;
        uint32_t thandle = 0;
        ConnPtr worker;
        bool dead = false;          // daemon closed or timed out: no further requests
        bool write_started = false; // abort needed when the write fails
    };

    // The transaction towards the daemon serving node (opened now if needed). A set hook serves
    // writes only (reads of hooked data come from the stored configuration), so it counts only
    // when write is true. Null with a message in err when no daemon serves the node or the
    // transaction could not be opened.
    Txn *txn_for(const SchemaNode *node, std::string &err, bool write = false);
    // Runs a transaction callback (trans_lock, write_start, prepare, commit, abort, ...) in txn.
    // False with a message when the daemon failed it or did not answer.
    bool trans_call(Txn &txn, confd_wire::TransCb cb, std::string &err);
    // Runs data callback cb for the node at hkeypath kp; extra appends the per-callback fields (the
    // get_next cookie, the set_elem value, ...). False with a message when the request got no
    // usable answer; a callback error comes back as true with kind Error.
    bool data_call(Txn &txn, const SchemaNode *node, confd_wire::DataCb cb,
                   const confd_wire::KeyPath &kp,
                   const std::function<void(confd_wire::Writer &)> &extra, DpReply &out,
                   std::string &err);
    // get_elem of leaf at every keypath of kps in one batch: all requests are sent before the
    // first answer is awaited. out gets one reply per keypath; false with a message when any
    // request got no usable answer.
    bool get_elems(Txn &txn, const SchemaNode *leaf, const std::vector<confd_wire::KeyPath> &kps,
                   std::vector<DpReply> &out, std::string &err);
    // Finishes (trans_finish) every open transaction; errors are only logged.
    void finish_all();
    // The user session the transactions run in.
    int32_t usid() const { return usid_; }
    // A daemon of one of the transactions is gone: the session is of no further use.
    bool any_dead() const
    {
        for (const auto &t : txns_)
            if (t.second.dead) return true;
        return false;
    }

  private:
    // Sends a request carrying rid and decodes the Reply. what names the request in messages.
    bool request(Txn &txn, const ConnPtr &conn, uint32_t rid, const std::string &payload,
                 const char *what, DpReply &out, std::string &err);
    // True when txn's daemon registered callback cb for the callpoint serving node (cp gets its
    // name); false with a message otherwise.
    bool served(Txn &txn, const SchemaNode *node, confd_wire::DataCb cb, std::string &cp,
                std::string &err);
    // False with a message when txn's daemon is gone.
    bool usable(Txn &txn, const ConnPtr &conn, std::string &err);
    // False with a message (and the daemon treated as dead where it timed out) unless the request
    // was answered.
    bool settled(Txn &txn, CallStatus status, const char *what, std::string &err);
    // Reads a Reply frame into out.
    bool decode(Txn &txn, const std::string &reply, const char *what, DpReply &out,
                std::string &err);
    void finish(Txn &txn);

    Registry &reg_;
    const Schema &schema_;
    const int mode_;
    const std::string context_;
    const std::string user_;
    std::map<uint32_t, Txn> txns_; // daemon id -> transaction
    int32_t usid_;
};

// Name of a data callback as in struct confd_data_cbs ("get_elem"), for messages.
const char *data_cb_name(confd_wire::DataCb cb);
// Name of a transaction callback as in struct confd_trans_cbs ("trans_lock").
const char *trans_cb_name(confd_wire::TransCb cb);

} // namespace emu
