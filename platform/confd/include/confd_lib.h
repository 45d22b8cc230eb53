/* ConfD C API, common part: value types, keypaths, errors, schema access and library set-up. */
#ifndef LEISOBEK_CONFD_LIB_H
#define LEISOBEK_CONFD_LIB_H

#include <stdint.h>
#include <stdio.h>
#include <stdarg.h>
#include <time.h>
#include <assert.h>
#include <sys/types.h>
#include <sys/socket.h>
#include <netinet/in.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Versions and sizes                                                        */
/* ------------------------------------------------------------------------ */

/* API level the application is compiled against; confd_init() hands it to the
 * library so that a mismatch between headers and library can be detected. */
#define CONFD_LIB_API_VSN 0x06050000
#define CONFD_LIB_API_VSN_STR "06050000"
#define CONFD_LIB_VSN 0x06050000
#define CONFD_LIB_VSN_STR "06050000"
#define CONFD_LIB_PROTO_VSN 65
#define CONFD_LIB_PROTO_VSN_STR "65"

/* Longest keypath plus one, and most keys in one list plus one. An
 * application may choose other values by defining them before inclusion. */
#ifndef MAXDEPTH
#define MAXDEPTH 20
#endif
#ifndef MAXKEYLEN
#define MAXKEYLEN 9
#endif

#define CONFD_PORT 4565
#define NCS_PORT 4569
#define MAX_CALLPOINT_LEN 256
#define MAX_DAEMON_NAME_LEN 255
#define MAXUSERNAMELEN 255
#define MAXCTXLEN 32

/* The data model's actual depth and key count, known after connecting. */
extern int confd_maxdepth;
extern int confd_maxkeylen;

#if defined(__GNUC__) || defined(__clang__)
#define CONFD_PRINTF_ATTR_(f, a) __attribute__((format(printf, f, a)))
#else
#define CONFD_PRINTF_ATTR_(f, a)
#endif

/* ------------------------------------------------------------------------ */
/* Values                                                                    */
/* ------------------------------------------------------------------------ */

enum confd_vtype {
    C_NOEXISTS = 1,
    C_XMLTAG = 2,
    C_SYMBOL = 3,
    C_STR = 4,
    C_BUF = 5,
    C_INT8 = 6,
    C_INT16 = 7,
    C_INT32 = 8,
    C_INT64 = 9,
    C_UINT8 = 10,
    C_UINT16 = 11,
    C_UINT32 = 12,
    C_UINT64 = 13,
    C_DOUBLE = 14,
    C_IPV4 = 15,
    C_IPV6 = 16,
    C_BOOL = 17,
    C_QNAME = 18,
    C_DATETIME = 19,
    C_DATE = 20,
    C_TIME = 23,
    C_DURATION = 27,
    C_ENUM_VALUE = 28,
    C_BIT32 = 29,
    C_BIT64 = 30,
    C_LIST = 31,
    C_XMLBEGIN = 32,
    C_XMLEND = 33,
    C_OBJECTREF = 34,
    C_UNION = 35,
    C_PTR = 36,
    C_CDBBEGIN = 37,
    C_OID = 38,
    C_BINARY = 39,
    C_IPV4PREFIX = 40,
    C_IPV6PREFIX = 41,
    C_DEFAULT = 42,
    C_DECIMAL64 = 43,
    C_IDENTITYREF = 44,
    C_XMLBEGINDEL = 45,
    C_DQUAD = 46,
    C_HEXSTR = 47,
    C_IPV4_AND_PLEN = 48,
    C_IPV6_AND_PLEN = 49,
    C_BITBIG = 50,
    C_MAXTYPE /* one past the last type */
};

/* Older name of the enumeration type, kept for existing code. */
#define C_ENUM_HASH C_ENUM_VALUE

/* A counted byte string; for C_BUF the library also NUL-terminates it. */
typedef struct confd_buf {
    unsigned int size;
    unsigned char *ptr;
} confd_buf_t;

typedef struct confd_buf_const {
    unsigned int size;
    const unsigned char *ptr;
} confd_buf_const_t;

/* A schema node name: both parts are hashes from the namespace headers. */
struct xml_tag {
    uint32_t tag;
    uint32_t ns;
};

struct confd_snmp_oid {
    uint32_t oid[128];
    int len;
};

struct confd_identityref {
    uint32_t ns;
    uint32_t id;
};

struct confd_value;
struct confd_hkeypath;

/* A leaf-list value: size elements at ptr. */
struct confd_list {
    unsigned int size;
    struct confd_value *ptr;
};

struct confd_qname {
    confd_buf_t prefix;
    confd_buf_t name;
};

struct confd_datetime {
    int16_t year;
    uint8_t month;
    uint8_t day;
    uint8_t hour;
    uint8_t min;
    uint8_t sec;
    uint32_t micro;
    int8_t timezone;         /* hours from UTC */
    int8_t timezone_minutes; /* extra minutes from UTC */
};

struct confd_date {
    int16_t year;
    uint8_t month;
    uint8_t day;
    int8_t timezone;
    int8_t timezone_minutes;
};

struct confd_time {
    uint8_t hour;
    uint8_t min;
    uint8_t sec;
    uint32_t micro;
    int8_t timezone;
    int8_t timezone_minutes;
};

struct confd_duration {
    uint32_t years;
    uint32_t months;
    uint32_t days;
    uint32_t hours;
    uint32_t mins;
    uint32_t secs;
    uint32_t micros;
};

struct confd_decimal64 {
    int64_t value;
    uint8_t fraction_digits;
};

struct confd_ipv4_prefix {
    struct in_addr ip;
    uint8_t len;
};

struct confd_ipv6_prefix {
    struct in6_addr ip6;
    uint8_t len;
};

struct confd_dotted_quad {
    unsigned char quad[4];
};

struct confd_vptr {
    enum confd_vtype type;
    void *valp;
};

/* One typed value. Only the union member that belongs to `type` is valid. */
typedef struct confd_value {
    enum confd_vtype type;
    union {
        struct xml_tag xmltag;
        uint32_t symbol;
        confd_buf_t buf;
        confd_buf_const_t c_buf;
        char *s;
        const char *c_s;
        int8_t i8;
        int16_t i16;
        int32_t i32;
        int64_t i64;
        uint8_t u8;
        uint16_t u16;
        uint32_t u32;
        uint64_t u64;
        double d;
        struct in_addr ip;
        struct in6_addr ip6;
        int boolean;
        struct confd_qname qname;
        struct confd_datetime datetime;
        struct confd_date date;
        struct confd_time time;
        struct confd_duration duration;
        int32_t enumvalue;
        uint32_t b32;
        uint64_t b64;
        struct confd_list list;
        struct confd_hkeypath *hkp;
        struct confd_vptr ptr;
        struct confd_snmp_oid *oidp;
        struct confd_ipv4_prefix ipv4prefix;
        struct confd_ipv6_prefix ipv6prefix;
        struct confd_decimal64 d64;
        struct confd_identityref idref;
        struct confd_dotted_quad dquad;
        uint32_t enumhash;
    } val;
} confd_value_t;

/* A value together with the node it belongs to. */
typedef struct confd_tag_value {
    struct xml_tag tag;
    confd_value_t v;
} confd_tag_value_t;

struct confd_ip {
    int af; /* AF_INET or AF_INET6 */
    union {
        struct in_addr v4;
        struct in6_addr v6;
    } ip;
};

/* A keypath, deepest element first: v[0] is the node asked about and
 * v[len-1] the top-level node. A node is one row with a C_XMLTAG in column 0;
 * a list instance is a row of its own holding the key values, terminated by
 * C_NOEXISTS when there are fewer than MAXKEYLEN keys. */
typedef struct confd_hkeypath {
    int len;
    confd_value_t v[MAXDEPTH][MAXKEYLEN];
} confd_hkeypath_t;

/* ------------------------------------------------------------------------ */
/* Value access macros                                                       */
/* ------------------------------------------------------------------------ */

/* Type check made by every getter; an application may supply its own. */
#ifndef CONFD_ASSERT
#define CONFD_ASSERT(E) assert(E)
#endif

#define CONFD_SET_NOEXISTS(v) do { (v)->type = C_NOEXISTS; } while (0)
#define CONFD_SET_DEFAULT(v) do { (v)->type = C_DEFAULT; } while (0)

#define CONFD_SET_XMLTAG(v, t, n) \
    do { (v)->type = C_XMLTAG; (v)->val.xmltag.tag = (t); (v)->val.xmltag.ns = (n); } while (0)
#define CONFD_SET_XMLBEGIN(v, t, n) \
    do { (v)->type = C_XMLBEGIN; (v)->val.xmltag.tag = (t); (v)->val.xmltag.ns = (n); } while (0)
#define CONFD_SET_XMLEND(v, t, n) \
    do { (v)->type = C_XMLEND; (v)->val.xmltag.tag = (t); (v)->val.xmltag.ns = (n); } while (0)
#define CONFD_SET_XMLBEGINDEL(v, t, n) \
    do { (v)->type = C_XMLBEGINDEL; (v)->val.xmltag.tag = (t); (v)->val.xmltag.ns = (n); } while (0)
#define CONFD_SET_CDBBEGIN(v, index) \
    do { (v)->type = C_CDBBEGIN; (v)->val.i32 = (index); } while (0)

/* The pointer setters assign the pointer as given, so its type must match
 * the member: const char * for C_STR, const unsigned char * for the byte
 * strings. Only CONFD_SET_CBUF converts (from a char buffer). */
#define CONFD_SET_STR(v, str) do { (v)->type = C_STR; (v)->val.c_s = (str); } while (0)
#define CONFD_SET_BYTES_(v, t, p, len) \
    do { (v)->type = (t); (v)->val.c_buf.ptr = (p); (v)->val.c_buf.size = (len); } while (0)
#define CONFD_SET_BUF(v, p, len) CONFD_SET_BYTES_(v, C_BUF, p, len)
#define CONFD_SET_CBUF(v, p, len) CONFD_SET_BYTES_(v, C_BUF, (unsigned const char *)(p), len)
#define CONFD_SET_BINARY(v, p, len) CONFD_SET_BYTES_(v, C_BINARY, p, len)
#define CONFD_SET_HEXSTR(v, p, len) CONFD_SET_BYTES_(v, C_HEXSTR, p, len)
#define CONFD_SET_BITBIG(v, p, len) CONFD_SET_BYTES_(v, C_BITBIG, p, len)
#define CONFD_SET_QNAME(v, pfx, pfxlen, nm, nmlen) \
    do { \
        (v)->type = C_QNAME; \
        (v)->val.qname.prefix.ptr = (unsigned char *)(pfx); \
        (v)->val.qname.prefix.size = (unsigned int)(pfxlen); \
        (v)->val.qname.name.ptr = (unsigned char *)(nm); \
        (v)->val.qname.name.size = (unsigned int)(nmlen); \
    } while (0)

#define CONFD_SET_INT8(v, x) do { (v)->type = C_INT8; (v)->val.i8 = (x); } while (0)
#define CONFD_SET_INT16(v, x) do { (v)->type = C_INT16; (v)->val.i16 = (x); } while (0)
#define CONFD_SET_INT32(v, x) do { (v)->type = C_INT32; (v)->val.i32 = (x); } while (0)
#define CONFD_SET_INT64(v, x) do { (v)->type = C_INT64; (v)->val.i64 = (x); } while (0)
#define CONFD_SET_UINT8(v, x) do { (v)->type = C_UINT8; (v)->val.u8 = (x); } while (0)
#define CONFD_SET_UINT16(v, x) do { (v)->type = C_UINT16; (v)->val.u16 = (x); } while (0)
#define CONFD_SET_UINT32(v, x) do { (v)->type = C_UINT32; (v)->val.u32 = (x); } while (0)
#define CONFD_SET_UINT64(v, x) do { (v)->type = C_UINT64; (v)->val.u64 = (x); } while (0)
#define CONFD_SET_DOUBLE(v, x) do { (v)->type = C_DOUBLE; (v)->val.d = (x); } while (0)
#define CONFD_SET_BOOL(v, x) do { (v)->type = C_BOOL; (v)->val.boolean = (x); } while (0)
#define CONFD_SET_ENUM_VALUE(v, x) \
    do { (v)->type = C_ENUM_VALUE; (v)->val.enumvalue = (x); } while (0)
#define CONFD_SET_ENUM_HASH(v, x) \
    do { (v)->type = C_ENUM_HASH; (v)->val.enumhash = (x); } while (0)
#define CONFD_SET_BIT32(v, x) do { (v)->type = C_BIT32; (v)->val.b32 = (x); } while (0)
#define CONFD_SET_BIT64(v, x) do { (v)->type = C_BIT64; (v)->val.b64 = (x); } while (0)
#define CONFD_SET_IPV4(v, x) do { (v)->type = C_IPV4; (v)->val.ip = (x); } while (0)
#define CONFD_SET_IPV6(v, x) do { (v)->type = C_IPV6; (v)->val.ip6 = (x); } while (0)
#define CONFD_SET_IPV4PREFIX(v, x) \
    do { (v)->type = C_IPV4PREFIX; (v)->val.ipv4prefix = (x); } while (0)
#define CONFD_SET_IPV6PREFIX(v, x) \
    do { (v)->type = C_IPV6PREFIX; (v)->val.ipv6prefix = (x); } while (0)
#define CONFD_SET_IPV4_AND_PLEN(v, x) \
    do { (v)->type = C_IPV4_AND_PLEN; (v)->val.ipv4prefix = (x); } while (0)
#define CONFD_SET_IPV6_AND_PLEN(v, x) \
    do { (v)->type = C_IPV6_AND_PLEN; (v)->val.ipv6prefix = (x); } while (0)
#define CONFD_SET_DATETIME(v, x) do { (v)->type = C_DATETIME; (v)->val.datetime = (x); } while (0)
#define CONFD_SET_DATE(v, x) do { (v)->type = C_DATE; (v)->val.date = (x); } while (0)
#define CONFD_SET_TIME(v, x) do { (v)->type = C_TIME; (v)->val.time = (x); } while (0)
#define CONFD_SET_DURATION(v, x) do { (v)->type = C_DURATION; (v)->val.duration = (x); } while (0)
#define CONFD_SET_DECIMAL64(v, x) do { (v)->type = C_DECIMAL64; (v)->val.d64 = (x); } while (0)
#define CONFD_SET_IDENTITYREF(v, x) \
    do { (v)->type = C_IDENTITYREF; (v)->val.idref = (x); } while (0)
#define CONFD_SET_DQUAD(v, x) do { (v)->type = C_DQUAD; (v)->val.dquad = (x); } while (0)
#define CONFD_SET_OID(v, p) do { (v)->type = C_OID; (v)->val.oidp = (p); } while (0)
#define CONFD_SET_OBJECTREF(v, p) do { (v)->type = C_OBJECTREF; (v)->val.hkp = (p); } while (0)
#define CONFD_SET_LIST(v, p, n) \
    do { (v)->type = C_LIST; (v)->val.list.ptr = (p); (v)->val.list.size = (unsigned int)(n); } while (0)

#define CONFD_GET_XMLTAG(v) (CONFD_ASSERT((v)->type == C_XMLTAG), (v)->val.xmltag.tag)
#define CONFD_GET_XMLTAG_NS(v) (CONFD_ASSERT((v)->type == C_XMLTAG), (v)->val.xmltag.ns)
#define CONFD_GET_XMLBEGIN(v) (CONFD_ASSERT((v)->type == C_XMLBEGIN), (v)->val.xmltag.tag)
#define CONFD_GET_XMLBEGIN_NS(v) (CONFD_ASSERT((v)->type == C_XMLBEGIN), (v)->val.xmltag.ns)
#define CONFD_GET_XMLEND(v) (CONFD_ASSERT((v)->type == C_XMLEND), (v)->val.xmltag.tag)
#define CONFD_GET_XMLEND_NS(v) (CONFD_ASSERT((v)->type == C_XMLEND), (v)->val.xmltag.ns)
#define CONFD_GET_CDBBEGIN(v) (CONFD_ASSERT((v)->type == C_CDBBEGIN), (v)->val.i32)

#define CONFD_GET_BUFPTR(v) (CONFD_ASSERT((v)->type == C_BUF), (v)->val.buf.ptr)
#define CONFD_GET_CBUFPTR(v) (CONFD_ASSERT((v)->type == C_BUF), (char *)(v)->val.buf.ptr)
#define CONFD_GET_BUFSIZE(v) (CONFD_ASSERT((v)->type == C_BUF), (v)->val.buf.size)
#define CONFD_GET_BINARY_PTR(v) (CONFD_ASSERT((v)->type == C_BINARY), (v)->val.buf.ptr)
#define CONFD_GET_BINARY_SIZE(v) (CONFD_ASSERT((v)->type == C_BINARY), (v)->val.buf.size)
#define CONFD_GET_HEXSTR_PTR(v) (CONFD_ASSERT((v)->type == C_HEXSTR), (v)->val.buf.ptr)
#define CONFD_GET_HEXSTR_SIZE(v) (CONFD_ASSERT((v)->type == C_HEXSTR), (v)->val.buf.size)
#define CONFD_GET_BITBIG_PTR(v) (CONFD_ASSERT((v)->type == C_BITBIG), (v)->val.buf.ptr)
#define CONFD_GET_BITBIG_SIZE(v) (CONFD_ASSERT((v)->type == C_BITBIG), (v)->val.buf.size)
#define CONFD_GET_QNAME_PREFIX_PTR(v) (CONFD_ASSERT((v)->type == C_QNAME), (v)->val.qname.prefix.ptr)
#define CONFD_GET_QNAME_PREFIX_SIZE(v) \
    (CONFD_ASSERT((v)->type == C_QNAME), (v)->val.qname.prefix.size)
#define CONFD_GET_QNAME_NAME_PTR(v) (CONFD_ASSERT((v)->type == C_QNAME), (v)->val.qname.name.ptr)
#define CONFD_GET_QNAME_NAME_SIZE(v) (CONFD_ASSERT((v)->type == C_QNAME), (v)->val.qname.name.size)

#define CONFD_GET_INT8(v) (CONFD_ASSERT((v)->type == C_INT8), (v)->val.i8)
#define CONFD_GET_INT16(v) (CONFD_ASSERT((v)->type == C_INT16), (v)->val.i16)
#define CONFD_GET_INT32(v) (CONFD_ASSERT((v)->type == C_INT32), (v)->val.i32)
#define CONFD_GET_INT64(v) (CONFD_ASSERT((v)->type == C_INT64), (v)->val.i64)
#define CONFD_GET_UINT8(v) (CONFD_ASSERT((v)->type == C_UINT8), (v)->val.u8)
#define CONFD_GET_UINT16(v) (CONFD_ASSERT((v)->type == C_UINT16), (v)->val.u16)
#define CONFD_GET_UINT32(v) (CONFD_ASSERT((v)->type == C_UINT32), (v)->val.u32)
#define CONFD_GET_UINT64(v) (CONFD_ASSERT((v)->type == C_UINT64), (v)->val.u64)
#define CONFD_GET_DOUBLE(v) (CONFD_ASSERT((v)->type == C_DOUBLE), (v)->val.d)
#define CONFD_GET_BOOL(v) (CONFD_ASSERT((v)->type == C_BOOL), (v)->val.boolean)
#define CONFD_GET_ENUM_VALUE(v) (CONFD_ASSERT((v)->type == C_ENUM_VALUE), (v)->val.enumvalue)
#define CONFD_GET_ENUM_HASH(v) (CONFD_ASSERT((v)->type == C_ENUM_HASH), (v)->val.enumhash)
#define CONFD_GET_BIT32(v) (CONFD_ASSERT((v)->type == C_BIT32), (v)->val.b32)
#define CONFD_GET_BIT64(v) (CONFD_ASSERT((v)->type == C_BIT64), (v)->val.b64)
#define CONFD_GET_IPV4(v) (CONFD_ASSERT((v)->type == C_IPV4), (v)->val.ip)
#define CONFD_GET_IPV6(v) (CONFD_ASSERT((v)->type == C_IPV6), (v)->val.ip6)
#define CONFD_GET_IPV4PREFIX(v) (CONFD_ASSERT((v)->type == C_IPV4PREFIX), (v)->val.ipv4prefix)
#define CONFD_GET_IPV6PREFIX(v) (CONFD_ASSERT((v)->type == C_IPV6PREFIX), (v)->val.ipv6prefix)
#define CONFD_GET_IPV4_AND_PLEN(v) \
    (CONFD_ASSERT((v)->type == C_IPV4_AND_PLEN), (v)->val.ipv4prefix)
#define CONFD_GET_IPV6_AND_PLEN(v) \
    (CONFD_ASSERT((v)->type == C_IPV6_AND_PLEN), (v)->val.ipv6prefix)
#define CONFD_GET_DATETIME(v) (CONFD_ASSERT((v)->type == C_DATETIME), (v)->val.datetime)
#define CONFD_GET_DATE(v) (CONFD_ASSERT((v)->type == C_DATE), (v)->val.date)
#define CONFD_GET_TIME(v) (CONFD_ASSERT((v)->type == C_TIME), (v)->val.time)
#define CONFD_GET_DURATION(v) (CONFD_ASSERT((v)->type == C_DURATION), (v)->val.duration)
#define CONFD_GET_DECIMAL64(v) (CONFD_ASSERT((v)->type == C_DECIMAL64), (v)->val.d64)
#define CONFD_GET_IDENTITYREF(v) (CONFD_ASSERT((v)->type == C_IDENTITYREF), (v)->val.idref)
#define CONFD_GET_DQUAD(v) (CONFD_ASSERT((v)->type == C_DQUAD), (v)->val.dquad)
#define CONFD_GET_OID(v) (CONFD_ASSERT((v)->type == C_OID), (v)->val.oidp)
#define CONFD_GET_OBJECTREF(v) (CONFD_ASSERT((v)->type == C_OBJECTREF), (v)->val.hkp)
#define CONFD_GET_LIST(v) (CONFD_ASSERT((v)->type == C_LIST), (v)->val.list.ptr)
#define CONFD_GET_LISTSIZE(v) (CONFD_ASSERT((v)->type == C_LIST), (v)->val.list.size)

/* Tagged values: the setters below fill the tag (namespace 0 unless the
 * variant takes one) and then the value. */
#define CONFD_SET_TAG_NS(tv, n) do { (tv)->tag.ns = (n); } while (0)
#define CONFD_GET_TAG_TAG(tv) ((tv)->tag.tag)
#define CONFD_GET_TAG_NS(tv) ((tv)->tag.ns)
#define CONFD_GET_TAG_VALUE(tv) (&(tv)->v)

#define CONFD_TAG_SET_HEAD_(tv, t) do { (tv)->tag.tag = (t); (tv)->tag.ns = 0; } while (0)

#define CONFD_SET_TAG_XMLTAG(tv, t, n) \
    do { (tv)->tag.tag = (t); (tv)->tag.ns = (n); CONFD_SET_XMLTAG(&(tv)->v, t, n); } while (0)
#define CONFD_SET_TAG_XMLBEGIN(tv, t, n) \
    do { (tv)->tag.tag = (t); (tv)->tag.ns = (n); CONFD_SET_XMLBEGIN(&(tv)->v, t, n); } while (0)
#define CONFD_SET_TAG_XMLEND(tv, t, n) \
    do { (tv)->tag.tag = (t); (tv)->tag.ns = (n); CONFD_SET_XMLEND(&(tv)->v, t, n); } while (0)
#define CONFD_SET_TAG_XMLBEGINDEL(tv, t, n) \
    do { (tv)->tag.tag = (t); (tv)->tag.ns = (n); CONFD_SET_XMLBEGINDEL(&(tv)->v, t, n); } while (0)
#define CONFD_SET_TAG_CDBBEGIN(tv, t, n, index) \
    do { (tv)->tag.tag = (t); (tv)->tag.ns = (n); CONFD_SET_CDBBEGIN(&(tv)->v, index); } while (0)

#define CONFD_SET_TAG_NOEXISTS(tv, t) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_NOEXISTS(&(tv)->v); } while (0)
#define CONFD_SET_TAG_DEFAULT(tv, t) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_DEFAULT(&(tv)->v); } while (0)
#define CONFD_SET_TAG_STR(tv, t, x) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_STR(&(tv)->v, x); } while (0)
#define CONFD_SET_TAG_BUF(tv, t, p, len) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_BUF(&(tv)->v, p, len); } while (0)
#define CONFD_SET_TAG_CBUF(tv, t, p, len) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_CBUF(&(tv)->v, p, len); } while (0)
#define CONFD_SET_TAG_BINARY(tv, t, p, len) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_BINARY(&(tv)->v, p, len); } while (0)
#define CONFD_SET_TAG_HEXSTR(tv, t, p, len) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_HEXSTR(&(tv)->v, p, len); } while (0)
#define CONFD_SET_TAG_BITBIG(tv, t, p, len) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_BITBIG(&(tv)->v, p, len); } while (0)
#define CONFD_SET_TAG_INT8(tv, t, x) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_INT8(&(tv)->v, x); } while (0)
#define CONFD_SET_TAG_INT16(tv, t, x) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_INT16(&(tv)->v, x); } while (0)
#define CONFD_SET_TAG_INT32(tv, t, x) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_INT32(&(tv)->v, x); } while (0)
#define CONFD_SET_TAG_INT64(tv, t, x) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_INT64(&(tv)->v, x); } while (0)
#define CONFD_SET_TAG_UINT8(tv, t, x) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_UINT8(&(tv)->v, x); } while (0)
#define CONFD_SET_TAG_UINT16(tv, t, x) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_UINT16(&(tv)->v, x); } while (0)
#define CONFD_SET_TAG_UINT32(tv, t, x) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_UINT32(&(tv)->v, x); } while (0)
#define CONFD_SET_TAG_UINT64(tv, t, x) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_UINT64(&(tv)->v, x); } while (0)
#define CONFD_SET_TAG_DOUBLE(tv, t, x) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_DOUBLE(&(tv)->v, x); } while (0)
#define CONFD_SET_TAG_BOOL(tv, t, x) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_BOOL(&(tv)->v, x); } while (0)
#define CONFD_SET_TAG_ENUM_VALUE(tv, t, x) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_ENUM_VALUE(&(tv)->v, x); } while (0)
#define CONFD_SET_TAG_ENUM_HASH(tv, t, x) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_ENUM_HASH(&(tv)->v, x); } while (0)
#define CONFD_SET_TAG_BIT32(tv, t, x) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_BIT32(&(tv)->v, x); } while (0)
#define CONFD_SET_TAG_BIT64(tv, t, x) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_BIT64(&(tv)->v, x); } while (0)
#define CONFD_SET_TAG_IPV4(tv, t, x) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_IPV4(&(tv)->v, x); } while (0)
#define CONFD_SET_TAG_IPV6(tv, t, x) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_IPV6(&(tv)->v, x); } while (0)
#define CONFD_SET_TAG_IPV4PREFIX(tv, t, x) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_IPV4PREFIX(&(tv)->v, x); } while (0)
#define CONFD_SET_TAG_IPV6PREFIX(tv, t, x) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_IPV6PREFIX(&(tv)->v, x); } while (0)
#define CONFD_SET_TAG_DATETIME(tv, t, x) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_DATETIME(&(tv)->v, x); } while (0)
#define CONFD_SET_TAG_DATE(tv, t, x) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_DATE(&(tv)->v, x); } while (0)
#define CONFD_SET_TAG_TIME(tv, t, x) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_TIME(&(tv)->v, x); } while (0)
#define CONFD_SET_TAG_DURATION(tv, t, x) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_DURATION(&(tv)->v, x); } while (0)
#define CONFD_SET_TAG_DECIMAL64(tv, t, x) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_DECIMAL64(&(tv)->v, x); } while (0)
#define CONFD_SET_TAG_IDENTITYREF(tv, t, x) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_IDENTITYREF(&(tv)->v, x); } while (0)
#define CONFD_SET_TAG_DQUAD(tv, t, x) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_DQUAD(&(tv)->v, x); } while (0)
#define CONFD_SET_TAG_OID(tv, t, p) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_OID(&(tv)->v, p); } while (0)
#define CONFD_SET_TAG_OBJECTREF(tv, t, p) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_OBJECTREF(&(tv)->v, p); } while (0)
#define CONFD_SET_TAG_LIST(tv, t, p, n) \
    do { CONFD_TAG_SET_HEAD_(tv, t); CONFD_SET_LIST(&(tv)->v, p, n); } while (0)

/* ------------------------------------------------------------------------ */
/* SNMP variable bindings                                                    */
/* ------------------------------------------------------------------------ */

enum confd_snmp_var_type {
    CONFD_SNMP_VARIABLE = 1, /* var.name is a MIB object name */
    CONFD_SNMP_OID = 2,      /* var.oid is the full instance OID */
    CONFD_SNMP_COL_ROW = 3   /* var.cr names a column and a row index */
};

struct confd_snmp_col_row {
    char column[256];
    struct confd_snmp_oid rowindex;
};

enum confd_snmp_type {
    CONFD_SNMP_NULL = 0,
    CONFD_SNMP_INTEGER = 1,
    CONFD_SNMP_Interger32 = 2, /* spelt this way in the published API */
    CONFD_SNMP_OCTET_STRING = 3,
    CONFD_SNMP_OBJECT_IDENTIFIER = 4,
    CONFD_SNMP_IpAddress = 5,
    CONFD_SNMP_Counter32 = 6,
    CONFD_SNMP_TimeTicks = 7,
    CONFD_SNMP_Opaque = 8,
    CONFD_SNMP_Counter64 = 9,
    CONFD_SNMP_Unsigned32 = 10
};

struct confd_snmp_varbind {
    enum confd_snmp_var_type type;
    union {
        char name[256];
        struct confd_snmp_oid oid;
        struct confd_snmp_col_row cr;
    } var;
    confd_value_t val; /* C_NOEXISTS: the agent looks the value up itself */
    enum confd_snmp_type vartype; /* not used when sending notifications */
};

/* ------------------------------------------------------------------------ */
/* Return codes and errors                                                   */
/* ------------------------------------------------------------------------ */

#define CONFD_DELAYED_RESPONSE 2
#define CONFD_ACCUMULATE 1
#define CONFD_OK 0
#define CONFD_ERR -1
#define CONFD_EOF -2
#define CONFD_VALIDATION_WARN -3
#define CONFD_ALREADY_LOCKED -4
#define CONFD_IN_USE -5

/* Values of confd_errno after a call returned CONFD_ERR. */
#define CONFD_ERR_NOEXISTS 1
#define CONFD_ERR_ALREADY_EXISTS 2
#define CONFD_ERR_ACCESS_DENIED 3
#define CONFD_ERR_NOT_WRITABLE 4
#define CONFD_ERR_BADTYPE 5
#define CONFD_ERR_NOTCREATABLE 6
#define CONFD_ERR_NOTDELETABLE 7
#define CONFD_ERR_BADPATH 8
#define CONFD_ERR_NOSTACK 9
#define CONFD_ERR_LOCKED 10
#define CONFD_ERR_INUSE 11
#define CONFD_ERR_NOTSET 12
#define CONFD_ERR_NON_UNIQUE 13
#define CONFD_ERR_BAD_KEYREF 14
#define CONFD_ERR_TOO_FEW_ELEMS 15
#define CONFD_ERR_TOO_MANY_ELEMS 16
#define CONFD_ERR_BADSTATE 17
#define CONFD_ERR_INTERNAL 18
#define CONFD_ERR_EXTERNAL 19 /* the error came from an application callback */
#define CONFD_ERR_MALLOC 20
#define CONFD_ERR_PROTOUSAGE 21
#define CONFD_ERR_NOSESSION 22
#define CONFD_ERR_TOOMANYTRANS 23
#define CONFD_ERR_OS 24
#define CONFD_ERR_HA_CONNECT 25
#define CONFD_ERR_HA_CLOSED 26
#define CONFD_ERR_HA_BADFXS 27
#define CONFD_ERR_HA_BADTOKEN 28
#define CONFD_ERR_HA_BADNAME 29
#define CONFD_ERR_HA_BIND 30
#define CONFD_ERR_HA_NOTICK 31
#define CONFD_ERR_VALIDATION_WARNING 32
#define CONFD_ERR_SUBAGENT_DOWN 33
#define CONFD_ERR_LIB_NOT_INITIALIZED 34
#define CONFD_ERR_TOO_MANY_SESSIONS 35
#define CONFD_ERR_BAD_CONFIG 36
#define CONFD_ERR_RESOURCE_DENIED 37
#define CONFD_ERR_INCONSISTENT_VALUE 38
#define CONFD_ERR_APPLICATION_INTERNAL 39
#define CONFD_ERR_UNSET_CHOICE 40
#define CONFD_ERR_MUST_FAILED 41
#define CONFD_ERR_MISSING_INSTANCE 42
#define CONFD_ERR_INVALID_INSTANCE 43
#define CONFD_ERR_UNAVAILABLE 44
#define CONFD_ERR_EOF 45
#define CONFD_ERR_NOTMOVABLE 46
#define CONFD_ERR_HA_WITH_UPGRADE 47
#define CONFD_ERR_TIMEOUT 48
#define CONFD_ERR_ABORTED 49
#define CONFD_ERR_XPATH 50
#define CONFD_ERR_NOT_IMPLEMENTED 51
#define CONFD_ERR_HA_BADVSN 52
#define CONFD_ERR_POLICY_FAILED 53
#define CONFD_ERR_POLICY_COMPILATION_FAILED 54
#define CONFD_ERR_POLICY_EVALUATION_FAILED 55
#define NCS_ERR_CONNECTION_REFUSED 56
#define CONFD_ERR_START_FAILED 57
#define CONFD_ERR_DATA_MISSING 58
#define CONFD_ERR_CLI_CMD 59
#define CONFD_ERR_UPGRADE_IN_PROGRESS 60
#define CONFD_ERR_NOTRANS 61
#define NCS_ERR_SERVICE_CONFLICT 62
#define NCS_ERR_CONNECTION_TIMEOUT 63
#define NCS_ERR_CONNECTION_CLOSED 64
#define NCS_ERR_DEVICE 65
#define NCS_ERR_TEMPLATE 66

/* Error class attached to a failed callback (confd_trans_seterr_extended). */
enum confd_errcode {
    CONFD_ERRCODE_IN_USE = 0,
    CONFD_ERRCODE_RESOURCE_DENIED = 1,
    CONFD_ERRCODE_INCONSISTENT_VALUE = 2,
    CONFD_ERRCODE_ACCESS_DENIED = 3,
    CONFD_ERRCODE_APPLICATION = 4,
    CONFD_ERRCODE_APPLICATION_INTERNAL = 5,
    CONFD_ERRCODE_PROTO_USAGE = 6,
    CONFD_ERRCODE_INTERNAL = 7,
    CONFD_ERRCODE_DATA_MISSING = 8,
    CONFD_ERRCODE_INTERRUPT = 9
};

/* The error a callback set for its reply; the library owns str. */
struct confd_error {
    enum confd_errcode code;
    struct xml_tag apptag; /* error-app-tag, {0, 0} if none */
    char *str;             /* NULL if no text was set */
    void *info;            /* library-internal */
};

/* Per-thread error number of the last failed library call. */
extern int *confd_errno_location(void);
#define confd_errno (*confd_errno_location())

/* Returns a static text describing an errno code; never NULL. */
extern char *confd_strerror(int code);
/* Returns extra text about the calling thread's last error ("" if none). */
extern char *confd_lasterr(void);
/* Prints the formatted message to stderr and exits with status 1. Not
 * declared noreturn, as in the router's library: callers still need their
 * own return after it to satisfy the compiler. */
extern void confd_fatal(const char *fmt, ...) CONFD_PRINTF_ATTR_(1, 2);

/* Symbolic name of each log number of confd_logsyms.h without the CONFD_
 * prefix ("SNMP_AUTHENTICATION_FAILED") and a one-line description; NULL for
 * numbers without a message. Numbers differ between releases, so match
 * messages by name. */
extern char *confd_log_symbols[];
extern char *confd_log_descriptions[];

/* Attributes of configuration nodes (get_attrs / set_attr). */
#define CONFD_ATTR_TAGS 0x80000000
#define CONFD_ATTR_ANNOTATION 0x80000001
#define CONFD_ATTR_INACTIVE 0
#define CONFD_ATTR_BACKPOINTER 0x80000003

/* ------------------------------------------------------------------------ */
/* Library set-up                                                            */
/* ------------------------------------------------------------------------ */

enum confd_debug_level {
    CONFD_SILENT = 0,     /* no printouts */
    CONFD_DEBUG = 1,      /* error conditions */
    CONFD_TRACE = 2,      /* callbacks and MAAPI calls */
    CONFD_PROTO_TRACE = 3 /* the wire protocol as well */
};

/* Initialises the library; must come before any other call. Use the
 * confd_init() macro, which passes this header's version and sizes. */
extern void confd_init_vsn_sz(const char *name, FILE *estream, const enum confd_debug_level debug,
                              int vsn, int maxdepth, int maxkeylen);
#define confd_init(name, estream, debug) \
    confd_init_vsn_sz((name), (estream), (debug), CONFD_LIB_API_VSN, MAXDEPTH, MAXKEYLEN)

/* Changes the debug level and stream; returns CONFD_OK. */
extern int confd_set_debug(enum confd_debug_level debug, FILE *estream);

/* Non-zero: library messages also go to syslog. */
extern int confd_lib_use_syslog;
/* When set, receives every library log message instead of syslog. */
extern void (*confd_user_log_hook)(int syslogprio, const char *fmt, va_list ap);

/* ------------------------------------------------------------------------ */
/* Sessions and transactions                                                 */
/* ------------------------------------------------------------------------ */

enum confd_dbname {
    CONFD_NO_DB = 0,
    CONFD_CANDIDATE = 1,
    CONFD_RUNNING = 2,
    CONFD_STARTUP = 3,
    CONFD_OPERATIONAL = 4,
    CONFD_TRANSACTION = 5,
    CONFD_PRE_COMMIT_RUNNING = 6
};

enum confd_trans_mode {
    CONFD_READ = 1,
    CONFD_READ_WRITE = 2
};

enum confd_proto {
    CONFD_PROTO_UNKNOWN = 0,
    CONFD_PROTO_TCP = 1,
    CONFD_PROTO_SSH = 2,
    CONFD_PROTO_SYSTEM = 3,
    CONFD_PROTO_CONSOLE = 4,
    CONFD_PROTO_SSL = 5,
    CONFD_PROTO_HTTP = 6,
    CONFD_PROTO_HTTPS = 7,
    CONFD_PROTO_UDP = 8 /* SNMP sessions */
};

enum confd_usess_lock_mode {
    CONFD_USESS_LOCK_MODE_NONE = 0,
    CONFD_USESS_LOCK_MODE_PRIVATE = 1,
    CONFD_USESS_LOCK_MODE_EXCLUSIVE = 2,
    CONFD_USESS_LOCK_MODE_SHARED = 3
};

enum confd_find_next_type {
    CONFD_FIND_NEXT = 0,
    CONFD_FIND_SAME_OR_NEXT = 1
};

/* Diff iteration: what happened to a node, and what to do next. */
enum confd_iter_op {
    MOP_CREATED = 1,
    MOP_DELETED = 2,
    MOP_MODIFIED = 3,
    MOP_VALUE_SET = 4,
    MOP_MOVED_AFTER = 5,
    MOP_ATTR_SET = 6
};

enum confd_iter_ret {
    ITER_STOP = 1,
    ITER_RECURSE = 2,
    ITER_CONTINUE = 3,
    ITER_SUSPEND = 4,
    ITER_UP = 5
};

enum confd_iter_flags {
    ITER_WANT_PREV = (1 << 0),
    ITER_WANT_ANCESTOR_DELETE = (1 << 1),
    ITER_WANT_ATTR = (1 << 2),
    ITER_WANT_SCHEMA_ORDER = (1 << 4),
    ITER_WANT_LEAF_FIRST_ORDER = (1 << 5),
    ITER_WANT_LEAF_LAST_ORDER = (1 << 6),
    ITER_WANT_REVERSE = (1 << 7),
    ITER_WANT_P_CONTAINER = (1 << 8)
};

struct confd_daemon_ctx;
struct confd_tr_item;

/* Action context carried inside a user session; the action API is not
 * part of this subset, so only an application pointer is public. */
struct confd_action_ctx {
    int type;
    void *a_opaque;
    void *lib_internal;
};

/* The user session a transaction runs in. */
struct confd_user_info {
    int af; /* AF_INET or AF_INET6: which member of ip is valid */
    union {
        struct in_addr v4;
        struct in6_addr v6;
    } ip;
    uint16_t port;
    char username[MAXUSERNAMELEN];
    int usid;
    char context[MAXCTXLEN];
    enum confd_proto proto;
    struct confd_action_ctx actx;
    time_t logintime;
    enum confd_usess_lock_mode lmode;
    char snmp_v3_ctx[255]; /* "" unless the session is an SNMP one */
    char clearpass[255];
    int flags;
    void *u_opaque;
    void *lib_internal;
};

/* Request details the northbound agent passed along. */
union confd_request_data {
    struct {
        uint32_t request_id; /* SNMP PDU request-id */
    } snmp;
};

/* A transaction as seen by the transaction and data callbacks. */
struct confd_trans_ctx {
    int fd;                          /* worker socket chosen in init() */
    int vfd;                         /* validation socket */
    struct confd_daemon_ctx *dx;
    enum confd_trans_mode mode;
    enum confd_dbname dbname;
    struct confd_user_info *uinfo;
    void *t_opaque;                  /* the application's per-transaction data */
    void *v_opaque;
    struct confd_error error;
    struct confd_tr_item *accumulated;
    int thandle;                     /* handle for maapi_attach() and friends */
    void *cb_opaque;                 /* from the data callback registration */
    void *vcb_opaque;
    int secondary_index;
    int validation_info;
    char *callpoint_opaque;
    char *validate_opaque;
    union confd_request_data request_data;
    int hide_inactive;
    /* library-internal from here on */
    int lib_state;
    int lib_flags;
    void *lib_internal;
};

/* ------------------------------------------------------------------------ */
/* Schema information                                                        */
/* ------------------------------------------------------------------------ */

/* Type definition from the loaded schemas; only the library looks inside. */
struct confd_type;

struct confd_nsinfo {
    const char *uri;
    const char *prefix;
    uint32_t hash;
    const char *revision;
    const char *module;
};

/* How a list's entries are ordered. */
#define CS_NODE_CMP_NORMAL 0
#define CS_NODE_CMP_SNMP 1         /* by the SNMP index OID */
#define CS_NODE_CMP_SNMP_IMPLIED 2 /* same, last index IMPLIED */
#define CS_NODE_CMP_USER 3
#define CS_NODE_CMP_UNSORTED 4

/* Bits of confd_cs_node_info.flags. */
#define CS_NODE_IS_DYN (1 << 0) /* a list */
#define CS_NODE_IS_WRITE (1 << 1)
#define CS_NODE_IS_CDB (1 << 2)
#define CS_NODE_IS_ACTION (1 << 3)
#define CS_NODE_IS_PARAM (1 << 4)
#define CS_NODE_IS_RESULT (1 << 5)
#define CS_NODE_IS_NOTIF (1 << 6)
#define CS_NODE_IS_CASE (1 << 7)
#define CS_NODE_IS_CONTAINER (1 << 8)
#define CS_NODE_HAS_WHEN (1 << 9)
#define CS_NODE_HAS_DISPLAY_WHEN (1 << 10)
#define CS_NODE_HAS_META_DATA (1 << 11)
#define CS_NODE_IS_WRITE_ALL (1 << 12)
#define CS_NODE_IS_LEAF_LIST (1 << 13)
#define CS_NODE_IS_LEAFREF (1 << 14)

struct confd_cs_choice;
struct confd_cs_meta_data;

struct confd_cs_node_info {
    uint32_t *keys;              /* key tags of a list, 0-terminated; NULL otherwise */
    int minOccurs;
    int maxOccurs;               /* -1 = unbounded */
    enum confd_vtype shallow_type; /* value type of a leaf, C_XMLTAG for inner nodes */
    struct confd_type *type;     /* NULL for inner nodes */
    confd_value_t *defval;       /* YANG default, NULL if none */
    struct confd_cs_choice *choices;
    int flags;                   /* CS_NODE_* bits */
    uint8_t cmp;                 /* CS_NODE_CMP_* */
    struct confd_cs_meta_data *meta_data;
};

/* One node of a loaded schema tree. */
struct confd_cs_node {
    uint32_t tag;
    uint32_t ns;
    struct confd_cs_node_info info;
    struct confd_cs_node *parent;
    struct confd_cs_node *children;
    struct confd_cs_node *next;
    void *opaque; /* free for the application */
};

/* Loads names, namespaces and schema trees from ConfD at srv; CONFD_OK or CONFD_ERR. */
extern int confd_load_schemas(const struct sockaddr *srv, int srv_sz);
/* Top node of a namespace's tree; NULL if unknown or not loaded. */
extern struct confd_cs_node *confd_find_cs_root(int ns);
/* Schema node of the first len elements (from the top) of a keypath; NULL if none. */
extern struct confd_cs_node *confd_find_cs_node(const confd_hkeypath_t *hkeypath, int len);
/* Child of parent with the given tag; NULL if none. */
extern struct confd_cs_node *confd_find_cs_node_child(const struct confd_cs_node *parent,
                                                      struct xml_tag xmltag);
/* Node reached by a formatted path from start (or from the root if it
 * begins with '/'); NULL if the path leads nowhere. */
extern struct confd_cs_node *confd_cs_node_cd(const struct confd_cs_node *start, const char *fmt,
                                              ...);
/* Sets *listp to the library's namespace array; returns its length. */
extern int confd_get_nslist(struct confd_nsinfo **listp);
/* Name of a hashed tag; NULL if unknown. */
extern char *confd_hash2str(uint32_t hash);
/* Hash of a node name; 0 if unknown. */
extern uint32_t confd_str2hash(const char *str);
/* Prefix of a namespace; NULL if unknown. */
extern char *confd_ns2prefix(uint32_t ns);
/* Type of a named typedef in a namespace (0 = built-in types); NULL if none. */
extern struct confd_type *confd_find_ns_type(uint32_t nshash, const char *name);

/* Printing. Each returns the length the full text has (snprintf style, so a
 * result >= bufsiz means truncated) and never a negative number. */
extern int confd_pp_kpath(char *buf, int bufsiz, const confd_hkeypath_t *hkeypath);
extern int confd_pp_kpath_len(char *buf, int bufsiz, const confd_hkeypath_t *hkeypath, int len);
extern int confd_xpath_pp_kpath(char *buf, int bufsiz, uint32_t ns,
                                const confd_hkeypath_t *hkeypath);
extern int confd_pp_value(char *buf, int bufsiz, const confd_value_t *v);

/* Schema-aware conversion; length / CONFD_OK, or CONFD_ERR. */
extern int confd_val2str(struct confd_type *type, const confd_value_t *val, char *buf, int bufsiz);
extern int confd_str2val(struct confd_type *type, const char *str, confd_value_t *val);
/* Static name of an enumeration value; NULL if not an enum of that type. */
extern char *confd_val2str_ptr(struct confd_type *type, const confd_value_t *val);

/* Value memory. confd_free_value() releases storage the library allocated
 * inside a value (strings, binaries, OIDs, lists); never use it on callback
 * arguments. */
extern void confd_free_value(confd_value_t *v);
/* Deep copy of v into newv; returns newv, or NULL when out of memory. */
extern confd_value_t *confd_value_dup_to(const confd_value_t *v, confd_value_t *newv);
/* Heap-allocated deep copy of v; NULL when out of memory. */
extern confd_value_t *confd_value_dup(const confd_value_t *v);
/* Frees a copy made by confd_value_dup(). */
extern void confd_free_dup_value(confd_value_t *v);
/* Heap-allocated deep copy of a keypath; NULL when out of memory. */
extern confd_hkeypath_t *confd_hkeypath_dup(const confd_hkeypath_t *src);
/* Frees a keypath made by confd_hkeypath_dup(). */
extern void confd_free_hkeypath(confd_hkeypath_t *hkp);

#ifdef __cplusplus
}
#endif

#endif /* LEISOBEK_CONFD_LIB_H */
