// Field scanners for the kernel's text tables: each reads one field from a line and moves past it.
//
// Every scanner takes a cursor into a NUL-terminated line, first skips the
// characters that cannot start its field, reads the field and leaves the
// cursor just after it. When the end of the line comes before the field they
// return -1 and store nothing (scan_dec_u64 excepted, see there); the cursor
// is then left at the end of the line.
#ifndef LEISOBEK_COLLECT_SCAN_H
#define LEISOBEK_COLLECT_SCAN_H

#include <cstddef>
#include <cstdint>

// Value of each character as a hex digit of either case, or -1: the readers
// run over every character of tables with tens of thousands of lines.
struct hex_digit_table {
    int8_t value[256];
    constexpr hex_digit_table() : value()
    {
        for (int c = 0; c < 256; c++)
            value[c] = c >= '0' && c <= '9'   ? static_cast<int8_t>(c - '0')
                       : c >= 'a' && c <= 'f' ? static_cast<int8_t>(c - 'a' + 10)
                       : c >= 'A' && c <= 'F' ? static_cast<int8_t>(c - 'A' + 10)
                                              : -1;
    }
};
inline constexpr hex_digit_table hex_digits;

// Value of a hex digit, or -1 for any other character.
inline int hex_digit_value(char c)
{
    return hex_digits.value[static_cast<unsigned char>(c)];
}

// Reads text that is exactly 1 to 8 hex digits long (digits, nothing else)
// into *value. Returns false, storing nothing, for any other text.
bool hex_word(const char *text, size_t digits, uint32_t *value);

// Decimal integer; a "-" right before the first digit negates it. Digits
// beyond the range of 32 bits wrap. Returns 0, or -1 at the end of the line.
int scan_dec_int(const char **cursor, int32_t *out);

// Unsigned decimal, accumulated in 64 bits; stores the low 32 bits. Returns 0,
// or -1 at the end of the line.
int scan_dec_u32(const char **cursor, uint32_t *out);

// Unsigned 64-bit decimal. *out is zeroed before the field is looked for, so
// it is 0 after a failed scan too. Returns 0, or -1 at the end of the line.
int scan_dec_u64(const char **cursor, uint64_t *out);

// Hexadecimal number, digits of either case; stores the low 32 bits. Returns
// 0, or -1 at the end of the line.
int scan_hex_u32(const char **cursor, uint32_t *out);

// Identifier of letters, digits and "_", copied NUL-terminated to out. A name
// longer than size - 1 is consumed whole but stored truncated. Returns 0, or
// -1 at the end of the line (or when size is 0).
int scan_ident(const char **cursor, char *out, size_t size);

// Hex digit pairs into bytes, at most size of them. An odd number of digits is
// right-aligned ("abc" gives 0a bc). Returns the number of digits read, or -1
// at the end of the line or when the bytes would not fit (then nothing is
// stored and the cursor stays before the digits).
int scan_hex_bytes(const char **cursor, uint8_t *out, size_t size);

// Address as the kernel prints it in /proc/net: up to 8 hex digits are an IPv4
// address (type 1, 4 bytes), more are an IPv6 address (type 2, 16 bytes) made
// of four 8-digit words; only the first 127 digits are kept. Each 32-bit word
// is stored in host byte order, byte-swapped when swap is set. The kernel
// prints the words of /proc/net/tcp* in host order, so those files are read
// with swap off; /proc/net/if_inet6 prints the bytes in network order and is
// read with swap on. *all_zero is 1 when every digit consumed was "0".
// Returns the address length (4 or 16), or -1 at the end of the line.
int scan_hex_addr(const char **cursor, uint8_t *address, int32_t *type, int *all_zero, int swap);

// True when text is null or holds white space only.
bool is_blank(const char *text);

#endif
