// Text forms of keypaths and key values, and expansion of ConfD path formats (%x, %h, %ip4, ...).
#include "pathtext.h"

#include <arpa/inet.h>
#include <cinttypes>
#include <climits>
#include <cstring>

#include "lib_internal.h"

namespace libconfd {

namespace {

void append_name(std::string &out, uint32_t hash)
{
    const char *name = confd_lib_tag_name != nullptr ? confd_lib_tag_name(hash) : nullptr;
    if (name != nullptr)
        out += name;
    else
        out += "tag<" + std::to_string(hash) + ">";
}

// Whether confd-emu's keypath parser needs the key quoted to read back this
// very text: empty, holding blanks, braces, quotes, backslashes or '/', or
// in its "C_TYPE:text" form, which forces a value type.
bool needs_quotes(const char *p, size_t n)
{
    if (n == 0 || (n > 2 && p[0] == 'C' && p[1] == '_' && memchr(p, ':', n) != nullptr))
        return true;
    for (size_t i = 0; i < n; i++)
        if (p[i] == ' ' || p[i] == '\t' || p[i] == '\n' || p[i] == '{' || p[i] == '}' ||
            p[i] == '"' || p[i] == '\\' || p[i] == '/')
            return true;
    return false;
}

void append_string(std::string &out, const char *p, size_t n)
{
    if (!needs_quotes(p, n)) {
        out.append(p, n);
        return;
    }
    out += '"';
    for (size_t i = 0; i < n; i++) {
        if (p[i] == '"' || p[i] == '\\')
            out += '\\';
        out += p[i];
    }
    out += '"';
}

std::string addr_text(int af, const void *addr)
{
    char text[INET6_ADDRSTRLEN] = "";
    if (inet_ntop(af, addr, text, sizeof text) == nullptr)
        return "?";
    return text;
}

} // namespace

std::string key_text(const confd_value_t &v)
{
    std::string out;
    char tmp[64];
    switch (v.type) {
    case C_STR:
        if (v.val.c_s != nullptr)
            append_string(out, v.val.c_s, strlen(v.val.c_s));
        else
            out = "\"\"";
        return out;
    case C_BUF:
        append_string(out, reinterpret_cast<const char *>(v.val.c_buf.ptr),
                      v.val.c_buf.ptr != nullptr ? v.val.c_buf.size : 0);
        return out;
    case C_BINARY:
    case C_HEXSTR:
        for (unsigned i = 0; v.val.c_buf.ptr != nullptr && i < v.val.c_buf.size; i++) {
            snprintf(tmp, sizeof tmp, "%02x", v.val.c_buf.ptr[i]);
            out += tmp;
        }
        if (out.empty())
            out = "\"\"";
        return out;
    case C_ENUM_VALUE: return std::to_string(v.val.enumvalue);
    case C_INT8: return std::to_string(v.val.i8);
    case C_INT16: return std::to_string(v.val.i16);
    case C_INT32: return std::to_string(v.val.i32);
    case C_INT64: return std::to_string(v.val.i64);
    case C_UINT8: return std::to_string(v.val.u8);
    case C_UINT16: return std::to_string(v.val.u16);
    case C_UINT32: return std::to_string(v.val.u32);
    case C_UINT64: return std::to_string(v.val.u64);
    case C_BOOL: return v.val.boolean ? "true" : "false";
    case C_IPV4: return addr_text(AF_INET, &v.val.ip);
    case C_IPV6: return addr_text(AF_INET6, &v.val.ip6);
    case C_XMLTAG: append_name(out, v.val.xmltag.tag); return out;
    case C_OID:
        if (v.val.oidp == nullptr)
            return "\"\"";
        for (int i = 0; i < v.val.oidp->len && i < 128; i++)
            out += (i ? "." : "") + std::to_string(v.val.oidp->oid[i]);
        return out;
    default: {
        char buf[256];
        int n = confd_pp_value(buf, sizeof buf, &v);
        if (n >= static_cast<int>(sizeof buf)) {
            std::string big(static_cast<size_t>(n) + 1, '\0');
            confd_pp_value(&big[0], n + 1, &v);
            big.resize(static_cast<size_t>(n));
            append_string(out, big.data(), big.size());
        } else {
            append_string(out, buf, static_cast<size_t>(n));
        }
        return out;
    }
    }
}

std::string kpath_text(const confd_hkeypath_t &kp, int len)
{
    int total = kp.len < 0 ? 0 : (kp.len > MAXDEPTH ? MAXDEPTH : kp.len);
    if (len > total)
        len = total;
    std::string out;
    for (int i = total - 1; i >= total - len && i >= 0; i--) {
        const confd_value_t *row = kp.v[i];
        if (row[0].type == C_XMLTAG) {
            out += '/';
            append_name(out, row[0].val.xmltag.tag);
            continue;
        }
        if (row[0].type == C_NOEXISTS)
            continue; // keys not given
        out += '{';
        for (int j = 0; j < MAXKEYLEN && row[j].type != C_NOEXISTS; j++) {
            if (j > 0)
                out += ' ';
            out += key_text(row[j]);
        }
        out += '}';
    }
    return out;
}

int copy_out(const std::string &text, char *buf, int bufsiz)
{
    if (buf != nullptr && bufsiz > 0) {
        size_t n = text.size() < static_cast<size_t>(bufsiz) - 1 ? text.size()
                                                                 : static_cast<size_t>(bufsiz) - 1;
        memcpy(buf, text.data(), n);
        buf[n] = '\0';
    }
    return text.size() > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(text.size());
}

bool format_path(std::string &out, const char *fmt, va_list ap, std::string &err)
{
    out.clear();
    if (fmt == nullptr) {
        err = "no path given";
        return false;
    }
    for (const char *p = fmt; *p != '\0'; p++) {
        if (*p != '%') {
            out += *p;
            continue;
        }
        p++;
        bool star = false;
        int lmod = 0;
        if (*p == '*') {
            star = true;
            p++;
        }
        while (*p == 'l' && lmod < 2) {
            lmod++;
            p++;
        }
        // %ip4 / %ip6 before %i, which shares the first letter.
        if (p[0] == 'i' && p[1] == 'p' && (p[2] == '4' || p[2] == '6')) {
            bool v6 = p[2] == '6';
            p += 2;
            const void *addr = v6 ? static_cast<const void *>(va_arg(ap, const struct in6_addr *))
                                  : static_cast<const void *>(va_arg(ap, const struct in_addr *));
            if (addr == nullptr) {
                err = "NULL address in path";
                return false;
            }
            out += addr_text(v6 ? AF_INET6 : AF_INET, addr);
            continue;
        }
        switch (*p) {
        case '%': out += '%'; break;
        case 'd':
        case 'i':
            if (lmod == 0)
                out += std::to_string(va_arg(ap, int));
            else if (lmod == 1)
                out += std::to_string(va_arg(ap, long));
            else
                out += std::to_string(va_arg(ap, long long));
            break;
        case 'u':
            if (lmod == 0)
                out += std::to_string(va_arg(ap, unsigned));
            else if (lmod == 1)
                out += std::to_string(va_arg(ap, unsigned long));
            else
                out += std::to_string(va_arg(ap, unsigned long long));
            break;
        case 'c': out += static_cast<char>(va_arg(ap, int)); break;
        case 's': {
            const char *s = va_arg(ap, const char *);
            if (s == nullptr) {
                err = "NULL string in path";
                return false;
            }
            out += s;
            break;
        }
        case 'x': {
            int n = star ? va_arg(ap, int) : 1;
            const confd_value_t *v = va_arg(ap, const confd_value_t *);
            if (v == nullptr || n < 0) {
                err = "NULL value in path";
                return false;
            }
            for (int i = 0; i < n; i++) {
                if (i > 0)
                    out += ' ';
                out += key_text(v[i]);
            }
            break;
        }
        case 'h': {
            int n = star ? va_arg(ap, int) : INT_MAX;
            const confd_hkeypath_t *kp = va_arg(ap, const confd_hkeypath_t *);
            if (kp == nullptr) {
                err = "NULL keypath in path";
                return false;
            }
            out += kpath_text(*kp, n < 0 ? 0 : n);
            break;
        }
        default:
            err = std::string("unknown conversion in path format: %") + (*p != '\0' ? *p : '?');
            return false;
        }
    }
    return true;
}

} // namespace libconfd
