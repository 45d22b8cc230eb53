// confd-emu's datastore: the running configuration as a libyang data tree, and transactions on it.
//
// The running tree holds configuration and the operational data of the init file. A read
// transaction reads the running tree as it is at each request; a read-write transaction works on
// its own copy and records its edits, which a commit replays onto the running tree of that moment,
// validates and installs. The changes a commit made stay with the transaction, so that commit-diff
// subscribers can iterate over them until it ends. Everything is guarded by one mutex.
//
// Paths are ConfD keypaths ("/a/b{k1 k2}/c"), typed by the schema. Results are 0 or a CONFD_ERR_*
// number with a message in err.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "keypath.h"
#include "schema.h"
#include "wire.h"

struct lyd_node;
struct ly_set;

namespace emu
{

// Who runs a transaction; what commit-diff subscribers are told about its user.
struct UserInfo {
    std::string user, context;
    int32_t usid = 0;
    uint8_t proto = 1; // CONFD_PROTO_TCP
    std::string ip = std::string("\x7f\0\0\x01", 4);
    uint16_t port = 0;
};

// Writes a UserInfo in the frame layout of wire.h.
void write_user_info(confd_wire::Writer &w, const UserInfo &u);

// One change of a transaction, in preorder: the changes below a created or modified list entry
// follow it with a greater depth.
struct DiffItem {
    int op = 0; // MOP_CREATED, MOP_DELETED, MOP_MODIFIED, MOP_VALUE_SET, MOP_MOVED_AFTER or
                // MOP_ATTR_SET
    uint32_t depth = 0;
    confd_wire::KeyPath kp; // ConfD's hkeypath rows, deepest first
    // MOP_VALUE_SET: the new value. MOP_MOVED_AFTER: the keys (C_LIST) of the entry now just
    // before, C_NOEXISTS when the entry went first. MOP_ATTR_SET: a C_LIST of the attribute
    // (C_UINT32) and its new value (C_BUF, or C_NOEXISTS when removed). Else C_NOEXISTS.
    confd_wire::Value value;
};

// ConfD attributes of configuration nodes, by the node's libyang path: attribute number
// (CONFD_ATTR_TAGS, ...) and its value as text.
using Attrs = std::map<std::string, std::map<uint32_t, std::string>>;

class Datastore
{
  public:
    explicit Datastore(const Schema &s);
    ~Datastore();
    Datastore(const Datastore &) = delete;
    Datastore &operator=(const Datastore &) = delete;

    // Replaces the running tree with the data of an XML file, validated (defaults added). An empty
    // name starts with no data. False with a message naming the file and libyang's complaint.
    bool load(const std::string &file, std::string &err);

    // --- transactions; handle 0 is never a transaction: reads with it see the running tree ---
    // Opens transaction th (mode CONFD_READ or CONFD_READ_WRITE). A transaction that adopt()
    // opened already just gets its user.
    int begin(uint32_t th, int mode, const UserInfo &u, std::string &err);
    // Opens the datastore side of a daemon's transaction th when MAAPI first uses it (no user known
    // yet); nothing when it is open already.
    void adopt(uint32_t th, int mode);
    bool has(uint32_t th);
    // Forgets th and everything it kept (no error when unknown).
    void end(uint32_t th);
    // The user of th (empty when unknown).
    UserInfo user(uint32_t th);

    // --- reads ---
    // A leaf's value; a leaf-list's instances as a C_LIST. CONFD_ERR_NOEXISTS when absent,
    // CONFD_ERR_BADPATH for a path that is not a leaf or misses keys.
    int get_elem(uint32_t th, const std::string &path, confd_wire::Value &out, std::string &err);
    int exists(uint32_t th, const std::string &path, bool &out, std::string &err);
    // Entries of a list (path without the list's keys) or instances of a leaf-list.
    int num_instances(uint32_t th, const std::string &path, uint32_t &out, std::string &err);
    // The keys of the list entry that follows `after` in the list's order (system-ordered lists by
    // key, user-ordered ones as stored); with `after` null the first entry; with or_same an entry
    // equal to `after` counts. keys empty at the end of the list.
    int next_keys(uint32_t th, const std::string &list_path,
                  const std::vector<confd_wire::Value> *after, bool or_same,
                  std::vector<confd_wire::Value> &keys, std::string &err);
    // XPath expr evaluated with the context node given by ctx_path (empty = the root; a list
    // without keys = its first entry; a node that does not exist = its nearest existing ancestor).
    // found false when it selects nothing; otherwise text is the string value of the first node.
    // CONFD_ERR_XPATH for a bad expression or one that does not select nodes, CONFD_ERR_BADPATH
    // for a bad context path.
    int xpath_string(uint32_t th, const std::string &expr, const std::string &ctx_path,
                     bool &found, std::string &text, std::string &err);
    // The nodes the expression selects: their hkeypaths and, for leaves, their values.
    int xpath_nodes(uint32_t th, const std::string &expr, const std::string &ctx_path,
                    std::vector<std::pair<confd_wire::KeyPath, confd_wire::Value>> &out,
                    std::string &err);

    // --- writes, in a read-write transaction ---
    // Sets a leaf (a leaf-list from a C_LIST, or one element), creating the list entries and
    // containers on the way. C_NOEXISTS deletes the leaf. CONFD_ERR_BADTYPE for a value that does
    // not fit, CONFD_ERR_NOT_WRITABLE for operational data or data a provider serves.
    int set_elem(uint32_t th, const std::string &path, const confd_wire::Value &v,
                 std::string &err);
    // The same with the value in its string form (enum names, identity names, addresses, ...).
    int set_elem_text(uint32_t th, const std::string &path, const std::string &text,
                      std::string &err);
    // Creates a list entry or presence container; CONFD_ERR_ALREADY_EXISTS when it exists.
    int create(uint32_t th, const std::string &path, std::string &err);
    // Deletes a node and what is below it; CONFD_ERR_NOEXISTS when absent.
    int remove(uint32_t th, const std::string &path, std::string &err);
    // Moves an entry of a user-ordered list after the entry at anchor_path (a keypath of the
    // same list), or first when anchor_path is empty. CONFD_ERR_NOEXISTS when either is absent,
    // CONFD_ERR_NOTMOVABLE for a list ordered by the system.
    int move_after(uint32_t th, const std::string &path, const std::string &anchor_path,
                   std::string &err);
    // Sets attribute attr of an existing node to value, or removes it when value is null.
    int set_attr(uint32_t th, const std::string &path, uint32_t attr, const std::string *value,
                 std::string &err);

    // --- changes ---
    // The changes of th below subtree (empty = all): what its commit made once committed, else
    // what committing now would change.
    int diff(uint32_t th, const std::string &subtree, std::vector<DiffItem> &out, std::string &err);
    // Replays th's edits onto the running tree, validates and installs the result. The changes
    // made are kept for diff(); th stays open with no pending edits.
    int commit(uint32_t th, std::vector<DiffItem> &changes, std::string &err);

  private:
    struct Edit {
        enum Kind { Set, Create, Delete, Move, Attr } kind = Set;
        std::string lypath;
        std::vector<std::string> values; // Set: one text, or a leaf-list's texts; Attr: the value
                                         // (none: the attribute is removed)
        bool leaflist = false;
        std::string anchor; // Move: the entry it goes after, empty for the first place
        uint32_t attr = 0;  // Attr: which attribute
    };
    struct Txn {
        int mode = 0;
        UserInfo user;
        lyd_node *work = nullptr; // read-write: the running tree plus this transaction's edits
        std::vector<Edit> edits;
        bool committed = false;
        std::vector<DiffItem> changes; // what the last commit changed
        Attrs attrs;                   // read-write: the attributes of work
        bool adopted = false;          // opened by adopt(), its user not known yet
    };

    // The transaction th (null for th 0, the running tree); false with CONFD_ERR_NOEXISTS.
    bool lookup(uint32_t th, Txn *&t, int &rc, std::string &err);
    // The tree reads of th see: its own copy (read-write) or the running tree.
    lyd_node *tree_of(const Txn *t) const;
    // The transaction and parsed path of a read; last_open as check_keys takes it.
    int readable(uint32_t th, const std::string &path, bool last_open, ParsedPath &p, Txn *&t,
                 std::string &err);
    int writable(uint32_t th, const std::string &path, ParsedPath &p, Txn *&t, std::string &err);
    // The nodes expr selects in th's tree, from ctx_path's node when one is given; set stays
    // null when the tree is empty, CONFD_ERR_XPATH when expr does not evaluate.
    int xpath_select(uint32_t th, const std::string &expr, const std::string &ctx_path,
                     ly_set *&set, std::string &err);
    int set_locked(Txn *t, const ParsedPath &p, const confd_wire::Value &v, std::string &err);
    int apply(lyd_node *&tree, const Edit &e, std::string &err) const;
    int record(Txn *t, const Edit &e, std::string &err);
    // th's edits replayed onto a copy of the running tree and its attributes; the caller frees
    // tree.
    int replay(const Txn *t, lyd_node *&tree, Attrs &attrs, std::string &err) const;
    void attr_changes(const Attrs &old_attrs, const Attrs &new_attrs, const lyd_node *tree,
                      std::vector<DiffItem> &out) const;
    void moved(const lyd_node *ofirst, const lyd_node *nfirst, const lyd_node *n, uint32_t depth,
               std::vector<DiffItem> &out) const;
    void diff_trees(const lyd_node *old_tree, const lyd_node *new_tree,
                    std::vector<DiffItem> &out) const;
    void diff_siblings(const lyd_node *ofirst, const lyd_node *nfirst, uint32_t depth,
                       std::vector<DiffItem> &out) const;
    void created(const lyd_node *n, uint32_t depth, std::vector<DiffItem> &out) const;
    void leaflist_change(const lyd_node *ofirst, const lyd_node *nfirst, const lyd_node *any,
                         uint32_t depth, std::vector<DiffItem> &out) const;
    confd_wire::KeyPath keypath_of(const lyd_node *n) const;
    std::string lypath(const ParsedPath &p, size_t steps, std::string &err) const;
    const lyd_node *find(const lyd_node *tree, const ParsedPath &p, size_t steps,
                         bool first_unkeyed, size_t *matched = nullptr) const;
    bool keys_of(const lyd_node *entry, const SchemaNode *list,
                 std::vector<confd_wire::Value> &keys) const;
    std::string ly_error() const;

    const Schema &schema_;
    std::mutex mu_;
    lyd_node *running_ = nullptr;
    Attrs running_attrs_;
    std::map<uint32_t, Txn> txns_;
};

} // namespace emu
