// Conversion between the API's confd_value_t / confd_hkeypath_t and the frame codec's Value / KeyPath.
#include "convert.h"

#include <cstdlib>
#include <cstring>
#include <limits>

namespace libconfd {

using confd_wire::Value;

unsigned char *ValueStore::bytes(const std::string &s)
{
    bufs_.push_back(s); // std::string keeps a NUL after its contents
    return reinterpret_cast<unsigned char *>(&bufs_.back()[0]);
}

confd_value_t *ValueStore::values(size_t n)
{
    arrays_.emplace_back(n == 0 ? 1 : n);
    for (auto &v : arrays_.back())
        v.type = C_NOEXISTS;
    return arrays_.back().data();
}

struct confd_snmp_oid *ValueStore::oid()
{
    oids_.emplace_back();
    return &oids_.back();
}

void ValueStore::clear()
{
    bufs_.clear();
    arrays_.clear();
    oids_.clear();
}

namespace {

// Bytes of a counted buffer, refusing a NULL pointer with a non-zero size.
bool buf_bytes(const confd_buf_const_t &b, std::string &out, std::string &err)
{
    if (b.ptr == nullptr && b.size != 0) {
        err = "buffer value with a NULL pointer";
        return false;
    }
    out.assign(reinterpret_cast<const char *>(b.ptr), b.ptr != nullptr ? b.size : 0);
    return true;
}

std::string addr_bytes(const void *addr, size_t n, uint8_t plen, bool with_plen)
{
    std::string s(static_cast<const char *>(addr), n);
    if (with_plen)
        s.push_back(static_cast<char>(plen));
    return s;
}

// Heap or store copy of a byte string (NUL-terminated); NULL when out of memory.
unsigned char *keep_bytes(const std::string &s, ValueStore *store)
{
    if (store != nullptr)
        return store->bytes(s);
    auto *p = static_cast<unsigned char *>(malloc(s.size() + 1));
    if (p == nullptr)
        return nullptr;
    memcpy(p, s.data(), s.size());
    p[s.size()] = '\0';
    return p;
}

// Stores x in a narrower field; false when it does not fit the field's type.
template <typename T> bool narrow(int64_t x, T &field)
{
    if (x < std::numeric_limits<T>::min() || x > std::numeric_limits<T>::max())
        return false;
    field = static_cast<T>(x);
    return true;
}

template <typename T> bool narrow(uint64_t x, T &field)
{
    if (x > std::numeric_limits<T>::max())
        return false;
    field = static_cast<T>(x);
    return true;
}

} // namespace

bool to_wire(const confd_value_t &v, Value &out, std::string &err)
{
    out = Value();
    out.type = static_cast<uint8_t>(v.type);
    switch (v.type) {
    case C_NOEXISTS:
    case C_DEFAULT: break;
    case C_XMLTAG:
    case C_XMLBEGIN:
    case C_XMLEND:
    case C_XMLBEGINDEL:
        out.a = v.val.xmltag.tag;
        out.b = v.val.xmltag.ns;
        break;
    case C_IDENTITYREF:
        out.a = v.val.idref.ns;
        out.b = v.val.idref.id;
        break;
    case C_STR:
        if (v.val.c_s == nullptr)
            out.null_str = true;
        else
            out.bytes = v.val.c_s;
        break;
    case C_BUF:
    case C_BINARY:
    case C_HEXSTR:
    case C_BITBIG:
        if (!buf_bytes(v.val.c_buf, out.bytes, err))
            return false;
        break;
    case C_INT8: out.i = v.val.i8; break;
    case C_INT16: out.i = v.val.i16; break;
    case C_INT32: out.i = v.val.i32; break;
    case C_INT64: out.i = v.val.i64; break;
    case C_ENUM_VALUE: out.i = v.val.enumvalue; break;
    case C_UINT8: out.u = v.val.u8; break;
    case C_UINT16: out.u = v.val.u16; break;
    case C_UINT32: out.u = v.val.u32; break;
    case C_UINT64: out.u = v.val.u64; break;
    case C_BIT32: out.u = v.val.b32; break;
    case C_BIT64: out.u = v.val.b64; break;
    case C_BOOL: out.u = v.val.boolean != 0 ? 1 : 0; break;
    case C_DOUBLE: out.d = v.val.d; break;
    case C_IPV4: out.bytes = addr_bytes(&v.val.ip, 4, 0, false); break;
    case C_IPV6: out.bytes = addr_bytes(&v.val.ip6, 16, 0, false); break;
    case C_IPV4PREFIX:
    case C_IPV4_AND_PLEN:
        out.bytes = addr_bytes(&v.val.ipv4prefix.ip, 4, v.val.ipv4prefix.len, true);
        break;
    case C_IPV6PREFIX:
    case C_IPV6_AND_PLEN:
        out.bytes = addr_bytes(&v.val.ipv6prefix.ip6, 16, v.val.ipv6prefix.len, true);
        break;
    case C_DQUAD: out.bytes = addr_bytes(v.val.dquad.quad, 4, 0, false); break;
    case C_DECIMAL64:
        out.i = v.val.d64.value;
        out.u = v.val.d64.fraction_digits;
        break;
    case C_OID: {
        const struct confd_snmp_oid *o = v.val.oidp;
        if (o == nullptr || o->len < 0 || o->len > 128) {
            err = "OID value missing or longer than 128 sub-identifiers";
            return false;
        }
        out.oid.assign(o->oid, o->oid + o->len);
        break;
    }
    case C_LIST: {
        if (v.val.list.ptr == nullptr && v.val.list.size != 0) {
            err = "list value with a NULL pointer";
            return false;
        }
        out.list.resize(v.val.list.size);
        for (unsigned i = 0; i < v.val.list.size; i++) {
            if (v.val.list.ptr[i].type == C_LIST) {
                err = "list value nested in a list";
                return false;
            }
            if (!to_wire(v.val.list.ptr[i], out.list[i], err))
                return false;
        }
        break;
    }
    default:
        err = "value type " + std::to_string(static_cast<int>(v.type)) +
              " cannot be sent to ConfD";
        return false;
    }
    return true;
}

bool from_wire(const Value &w, confd_value_t &out, ValueStore *store, std::string &err)
{
    memset(&out, 0, sizeof out);
    out.type = C_NOEXISTS;
    if (w.type == 0 || w.type >= C_MAXTYPE) {
        err = "unknown value type " + std::to_string(static_cast<int>(w.type));
        return false;
    }
    confd_value_t v;
    memset(&v, 0, sizeof v);
    v.type = static_cast<enum confd_vtype>(w.type);
    auto fail = [&err](const char *why) {
        err = why;
        return false;
    };
    auto need_len = [&](size_t n) { return w.bytes.size() == n; };
    switch (w.type) {
    case C_NOEXISTS:
    case C_DEFAULT: break;
    case C_XMLTAG:
    case C_XMLBEGIN:
    case C_XMLEND:
    case C_XMLBEGINDEL:
        v.val.xmltag.tag = w.a;
        v.val.xmltag.ns = w.b;
        break;
    case C_IDENTITYREF:
        v.val.idref.ns = w.a;
        v.val.idref.id = w.b;
        break;
    case C_STR:
        if (store != nullptr) {
            v.val.s = w.null_str ? nullptr : reinterpret_cast<char *>(store->bytes(w.bytes));
            break;
        }
        // Values the caller owns: strings are C_BUF, which confd_free_value releases.
        v.type = C_BUF;
        // fall through
    case C_BUF:
    case C_BINARY:
    case C_HEXSTR:
    case C_BITBIG:
        v.val.buf.ptr = keep_bytes(w.bytes, store);
        if (v.val.buf.ptr == nullptr)
            return fail("out of memory");
        v.val.buf.size = static_cast<unsigned>(w.bytes.size());
        break;
    case C_INT8:
        if (!narrow(w.i, v.val.i8))
            return fail("C_INT8 value out of range");
        break;
    case C_INT16:
        if (!narrow(w.i, v.val.i16))
            return fail("C_INT16 value out of range");
        break;
    case C_INT32:
    case C_ENUM_VALUE:
        if (!narrow(w.i, v.val.i32))
            return fail("32-bit value out of range");
        break;
    case C_INT64: v.val.i64 = w.i; break;
    case C_UINT8:
        if (!narrow(w.u, v.val.u8))
            return fail("C_UINT8 value out of range");
        break;
    case C_UINT16:
        if (!narrow(w.u, v.val.u16))
            return fail("C_UINT16 value out of range");
        break;
    case C_UINT32:
    case C_BIT32:
        if (!narrow(w.u, v.val.u32))
            return fail("32-bit unsigned value out of range");
        break;
    case C_UINT64: v.val.u64 = w.u; break;
    case C_BIT64: v.val.b64 = w.u; break;
    case C_BOOL: v.val.boolean = w.u != 0; break;
    case C_DOUBLE: v.val.d = w.d; break;
    case C_IPV4:
        if (!need_len(4))
            return fail("C_IPV4 value is not 4 bytes");
        memcpy(&v.val.ip, w.bytes.data(), 4);
        break;
    case C_IPV6:
        if (!need_len(16))
            return fail("C_IPV6 value is not 16 bytes");
        memcpy(&v.val.ip6, w.bytes.data(), 16);
        break;
    case C_IPV4PREFIX:
    case C_IPV4_AND_PLEN:
        if (!need_len(5))
            return fail("IPv4 prefix value is not 5 bytes");
        memcpy(&v.val.ipv4prefix.ip, w.bytes.data(), 4);
        v.val.ipv4prefix.len = static_cast<uint8_t>(w.bytes[4]);
        break;
    case C_IPV6PREFIX:
    case C_IPV6_AND_PLEN:
        if (!need_len(17))
            return fail("IPv6 prefix value is not 17 bytes");
        memcpy(&v.val.ipv6prefix.ip6, w.bytes.data(), 16);
        v.val.ipv6prefix.len = static_cast<uint8_t>(w.bytes[16]);
        break;
    case C_DQUAD:
        if (!need_len(4))
            return fail("C_DQUAD value is not 4 bytes");
        memcpy(v.val.dquad.quad, w.bytes.data(), 4);
        break;
    case C_DECIMAL64:
        v.val.d64.value = w.i;
        v.val.d64.fraction_digits = static_cast<uint8_t>(w.u);
        break;
    case C_OID: {
        if (w.oid.size() > 128)
            return fail("OID longer than 128 sub-identifiers");
        struct confd_snmp_oid *o =
            store != nullptr ? store->oid()
                             : static_cast<struct confd_snmp_oid *>(calloc(1, sizeof *o));
        if (o == nullptr)
            return fail("out of memory");
        std::copy(w.oid.begin(), w.oid.end(), o->oid);
        o->len = static_cast<int>(w.oid.size());
        v.val.oidp = o;
        break;
    }
    case C_LIST: {
        size_t n = w.list.size();
        confd_value_t *items =
            store != nullptr
                ? store->values(n)
                : static_cast<confd_value_t *>(calloc(n == 0 ? 1 : n, sizeof(confd_value_t)));
        if (items == nullptr)
            return fail("out of memory");
        for (size_t i = 0; i < n; i++) {
            if (w.list[i].type == C_LIST || !from_wire(w.list[i], items[i], store, err)) {
                if (err.empty())
                    err = "list value nested in a list";
                if (store == nullptr) {
                    for (size_t j = 0; j < i; j++)
                        confd_free_value(&items[j]);
                    free(items);
                }
                return false;
            }
        }
        v.val.list.ptr = items;
        v.val.list.size = static_cast<unsigned>(n);
        break;
    }
    default:
        err = "unknown value type " + std::to_string(static_cast<int>(w.type));
        return false;
    }
    out = v;
    return true;
}

bool keypath_from_wire(const confd_wire::KeyPath &w, confd_hkeypath_t &out, ValueStore *store,
                       std::string &err)
{
    out.len = 0;
    out.v[0][0].type = C_NOEXISTS;
    if (w.size() > static_cast<size_t>(MAXDEPTH)) {
        err = "keypath deeper than " + std::to_string(MAXDEPTH) + " elements";
        return false;
    }
    int rows = static_cast<int>(w.size());
    // On failure the rows decoded so far are released (heap mode) and the
    // keypath is left empty.
    auto unwind = [&](int upto_row, int upto_col) {
        if (store == nullptr)
            for (int i = 0; i <= upto_row && i < rows; i++)
                for (int j = 0; j < (i == upto_row ? upto_col : MAXKEYLEN); j++) {
                    if (out.v[i][j].type == C_NOEXISTS)
                        break;
                    confd_free_value(&out.v[i][j]);
                }
        out.len = 0;
        out.v[0][0].type = C_NOEXISTS;
        return false;
    };
    for (int i = 0; i < rows; i++) {
        const auto &row = w[static_cast<size_t>(i)];
        // An empty row (or a lone C_NOEXISTS) is a list instance whose keys
        // are not given, as in a wildcard path.
        if (row.empty() || (row.size() == 1 && row[0].type == C_NOEXISTS)) {
            out.v[i][0].type = C_NOEXISTS;
            continue;
        }
        if (row.size() > static_cast<size_t>(MAXKEYLEN - 1)) {
            err = "more than " + std::to_string(MAXKEYLEN - 1) + " keys in a keypath element";
            return unwind(i, 0);
        }
        int n = static_cast<int>(row.size());
        for (int j = 0; j < n; j++) {
            if (!from_wire(row[static_cast<size_t>(j)], out.v[i][j], store, err))
                return unwind(i, j);
            if (out.v[i][j].type == C_NOEXISTS) {
                // A key slot must not look like the row's end marker.
                err = "C_NOEXISTS inside a keypath element";
                return unwind(i, j);
            }
        }
        out.v[i][n].type = C_NOEXISTS;
    }
    out.len = rows;
    if (rows < MAXDEPTH)
        out.v[rows][0].type = C_NOEXISTS;
    return true;
}

} // namespace libconfd
