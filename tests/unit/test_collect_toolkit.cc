// Unit tests of the collection toolkit: record lists, timed caches and field scanners.
#include "scan.h"
#include "statslist.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace
{

struct item {
    int32_t key;
    int32_t tag; // append order, tells equal keys apart
};

int item_compare(const void *a, const void *b)
{
    return stats_num_compare(static_cast<const item *>(a)->key, static_cast<const item *>(b)->key);
}

class StatsListTest : public ::testing::Test
{
  protected:
    void TearDown() override { stats_list_free(&list); }
    void append(std::vector<int32_t> keys)
    {
        for (int32_t key : keys) {
            int32_t tag = list.count;
            *static_cast<item *>(stats_list_at(&list, tag)) = {key, tag};
        }
    }
    // Key and tag of every position, as "key/tag" words.
    std::string positions() const
    {
        std::string out;
        for (int32_t p = 0; p < list.count; p++) {
            auto *rec = static_cast<item *>(stats_list_record(&list, p));
            out += std::to_string(rec->key) + "/" + std::to_string(rec->tag) + " ";
        }
        return out;
    }
    stats_list list = {0, 0, 0, sizeof(item), nullptr, nullptr, item_compare};
};

// Verifies that selecting past the end extends the list with zeroed records, and that sorting
// permutes positions only, equal records staying in append order.
TEST_F(StatsListTest, GrowSelectAndSort)
{
    auto *rec = static_cast<item *>(stats_list_at(&list, 9));
    EXPECT_EQ(list.count, 10);
    EXPECT_EQ(rec->key, 0);
    EXPECT_EQ(stats_list_at(&list, -2), nullptr);

    list.count = 0;
    append({30, 10, 20, 10});
    stats_list_sort(&list);
    EXPECT_EQ(positions(), "10/1 10/3 20/2 30/0 ");
    EXPECT_EQ(reinterpret_cast<item *>(list.storage)[0].key, 30);
}

// Verifies that the binary search answers what a scan from position 0 for the first equal record
// answers, for present and absent keys.
TEST_F(StatsListTest, FindAgreesWithALinearScan)
{
    std::mt19937 random(7);
    for (int i = 0; i < 300; i++)
        append({static_cast<int32_t>(random() % 60)});
    stats_list_sort(&list);
    for (int32_t key = -1; key <= 61; key++) {
        item wanted = {key, 0};
        int32_t linear = -1;
        for (int32_t p = list.count - 1; p >= 0; p--)
            if (item_compare(&wanted, stats_list_record(&list, p)) == 0) linear = p;
        EXPECT_EQ(stats_list_find(&list, &wanted, nullptr), linear) << "key " << key;
    }
}

// Verifies that every scanner at the end of a line (trailing blanks only) returns -1 and stores
// nothing, except the 64-bit one which clears first.
TEST(Scanners, EndOfLineStoresNothing)
{
    const char tail[] = " \n";
    const char *p = tail;
    int32_t i = 7;
    uint32_t u = 5;
    uint64_t big = 8;
    char name[8] = "keep";
    uint8_t addr[16] = {9};
    int32_t type = 7;
    int zero = 5;
    EXPECT_EQ(scan_dec_int(&p, &i), -1);
    EXPECT_EQ(p, tail + 2);
    EXPECT_EQ(scan_dec_u32(&(p = tail), &u), -1);
    EXPECT_EQ(scan_hex_u32(&(p = tail), &u), -1);
    EXPECT_EQ(scan_ident(&(p = tail), name, sizeof name), -1);
    EXPECT_EQ(scan_hex_bytes(&(p = tail), addr, sizeof addr), -1);
    EXPECT_EQ(scan_hex_addr(&(p = tail), addr, &type, &zero, 0), -1);
    EXPECT_EQ(scan_dec_u64(&(p = tail), &big), -1);
    EXPECT_EQ(i, 7);
    EXPECT_EQ(u, 5u);
    EXPECT_STREQ(name, "keep");
    EXPECT_EQ(addr[0], 9);
    EXPECT_EQ(type + zero, 12);
    EXPECT_EQ(big, 0u);
}

// Verifies the scanners on a line of mixed fields: MaxConn's sign, 32-bit truncation, hex of either
// case, bounded identifiers, right-aligned odd byte strings, and that each resumes where the
// previous one stopped.
TEST(Scanners, FieldsInSequence)
{
    const char line[] = "Tcp: 1 -1 4294967297 18446744073709551615 0A:fF x12 Ip6_In abc 0102030405";
    const char *p = line;
    int32_t i1, i2, i3;
    uint32_t u, h1, h2;
    uint64_t big;
    char name[5];
    uint8_t bytes[4];
    ASSERT_EQ(scan_dec_int(&p, &i1) + scan_dec_int(&p, &i2) + scan_dec_u32(&p, &u), 0);
    ASSERT_EQ(scan_dec_u64(&p, &big) + scan_hex_u32(&p, &h1) + scan_hex_u32(&p, &h2), 0);
    ASSERT_EQ(scan_dec_int(&p, &i3), 0);
    EXPECT_EQ(std::vector<int64_t>({i1, i2, u, h1, h2, i3}),
              std::vector<int64_t>({1, -1, 1, 0x0A, 0xFF, 12}));
    EXPECT_EQ(big, UINT64_MAX);
    ASSERT_EQ(scan_ident(&p, name, sizeof name), 0);
    EXPECT_STREQ(name, "Ip6_");
    EXPECT_EQ(*p, ' ');
    EXPECT_EQ(scan_hex_bytes(&p, bytes, sizeof bytes), 3);
    EXPECT_EQ(bytes[0], 0x0a);
    EXPECT_EQ(bytes[1], 0xbc);
    EXPECT_EQ(scan_hex_bytes(&p, bytes, sizeof bytes), -1); // five bytes do not fit
    EXPECT_STREQ(p, "0102030405");
    EXPECT_TRUE(is_blank(nullptr) && is_blank(" \t\r\n") && !is_blank("  x\n"));
}

// Verifies address decoding: the host-order words of /proc/net/tcp6 (swap off), the all-zero flag
// and the 127-digit limit (IPv4 and if_inet6 texts are read through the TCP and IP-MIB tests).
TEST(Scanners, HexAddresses)
{
    if (__BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__)
        GTEST_SKIP() << "fixture text is that of a little-endian kernel";
    uint8_t addr[16];
    int32_t type;
    int zero;
    auto scan = [&](const std::string &text, int swap) {
        const char *p = text.c_str();
        int length = scan_hex_addr(&p, addr, &type, &zero, swap);
        return std::to_string(length) + " " + std::to_string(type) + " " + std::to_string(zero) +
               " " + std::string(reinterpret_cast<char *>(addr), length > 0 ? length : 0) + "|" + p;
    };
    const std::string doc("\x20\x01\x0d\xb8\0\0\0\0\0\0\0\0\0\0\0\x01", 16);
    EXPECT_EQ(scan("B80D0120000000000000000001000000:01BB", 0), "16 2 0 " + doc + "|:01BB");
    EXPECT_EQ(scan(std::string(32, '0') + ":0", 0), "16 2 1 " + std::string(16, '\0') + "|:0");
    EXPECT_EQ(scan(std::string(32, '0') + std::string(120, '1') + " 5", 0),
              "16 2 0 " + std::string(16, '\0') + "| 5");
}

} // namespace
