// Text forms of keypaths and key values, and expansion of ConfD path formats (%x, %h, %ip4, ...).
#pragma once

#include <cstdarg>
#include <string>

#include "confd_lib.h"

namespace libconfd {

// A value as written between the braces of a path: integers and enumerations
// in decimal, binaries as lower-case hex without separators, addresses in
// their usual notation, OIDs dotted, booleans true/false, strings as they are
// (in double quotes, with \" and \\ escaped, when empty or holding blanks,
// braces or quotes). Other types print as confd_pp_value() does.
std::string key_text(const confd_value_t &v);

// "/a/b{k1 k2}/c" of the first len elements (from the top) of a keypath;
// names from the loaded schemas, "tag<N>" when unknown. len is clamped to
// 0..kp.len.
std::string kpath_text(const confd_hkeypath_t &kp, int len);

// Copies text into buf with snprintf semantics (always NUL-terminated when
// bufsiz > 0); returns the full length, never negative.
int copy_out(const std::string &text, char *buf, int bufsiz);

// Expands a ConfD path format: %d %i %u %ld %lu %lld %llu %x (confd_value_t *)
// %*x (int n, confd_value_t *: n keys separated by blanks) %s %c %ip4
// (struct in_addr *) %ip6 (struct in6_addr *) %h (confd_hkeypath_t *, the
// whole path) %*h (int len, confd_hkeypath_t *: its first len elements) and
// %%. Consumes ap. Returns false with a reason for an unknown conversion or a
// NULL pointer argument.
bool format_path(std::string &out, const char *fmt, va_list ap, std::string &err);

} // namespace libconfd
