// Value helpers of the client library: freeing and copying values and keypaths, type-blind printing.
#include <arpa/inet.h>
#include <cinttypes>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "lib_internal.h"

extern "C" {
int confd_maxdepth = MAXDEPTH;
int confd_maxkeylen = MAXKEYLEN;
} // extern "C"

namespace {

// Heap copy of size bytes plus a terminating NUL, so that copied strings can
// be used as C strings as received ones can. NULL when out of memory.
unsigned char *copy_bytes(const unsigned char *p, unsigned int size)
{
    auto *out = static_cast<unsigned char *>(malloc(static_cast<size_t>(size) + 1));
    if (out == nullptr)
        return nullptr;
    if (size > 0 && p != nullptr)
        memcpy(out, p, size);
    out[size] = '\0';
    return out;
}

// Number of values in a keypath row that belong to it: up to the first
// C_NOEXISTS, at most MAXKEYLEN.
int row_width(const confd_value_t *row)
{
    int n = 0;
    while (n < MAXKEYLEN && row[n].type != C_NOEXISTS)
        n++;
    return n;
}

// Frees the copied cells of the first `rows` rows of a keypath made by
// hkeypath_dup(), then the keypath itself.
void free_hkeypath_rows(confd_hkeypath_t *hkp, int rows)
{
    for (int i = 0; i < rows; i++) {
        int w = row_width(hkp->v[i]);
        for (int j = 0; j < w; j++)
            confd_free_value(&hkp->v[i][j]);
    }
    free(hkp);
}

// Bounded output with snprintf semantics: counts everything, stores what
// fits, keeps the buffer NUL-terminated.
class Printer {
  public:
    Printer(char *buf, int bufsiz)
        : buf_(buf), cap_(buf != nullptr && bufsiz > 0 ? static_cast<size_t>(bufsiz) : 0)
    {
        if (cap_ > 0)
            buf_[0] = '\0';
    }

    void bytes(const void *p, size_t n)
    {
        if (len_ + 1 < cap_) {
            size_t room = cap_ - 1 - len_;
            size_t k = n < room ? n : room;
            memcpy(buf_ + len_, p, k);
            buf_[len_ + k] = '\0';
        }
        len_ += n;
    }

    void str(const char *s) { bytes(s, strlen(s)); }

    __attribute__((format(printf, 2, 3))) void fmt(const char *f, ...)
    {
        char tmp[128];
        va_list ap;
        va_start(ap, f);
        int n = vsnprintf(tmp, sizeof tmp, f, ap);
        va_end(ap);
        if (n < 0)
            return;
        // Every format used here fits in tmp; cut defensively if not.
        size_t k = static_cast<size_t>(n) < sizeof tmp ? static_cast<size_t>(n) : sizeof tmp - 1;
        bytes(tmp, k);
    }

    int result() const { return len_ > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(len_); }

  private:
    char *buf_;
    size_t cap_;
    size_t len_ = 0;
};

void print_hex(Printer &out, const unsigned char *p, unsigned int size)
{
    for (unsigned int i = 0; i < size; i++)
        out.fmt(i == 0 ? "%02x" : ":%02x", p[i]);
}

void print_name(Printer &out, uint32_t hash, const char *kind)
{
    const char *name = confd_lib_tag_name != nullptr ? confd_lib_tag_name(hash) : nullptr;
    if (name != nullptr)
        out.str(name);
    else
        out.fmt("%s<%" PRIu32 ">", kind, hash);
}

void print_addr(Printer &out, int af, const void *addr)
{
    char text[INET6_ADDRSTRLEN];
    if (inet_ntop(af, addr, text, sizeof text) != nullptr)
        out.str(text);
}

// Timezone suffix of the date and time types: Z, +hh:mm or nothing.
void print_tz(Printer &out, int8_t hours, int8_t minutes)
{
    if (hours == 0 && minutes == 0) {
        out.str("Z");
        return;
    }
    int h = hours < 0 ? -hours : hours;
    int m = minutes < 0 ? -minutes : minutes;
    out.fmt("%c%02d:%02d", (hours < 0 || minutes < 0) ? '-' : '+', h, m);
}

void print_decimal64(Printer &out, const struct confd_decimal64 &d)
{
    int digits = d.fraction_digits > 18 ? 18 : d.fraction_digits;
    uint64_t scale = 1;
    for (int i = 0; i < digits; i++)
        scale *= 10;
    // Work on the magnitude as unsigned so that INT64_MIN does not overflow.
    uint64_t mag = d.value < 0 ? 0 - static_cast<uint64_t>(d.value) : static_cast<uint64_t>(d.value);
    out.fmt("%s%" PRIu64, d.value < 0 ? "-" : "", mag / scale);
    if (digits > 0)
        out.fmt(".%0*" PRIu64, digits, mag % scale);
}

void print_value(Printer &out, const confd_value_t *v)
{
    switch (v->type) {
    case C_NOEXISTS: out.str("noexists"); break;
    case C_DEFAULT: out.str("default"); break;
    case C_XMLTAG:
    case C_XMLBEGIN:
    case C_XMLEND:
    case C_XMLBEGINDEL: print_name(out, v->val.xmltag.tag, "tag"); break;
    case C_SYMBOL: out.fmt("symbol<%" PRIu32 ">", v->val.symbol); break;
    case C_STR:
        if (v->val.c_s != nullptr)
            out.str(v->val.c_s);
        break;
    case C_BUF:
        if (v->val.c_buf.ptr != nullptr)
            out.bytes(v->val.c_buf.ptr, v->val.c_buf.size);
        break;
    case C_BINARY:
    case C_HEXSTR:
    case C_BITBIG:
        if (v->val.c_buf.ptr != nullptr)
            print_hex(out, v->val.c_buf.ptr, v->val.c_buf.size);
        break;
    case C_INT8: out.fmt("%d", v->val.i8); break;
    case C_INT16: out.fmt("%d", v->val.i16); break;
    case C_INT32: out.fmt("%" PRId32, v->val.i32); break;
    case C_INT64: out.fmt("%" PRId64, v->val.i64); break;
    case C_UINT8: out.fmt("%u", v->val.u8); break;
    case C_UINT16: out.fmt("%u", v->val.u16); break;
    case C_UINT32: out.fmt("%" PRIu32, v->val.u32); break;
    case C_UINT64: out.fmt("%" PRIu64, v->val.u64); break;
    case C_DOUBLE: out.fmt("%g", v->val.d); break;
    case C_BOOL: out.str(v->val.boolean ? "true" : "false"); break;
    case C_ENUM_VALUE: out.fmt("enum<%" PRId32 ">", v->val.enumvalue); break;
    case C_BIT32: out.fmt("bits<0x%" PRIx32 ">", v->val.b32); break;
    case C_BIT64: out.fmt("bits<0x%" PRIx64 ">", v->val.b64); break;
    case C_IPV4: print_addr(out, AF_INET, &v->val.ip); break;
    case C_IPV6: print_addr(out, AF_INET6, &v->val.ip6); break;
    case C_IPV4PREFIX:
    case C_IPV4_AND_PLEN:
        print_addr(out, AF_INET, &v->val.ipv4prefix.ip);
        out.fmt("/%u", v->val.ipv4prefix.len);
        break;
    case C_IPV6PREFIX:
    case C_IPV6_AND_PLEN:
        print_addr(out, AF_INET6, &v->val.ipv6prefix.ip6);
        out.fmt("/%u", v->val.ipv6prefix.len);
        break;
    case C_DQUAD:
        out.fmt("%u.%u.%u.%u", v->val.dquad.quad[0], v->val.dquad.quad[1], v->val.dquad.quad[2],
                v->val.dquad.quad[3]);
        break;
    case C_OID:
        if (v->val.oidp != nullptr) {
            int len = v->val.oidp->len;
            if (len > 128)
                len = 128;
            for (int i = 0; i < len; i++)
                out.fmt(i == 0 ? "%" PRIu32 : ".%" PRIu32, v->val.oidp->oid[i]);
        }
        break;
    case C_IDENTITYREF: print_name(out, v->val.idref.id, "idref"); break;
    case C_QNAME:
        if (v->val.qname.prefix.size > 0 && v->val.qname.prefix.ptr != nullptr) {
            out.bytes(v->val.qname.prefix.ptr, v->val.qname.prefix.size);
            out.str(":");
        }
        if (v->val.qname.name.ptr != nullptr)
            out.bytes(v->val.qname.name.ptr, v->val.qname.name.size);
        break;
    case C_DATETIME: {
        const struct confd_datetime &t = v->val.datetime;
        out.fmt("%04d-%02u-%02uT%02u:%02u:%02u", t.year, t.month, t.day, t.hour, t.min, t.sec);
        if (t.micro != 0)
            out.fmt(".%06" PRIu32, t.micro);
        print_tz(out, t.timezone, t.timezone_minutes);
        break;
    }
    case C_DATE:
        out.fmt("%04d-%02u-%02u", v->val.date.year, v->val.date.month, v->val.date.day);
        print_tz(out, v->val.date.timezone, v->val.date.timezone_minutes);
        break;
    case C_TIME:
        out.fmt("%02u:%02u:%02u", v->val.time.hour, v->val.time.min, v->val.time.sec);
        if (v->val.time.micro != 0)
            out.fmt(".%06" PRIu32, v->val.time.micro);
        print_tz(out, v->val.time.timezone, v->val.time.timezone_minutes);
        break;
    case C_DURATION: {
        const struct confd_duration &d = v->val.duration;
        out.fmt("P%" PRIu32 "Y%" PRIu32 "M%" PRIu32 "DT%" PRIu32 "H%" PRIu32 "M%" PRIu32, d.years,
                d.months, d.days, d.hours, d.mins, d.secs);
        if (d.micros != 0)
            out.fmt(".%06" PRIu32, d.micros);
        out.str("S");
        break;
    }
    case C_DECIMAL64: print_decimal64(out, v->val.d64); break;
    case C_LIST:
        out.str("[");
        for (unsigned int i = 0; i < v->val.list.size && v->val.list.ptr != nullptr; i++) {
            if (i > 0)
                out.str(" ");
            print_value(out, &v->val.list.ptr[i]);
        }
        out.str("]");
        break;
    case C_OBJECTREF:
        out.fmt("objectref<%d>", v->val.hkp != nullptr ? v->val.hkp->len : 0);
        break;
    case C_CDBBEGIN: out.fmt("cdbbegin<%" PRId32 ">", v->val.i32); break;
    default: out.fmt("type<%d>", static_cast<int>(v->type)); break;
    }
}

} // namespace

extern "C" {

void confd_free_value(confd_value_t *v)
try {
    if (v == nullptr)
        return;
    switch (v->type) {
    case C_BUF:
    case C_BINARY:
    case C_HEXSTR:
    case C_BITBIG: free(v->val.buf.ptr); break;
    case C_QNAME:
        free(v->val.qname.prefix.ptr);
        free(v->val.qname.name.ptr);
        break;
    case C_OID: free(v->val.oidp); break;
    case C_OBJECTREF: confd_free_hkeypath(v->val.hkp); break;
    case C_LIST:
        for (unsigned int i = 0; i < v->val.list.size && v->val.list.ptr != nullptr; i++)
            confd_free_value(&v->val.list.ptr[i]);
        free(v->val.list.ptr);
        break;
    default: return; // nothing allocated; the value stays as it is
    }
    // Leave a harmless value behind so that a second free is a no-op.
    v->type = C_NOEXISTS;
} catch (...) {
    libconfd::caught(__func__);
}

confd_value_t *confd_value_dup_to(const confd_value_t *v, confd_value_t *newv)
try {
    if (v == nullptr || newv == nullptr)
        return nullptr;
    confd_value_t out = *v;
    switch (v->type) {
    case C_STR:
        // A copy owns its storage, and only storage of the received-string
        // form is released by confd_free_value(); so the copy is a C_BUF.
        if (v->val.c_s == nullptr) {
            out.type = C_BUF;
            out.val.buf.ptr = nullptr;
            out.val.buf.size = 0;
            break;
        }
        out.type = C_BUF;
        out.val.buf.size = static_cast<unsigned int>(strlen(v->val.c_s));
        out.val.buf.ptr =
            copy_bytes(reinterpret_cast<const unsigned char *>(v->val.c_s), out.val.buf.size);
        if (out.val.buf.ptr == nullptr)
            return nullptr;
        break;
    case C_BUF:
    case C_BINARY:
    case C_HEXSTR:
    case C_BITBIG:
        if (v->val.c_buf.ptr == nullptr)
            break;
        out.val.buf.ptr = copy_bytes(v->val.c_buf.ptr, v->val.c_buf.size);
        if (out.val.buf.ptr == nullptr)
            return nullptr;
        break;
    case C_QNAME:
        out.val.qname.prefix.ptr = copy_bytes(v->val.qname.prefix.ptr, v->val.qname.prefix.size);
        out.val.qname.name.ptr = copy_bytes(v->val.qname.name.ptr, v->val.qname.name.size);
        if (out.val.qname.prefix.ptr == nullptr || out.val.qname.name.ptr == nullptr) {
            free(out.val.qname.prefix.ptr);
            free(out.val.qname.name.ptr);
            return nullptr;
        }
        break;
    case C_OID:
        if (v->val.oidp == nullptr)
            break;
        out.val.oidp = static_cast<struct confd_snmp_oid *>(malloc(sizeof *out.val.oidp));
        if (out.val.oidp == nullptr)
            return nullptr;
        *out.val.oidp = *v->val.oidp;
        break;
    case C_OBJECTREF:
        if (v->val.hkp == nullptr)
            break;
        out.val.hkp = confd_hkeypath_dup(v->val.hkp);
        if (out.val.hkp == nullptr)
            return nullptr;
        break;
    case C_LIST: {
        unsigned int n = v->val.list.ptr != nullptr ? v->val.list.size : 0;
        out.val.list.size = n;
        out.val.list.ptr = nullptr;
        if (n == 0)
            break;
        auto *items = static_cast<confd_value_t *>(calloc(n, sizeof(confd_value_t)));
        if (items == nullptr)
            return nullptr;
        for (unsigned int i = 0; i < n; i++) {
            if (confd_value_dup_to(&v->val.list.ptr[i], &items[i]) == nullptr) {
                for (unsigned int j = 0; j < i; j++)
                    confd_free_value(&items[j]);
                free(items);
                return nullptr;
            }
        }
        out.val.list.ptr = items;
        break;
    }
    default: break; // plain data, the struct copy is complete
    }
    *newv = out;
    return newv;
} catch (...) {
    return libconfd::caught(__func__, nullptr);
}

confd_value_t *confd_value_dup(const confd_value_t *v)
try {
    auto *copy = static_cast<confd_value_t *>(malloc(sizeof(confd_value_t)));
    if (copy == nullptr)
        return nullptr;
    if (confd_value_dup_to(v, copy) == nullptr) {
        free(copy);
        return nullptr;
    }
    return copy;
} catch (...) {
    return libconfd::caught(__func__, nullptr);
}

void confd_free_dup_value(confd_value_t *v)
try {
    if (v == nullptr)
        return;
    confd_free_value(v);
    free(v);
} catch (...) {
    libconfd::caught(__func__);
}

confd_hkeypath_t *confd_hkeypath_dup(const confd_hkeypath_t *src)
try {
    if (src == nullptr)
        return nullptr;
    auto *hkp = static_cast<confd_hkeypath_t *>(malloc(sizeof(confd_hkeypath_t)));
    if (hkp == nullptr)
        return nullptr;
    int len = src->len < 0 ? 0 : (src->len > MAXDEPTH ? MAXDEPTH : src->len);
    hkp->len = len;
    // Cells past a row's last key are not necessarily initialised in the
    // source; the copy marks them all as C_NOEXISTS.
    for (int i = 0; i < MAXDEPTH; i++)
        for (int j = 0; j < MAXKEYLEN; j++)
            hkp->v[i][j].type = C_NOEXISTS;
    for (int i = 0; i < len; i++) {
        int w = row_width(src->v[i]);
        for (int j = 0; j < w; j++) {
            if (confd_value_dup_to(&src->v[i][j], &hkp->v[i][j]) == nullptr) {
                hkp->v[i][j].type = C_NOEXISTS; // ends the row for the cleanup
                free_hkeypath_rows(hkp, i + 1);
                return nullptr;
            }
        }
    }
    return hkp;
} catch (...) {
    return libconfd::caught(__func__, nullptr);
}

void confd_free_hkeypath(confd_hkeypath_t *hkp)
try {
    if (hkp == nullptr)
        return;
    int len = hkp->len < 0 ? 0 : (hkp->len > MAXDEPTH ? MAXDEPTH : hkp->len);
    free_hkeypath_rows(hkp, len);
} catch (...) {
    libconfd::caught(__func__);
}

int confd_pp_value(char *buf, int bufsiz, const confd_value_t *v)
try {
    Printer out(buf, bufsiz);
    if (v != nullptr)
        print_value(out, v);
    return out.result();
} catch (...) {
    return libconfd::caught(__func__, 0);
}

} // extern "C"
