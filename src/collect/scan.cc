// Field scanners for the kernel's text tables (see scan.h).
#include "scan.h"

#include <cctype>
#include <cstring>

namespace
{

bool is_dec(char c)
{
    return c >= '0' && c <= '9';
}

bool is_ident(char c)
{
    return is_dec(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

// Moves the cursor to the first character accepted by wanted; false when the
// line ends first (the cursor is then on the terminating NUL).
template <typename Pred> bool skip_to(const char **cursor, Pred wanted)
{
    const char *p = *cursor;
    while (*p && !wanted(*p))
        p++;
    *cursor = p;
    return *p != '\0';
}

// Reads the decimal digits at the cursor, wrapping at 2^64.
uint64_t read_dec(const char **cursor)
{
    const char *p = *cursor;
    uint64_t value = 0;
    while (is_dec(*p))
        value = value * 10 + static_cast<uint64_t>(*p++ - '0');
    *cursor = p;
    return value;
}

uint32_t swap32(uint32_t word)
{
    return __builtin_bswap32(word);
}

} // namespace

bool hex_word(const char *text, size_t digits, uint32_t *value)
{
    if (digits == 0 || digits > 8) return false;
    uint32_t v = 0;
    for (size_t i = 0; i < digits; i++) {
        int d = hex_digit_value(text[i]);
        if (d < 0) return false;
        v = (v << 4) | static_cast<uint32_t>(d);
    }
    *value = v;
    return true;
}

int scan_dec_int(const char **cursor, int32_t *out)
{
    const char *start = *cursor;
    if (!skip_to(cursor, is_dec)) return -1;
    bool negative = *cursor > start && (*cursor)[-1] == '-';
    uint32_t value = static_cast<uint32_t>(read_dec(cursor));
    if (negative) value = 0u - value;
    *out = static_cast<int32_t>(value);
    return 0;
}

int scan_dec_u32(const char **cursor, uint32_t *out)
{
    if (!skip_to(cursor, is_dec)) return -1;
    *out = static_cast<uint32_t>(read_dec(cursor));
    return 0;
}

int scan_dec_u64(const char **cursor, uint64_t *out)
{
    *out = 0;
    if (!skip_to(cursor, is_dec)) return -1;
    *out = read_dec(cursor);
    return 0;
}

int scan_hex_u32(const char **cursor, uint32_t *out)
{
    if (!skip_to(cursor, [](char c) { return hex_digit_value(c) >= 0; })) return -1;
    const char *p = *cursor;
    uint32_t value = 0;
    for (int digit; (digit = hex_digit_value(*p)) >= 0; p++)
        value = (value << 4) | static_cast<uint32_t>(digit);
    *cursor = p;
    *out = value;
    return 0;
}

int scan_ident(const char **cursor, char *out, size_t size)
{
    if (size == 0 || !skip_to(cursor, is_ident)) return -1;
    const char *start = *cursor;
    const char *p = start;
    while (is_ident(*p))
        p++;
    size_t length = static_cast<size_t>(p - start);
    if (length > size - 1) length = size - 1;
    memcpy(out, start, length);
    out[length] = '\0';
    *cursor = p;
    return 0;
}

int scan_hex_bytes(const char **cursor, uint8_t *out, size_t size)
{
    if (!skip_to(cursor, [](char c) { return hex_digit_value(c) >= 0; })) return -1;
    const char *start = *cursor;
    size_t digits = 0;
    while (hex_digit_value(start[digits]) >= 0)
        digits++;
    size_t bytes = (digits + 1) / 2;
    if (bytes > size) return -1;
    // An odd count reads as if a leading "0" stood before the first digit,
    // which is the same as shifting the packed bytes right by one nibble.
    size_t nibble = digits % 2;
    memset(out, 0, bytes);
    for (size_t i = 0; i < digits; i++, nibble++) {
        uint8_t value = static_cast<uint8_t>(hex_digit_value(start[i]));
        out[nibble / 2] |= (nibble % 2) ? value : static_cast<uint8_t>(value << 4);
    }
    *cursor = start + digits;
    return static_cast<int>(digits);
}

int scan_hex_addr(const char **cursor, uint8_t *address, int32_t *type, int *all_zero, int swap)
{
    if (!skip_to(cursor, [](char c) { return hex_digit_value(c) >= 0; })) return -1;
    const char *start = *cursor;
    const char *p = start;
    int zero = 1;
    for (; hex_digit_value(*p) >= 0; p++)
        if (*p != '0') zero = 0;
    size_t kept = static_cast<size_t>(p - start);
    if (kept > 127) kept = 127;
    *cursor = p;
    *all_zero = zero;

    if (kept < 9) {
        uint32_t word = 0;
        for (size_t i = 0; i < kept; i++)
            word = (word << 4) | static_cast<uint32_t>(hex_digit_value(start[i]));
        memcpy(address, &word, sizeof word);
        *type = 1;
        return 4;
    }
    // Four words of up to eight digits each; digits past the 32nd are not
    // part of the address, a short tail leaves the missing words 0.
    for (size_t w = 0; w < 4; w++) {
        uint32_t word = 0;
        for (size_t i = w * 8; i < kept && i < w * 8 + 8; i++)
            word = (word << 4) | static_cast<uint32_t>(hex_digit_value(start[i]));
        if (swap) word = swap32(word);
        memcpy(address + 4 * w, &word, sizeof word);
    }
    *type = 2;
    return 16;
}

bool is_blank(const char *text)
{
    if (!text) return true;
    for (; *text; text++)
        if (!isspace(static_cast<unsigned char>(*text))) return false;
    return true;
}
