// Conversion between the API's confd_value_t / confd_hkeypath_t and the frame codec's Value / KeyPath.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "confd_lib.h"
#include "wire.h"

namespace libconfd {

// Owns the memory behind values decoded from a frame and handed to a
// callback (keypath keys, set_elem's new value, find_next's keys). Everything
// stays valid until clear() or destruction, i.e. for the callback's duration.
class ValueStore {
  public:
    // NUL-terminated copy of s; the pointer stays valid until clear().
    unsigned char *bytes(const std::string &s);
    // Zero-filled array of n values (n may be 0: a valid non-NULL pointer).
    confd_value_t *values(size_t n);
    // A fresh OID object.
    struct confd_snmp_oid *oid();
    void clear();

  private:
    std::deque<std::string> bufs_;
    std::deque<std::vector<confd_value_t>> arrays_;
    std::deque<struct confd_snmp_oid> oids_;
};

// Encodes a C value for the wire. Returns false with a reason in err for a
// type the wire cannot carry or an inconsistent value (NULL buffer with a
// size, OID longer than 128, ...).
bool to_wire(const confd_value_t &v, confd_wire::Value &out, std::string &err);

// Decodes a wire value. With a store, buffers, OIDs and lists point into it;
// without one they are malloc'ed as confd_free_value() expects (received
// strings then become C_BUF, as values read from ConfD are). Returns false
// with a reason for an unknown type, an out-of-range number or a bad length;
// `out` is then C_NOEXISTS and owns nothing.
bool from_wire(const confd_wire::Value &w, confd_value_t &out, ValueStore *store, std::string &err);

// Decodes a keypath into out, writing a C_NOEXISTS after the last key of
// every row and, when there is room, a C_NOEXISTS row after the last row.
// An empty row (keys not given) becomes a row starting with C_NOEXISTS.
// false for more than MAXDEPTH rows, more than MAXKEYLEN-1 keys in a row,
// a C_NOEXISTS among keys or a value that does not decode. Values live in store (or are
// malloc'ed without one; confd_free_hkeypath() then releases a heap copy).
bool keypath_from_wire(const confd_wire::KeyPath &w, confd_hkeypath_t &out, ValueStore *store,
                       std::string &err);

} // namespace libconfd
