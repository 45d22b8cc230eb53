// Frame format and value codec shared by the emulated client library and confd-emu.
//
// Every message is one frame: a 4-byte big-endian payload length, then the
// payload. The payload starts with a one-byte Op; its fields follow in the
// order documented at each Op, encoded with Writer/Reader below. A frame is
// always written with a single send() so that threads sharing a socket (the
// notification senders share the daemon's worker socket) never interleave
// half-frames.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace confd_wire {

// Upper bound on a frame; a peer announcing more is treated as broken.
constexpr uint32_t kMaxFrame = 64u << 20;

// ConfD value type numbers (the same numbers as enum confd_vtype).
enum VType : uint8_t {
    T_NOEXISTS = 1, T_XMLTAG = 2, T_STR = 4, T_BUF = 5,
    T_INT8 = 6, T_INT16 = 7, T_INT32 = 8, T_INT64 = 9,
    T_UINT8 = 10, T_UINT16 = 11, T_UINT32 = 12, T_UINT64 = 13,
    T_DOUBLE = 14, T_IPV4 = 15, T_IPV6 = 16, T_BOOL = 17,
    T_ENUM_VALUE = 28, T_BIT32 = 29, T_BIT64 = 30, T_LIST = 31,
    T_XMLBEGIN = 32, T_XMLEND = 33, T_OID = 38, T_BINARY = 39,
    T_DEFAULT = 42, T_IDENTITYREF = 44, T_HEXSTR = 47,
    // Added for the client library's conversions (older peers never send them):
    T_IPV4PREFIX = 40, T_IPV6PREFIX = 41, T_DECIMAL64 = 43, T_XMLBEGINDEL = 45,
    T_DQUAD = 46, T_IPV4_AND_PLEN = 48, T_IPV6_AND_PLEN = 49, T_BITBIG = 50,
};

// A typed value as it travels. Which members carry data depends on type:
//   INT8..INT64, ENUM_VALUE           -> i
//   UINT8..UINT64, BIT32, BIT64, BOOL -> u
//   DOUBLE                            -> d
//   XMLTAG/XMLBEGIN/XMLEND/XMLBEGINDEL -> a = tag, b = ns
//   IDENTITYREF                       -> a = ns,  b = id
//   STR, BUF, BINARY, HEXSTR, BITBIG  -> bytes (STR: null_str marks a NULL char *)
//   IPV4 (4 bytes), IPV6 (16 bytes)   -> bytes, network order
//   IPV4PREFIX, IPV4_AND_PLEN         -> bytes: 4 address bytes, then 1 byte prefix length
//   IPV6PREFIX, IPV6_AND_PLEN         -> bytes: 16 address bytes, then 1 byte prefix length
//   DQUAD                             -> bytes (4)
//   DECIMAL64                         -> i = scaled value, u = fraction digits (sent as u8)
//   OID                               -> oid
//   LIST                              -> list
struct Value {
    uint8_t type = T_NOEXISTS;
    int64_t i = 0;
    uint64_t u = 0;
    double d = 0;
    uint32_t a = 0, b = 0;
    std::string bytes;
    std::vector<uint32_t> oid;
    std::vector<Value> list;
    bool null_str = false;
};

// A keypath in ConfD's reversed layout: row 0 is the deepest element. A
// plain node is a row holding one XMLTAG; a keyed list instance is a row of
// its key values. Rows carry no C_NOEXISTS terminator on the wire.
using KeyPath = std::vector<std::vector<Value>>;

// Kinds of connection, sent in the Hello that opens each connection.
enum class ConnKind : uint8_t {
    Control = 1, // daemon control socket
    Worker = 2,  // daemon worker socket
    Maapi = 3,   // MAAPI session socket (also used for the schema load)
    Events = 4,  // event-notification subscriber
    Cli = 5,     // confd-emu-cli
};

enum class Op : uint8_t {
    // --- opening a connection (client -> server), answered by Ok/Err ---
    // u8 kind, then per kind:
    //   Control: str daemon_name, u32 api_vsn, u32 maxdepth, u32 maxkeylen, u32 debug_level
    //            -> Ok{u32 daemon_id}
    //   Worker:  u32 daemon_id                 -> Ok{u32 worker_id}
    //   Maapi:   (nothing)                     -> Ok{}
    //   Events:  u32 mask                      -> Ok{}
    //   Cli:     (nothing)                     -> Ok{}
    Hello = 1,

    // --- generic answers (server -> client) ---
    Ok = 2,  // fields depend on the request
    Err = 3, // i32 confd_errno, str message

    // --- daemon registrations on the control socket (answered Ok/Err) ---
    RegTrans = 10,     // u32 mask of trans callbacks present (bit i = TransCb i)
    RegData = 11,      // str callpoint, u32 mask of data callbacks present (bit i = DataCb i)
    RegSnmpNotif = 12, // u32 worker_id, str notify_name, str ctx_name -> Ok{u32 nctx_id}
    RegDone = 13,      // (nothing)

    // --- server -> daemon requests; the daemon answers with Reply ---
    // TransInit, on the control socket:
    //   u32 rid, u32 thandle, u8 mode, u8 dbname, UserInfo, u32 snmp_request_id
    TransInit = 20,
    // TransCall, on the transaction's worker socket: u32 rid, u32 thandle, u8 TransCb
    TransCall = 21,
    // DataCall, on the transaction's worker socket:
    //   u32 rid, u32 thandle, u8 DataCb, str callpoint, KeyPath, then per callback:
    //   GetNext: i64 next, then optionally u32 rows: up to that many entries
    //            in one NextRows reply (the library calls get_next again
    //            with each cookie it answered); absent means 1
    //   GetNextObject: i64 next
    //   SetElem: Value newval
    //   FindNext/FindNextObject: u8 find_type, u32 n, Value keys[n]
    //   GetCase: Value choice
    //   SetCase: Value choice, Value caseval
    //   GetAttrs: u32 n, u32 attrs[n]
    //   SetAttr: u32 attr, Value v
    //   MoveAfter: u32 n, Value prevkeys[n] (n = 0: move first)
    DataCall = 22,

    // Reply (daemon -> server), on the socket the request came on:
    //   u32 rid, u8 ReplyKind, then per kind:
    //   Value: Value v
    //   NextKey: u32 n, Value keys[n], i64 next
    //   NextEnd: i64 next when answering get_next/find_next (the cookie the
    //            daemon passed with its empty key array); nothing otherwise
    //   NotFound / Found / Done: (nothing)
    //   ValueArray: u32 n, Value v[n]
    //   Error: i32 result (CONFD_ERR...), i32 errcode (confd_errcode), str message
    //   TransInitDone: u32 worker_id (the socket confd_trans_set_fd chose)
    //   TagValueArray: u32 n, then n times: u32 tag, u32 ns, Value v
    //   NextObjects: u32 nobj, then per entry: u8 tagged, u32 n,
    //                n times (tagged ? u32 tag, u32 ns, Value : Value), i64 next
    //                (the end of the list is NextEnd)
    //   NextRows: u32 n, then n get_next answers in walk order, each u8
    //             ReplyKind (NextKey or NextEnd, only the last may be NextEnd)
    //             and its fields as above
    Reply = 23,

    // --- SNMP notification (daemon -> server on a worker socket; no answer) ---
    // u32 nctx_id, str notify_name, str ctx_name, str notification,
    // u32 n, then n varbinds: u8 var_type (1 name, 2 oid, 3 col/row),
    //   name: str; oid: u32 n + u32s; col/row: str column + u32 n + u32s;
    //   then Value val, u8 snmp_vartype
    SnmpNotif = 30,

    // --- MAAPI requests (client -> server), answered Ok/Err ---
    // u8 MaapiOp, then per operation (see MaapiOp)
    Maapi = 40,

    // --- event notifications ---
    // server -> subscriber: u32 type (one CONFD_NOTIF_* bit), then per type:
    //   AUDIT (1):        i32 logno, str user, str msg, i32 usid
    //   COMMIT_DIFF (16): u8 dbname, UserInfo, u32 thandle, i32 flags, str comment, str label
    //                     (the commit waits for the subscriber's done, see below)
    // subscriber -> server (no answer): u32 type, then per type:
    //   COMMIT_DIFF (16): u32 thandle      (confd_diff_notification_done)
    Event = 50,

    // --- command-line client (client -> server) ---
    // u32 argc, str argv[argc] -> Ok{str json} or Err
    Cli = 60,
};

enum class TransCb : uint8_t {
    Init = 0, TransLock = 1, TransUnlock = 2, WriteStart = 3, Prepare = 4,
    Abort = 5, Commit = 6, Finish = 7, Interrupt = 8,
};

// Numbered in struct confd_data_cbs member order.
enum class DataCb : uint8_t {
    ExistsOptional = 0, GetElem = 1, GetNext = 2, SetElem = 3, Create = 4, Remove = 5,
    FindNext = 6, NumInstances = 7, GetObject = 8, GetNextObject = 9, FindNextObject = 10,
    GetCase = 11, SetCase = 12, GetAttrs = 13, SetAttr = 14, MoveAfter = 15, WriteAll = 16,
};

enum class ReplyKind : uint8_t {
    Value = 1, NextKey = 2, NextEnd = 3, NotFound = 4, Found = 5, Done = 6,
    ValueArray = 7, Error = 8, TransInitDone = 9,
    TagValueArray = 10, NextObjects = 11, // get_object / get_next_object replies
    NextRows = 12,                        // get_next asked for several rows
};

enum class MaapiOp : uint8_t {
    // u32 thandle, i32 hashed_ns, i32 usid   -> Ok{}
    Attach = 1,
    // u32 thandle                            -> Ok{}
    Detach = 2,
    // (nothing)                              -> Ok{Schema payload, see below}
    LoadSchemas = 3,

    // Paths below are ConfD keypath text ("/a/b{k1 k2}/c") with the path
    // formats (%d %s %x %h ...) already expanded by the library. Every
    // operation on a transaction needs the transaction to have been started
    // on this socket or attached to it.

    // --- user sessions and transactions ---
    // str username, str context, u32 n, str groups[n], u8 af, str ip (4 or 16
    // bytes), u16 port, u8 proto, str vendor, str product, str version,
    // str client_id                          -> Ok{i32 usid}
    // The new session becomes the socket's current one.
    StartUserSession = 10,
    // (nothing)                              -> Ok{}  ends the current session
    EndUserSession = 11,
    // u8 dbname, u8 mode, i32 usid (0 = the current session), i32 flags,
    // str vendor, str product, str version, str client_id -> Ok{u32 thandle}
    StartTrans = 12,
    // u32 thandle                            -> Ok{}
    FinishTrans = 13,
    // u32 thandle, u8 keepopen               -> Ok{}  validate and commit
    ApplyTrans = 14,
    // u32 thandle, u32 hashed_ns             -> Ok{}
    SetNamespace = 15,

    // --- reads ---
    // u32 thandle, str path                  -> Ok{Value} (a leaf-list: LIST)
    GetElem = 20,
    // u32 thandle, str path                  -> Ok{u8 exists}
    Exists = 21,
    // u32 thandle, str path                  -> Ok{u32 n}
    NumInstances = 22,
    // Cursors: the library keeps the position (the keys it handed out last);
    // the server answers the entry that follows it in the list's order.
    // u32 thandle, str list path             -> Ok{}  checks the path
    InitCursor = 23,
    // u32 thandle, str list path, u32 n, Value prev_keys[n] (n = 0: from the start)
    //                                        -> Ok{u32 n, Value keys[n]} (n = 0: no more)
    GetNext = 24,
    // u32 thandle, str list path, u8 find_type (confd_find_next_type),
    // u32 n, Value keys[n]                   -> Ok{u32 n, Value keys[n]}
    FindNext = 25,

    // --- writes ---
    // u32 thandle, str path, Value v         -> Ok{}
    SetElem = 30,
    // u32 thandle, str path, str text        -> Ok{}  value in its string form
    SetElemText = 31,
    // u32 thandle, str path                  -> Ok{}
    Create = 32,
    // u32 thandle, str path                  -> Ok{}
    Delete = 33,

    // --- XPath ---
    // u32 thandle, str expr, str context path ("" = none)
    //                                        -> Ok{u8 found, str text}
    //  found 0: the expression selects no node (text empty)
    XPathEvalExpr = 40,
    // same request                           -> Ok{u32 n, per node: KeyPath, Value}
    //  (Value is C_NOEXISTS for a node that is not a leaf)
    XPathEval = 41,

    // --- diffs ---
    // u32 thandle, str subtree path ("" = everything), i32 flags
    //   -> Ok{u32 n, per change in preorder: u8 op (MOP_*), u32 depth,
    //         KeyPath kp, Value v (C_NOEXISTS unless op is MOP_VALUE_SET)}
    // A change at depth d is followed by the changes below it (depth > d).
    DiffIterate = 50,
};

// UserInfo on the wire: str username, str context, u8 proto, u8 af,
//   bytes ip (4 or 16), u16 port, i32 usid, str snmp_v3_ctx.
//   The ip bytes are written like a str (u32 length 4 or 16, then the
//   address in network order); af is AF_INET or AF_INET6.
//
// Schema payload (answer to MaapiOp::LoadSchemas):
//   u32 n_ns, per namespace: u32 hash, str prefix, str uri, str module
//   u32 n_nodes, per node in preorder:
//     u32 tag, u32 ns, i32 parent (index into this array, -1 = top level),
//     u8 kind (0 container, 1 list, 2 leaf, 3 leaf-list), u8 config,
//     u8 vtype, str type_name, u32 nkeys, u32 key_tags[nkeys],
//     u32 n_enums, per enum: str name, i32 value
//   u32 n_names, per name: u32 hash, str name     (hash -> name table)

// Builds a payload. Integers are big-endian; strings are u32 length + bytes.
class Writer {
public:
    explicit Writer(Op op) { buf_.reserve(64); u8(static_cast<uint8_t>(op)); }
    Writer &u8(uint8_t v);
    Writer &u16(uint16_t v);
    Writer &u32(uint32_t v);
    Writer &i32(int32_t v) { return u32(static_cast<uint32_t>(v)); }
    Writer &u64(uint64_t v);
    Writer &i64(int64_t v) { return u64(static_cast<uint64_t>(v)); }
    Writer &str(std::string_view s);
    Writer &value(const Value &v);
    Writer &keypath(const KeyPath &kp);
    Writer &raw(std::string_view bytes) { buf_.append(bytes); return *this; }
    const std::string &payload() const { return buf_; }

private:
    std::string buf_;
};

// Reads a payload with bounds checks. A read past the end, or a length that
// does not fit, clears ok() and yields zero values; callers check ok() once
// after decoding a message.
class Reader {
public:
    explicit Reader(std::string_view payload) : p_(payload.data()), end_(p_ + payload.size()) {}
    Op op(); // the leading op byte
    uint8_t u8();
    uint16_t u16();
    uint32_t u32();
    int32_t i32() { return static_cast<int32_t>(u32()); }
    uint64_t u64();
    int64_t i64() { return static_cast<int64_t>(u64()); }
    std::string str();
    Value value();
    KeyPath keypath();
    bool ok() const { return ok_; }
    bool at_end() const { return p_ == end_; }

private:
    bool need(size_t n);
    // need(count * size) without the product: a 32-bit count times an item
    // size overflows size_t on a 32-bit target.
    bool need_items(uint32_t count, size_t size);
    const char *p_;
    const char *end_;
    bool ok_ = true;
    int depth_ = 0; // nesting guard for LIST values
};

// Writes one frame (length prefix + payload), looping until all of it is
// queued. Frames stay whole only when one sender at a time writes to a
// socket: a send() may queue part of a frame when the socket buffer is full
// and another thread's frame would then land in the middle. Callers that
// share a socket between threads therefore hold a per-socket lock around
// the call (the client library's send lock, confd-emu's Conn::send).
// Returns true when the whole frame went out.
bool send_frame(int fd, const std::string &payload);
// The parts of send_frame, for a sender that queues several frames and
// writes them with one send(): append_frame adds payload's frame to out
// (false, EMSGSIZE, when it is too large), send_bytes writes all of bytes.
bool append_frame(std::string &out, const std::string &payload);
bool send_bytes(int fd, const std::string &bytes);

// Reads one frame into payload, which grows as the bytes arrive (a length
// announced by the peer is never allocated up front). timeout_ms bounds the
// wait for a frame to begin (< 0: for ever); a frame that has begun gets at
// least 5 s more to arrive completely, so a time-out never splits a frame and
// half a frame followed by silence fails (ETIMEDOUT) instead of hanging.
// Returns 1 on a frame, 0 when the peer closed the connection, -1 on an
// error, a time-out (errno ETIMEDOUT) or an oversized frame.
int recv_frame(int fd, std::string &payload, int timeout_ms = -1);

// Reads the frames of one socket with as few system calls as the data
// allows: a recv takes whatever has arrived (up to 4 KiB, or what the frame
// under way still needs), and frames already received are handed out without
// another call. A request then costs one recv instead of three. Bytes of a
// later frame may stay buffered: a caller that waits for readability with
// poll() must drain has_frame() first. Not thread-safe: one reader a socket.
class FrameReader
{
public:
    // As recv_frame; with timeout_ms < 0 and nothing buffered, the first recv
    // blocks without a poll (the caller has polled already).
    int next(int fd, std::string &payload, int timeout_ms = -1);
    // A whole frame is buffered (or an oversized one is announced).
    bool has_frame() const;
    bool empty() const { return head_ == tail_; }
    // Forgets what is buffered (the socket was closed or replaced).
    void clear() { head_ = tail_ = 0; }

private:
    size_t frame_size() const; // 4 + announced length; 0 before the header
    std::vector<char> buf_;
    size_t head_ = 0, tail_ = 0; // unread bytes are buf_[head_, tail_)
};

} // namespace confd_wire
