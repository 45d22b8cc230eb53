// Tests of ConfD keypath parsing, the hkeypath layout and the text and JSON forms of values.
#include "keypath.h"
#include "model_schema.h"

#include <gtest/gtest.h>

#include <cstdint>

#include <confd_lib.h>

// The client library's text of one key (platform/confd/lib/pathtext.h, whose directory would
// shadow confd-emu's headers here).
namespace libconfd { std::string key_text(const confd_value_t &v); }

using confd_wire::Value;
using emu::ParsedPath;
using emu::Schema;

namespace
{

const char *kConn = "/TCP-MIB/tcpConnectionTable/tcpConnectionEntry{1 7f000001 80 1 7f000001 4711}"
                    "/tcpConnectionState";

std::string parse_error(const std::string &path)
{
    ParsedPath p;
    std::string err;
    EXPECT_FALSE(emu::parse_keypath(models(), path, p, err)) << path;
    return err;
}

Value typed(int t, std::string_view text)
{
    Value v;
    std::string err;
    EXPECT_TRUE(emu::value_from_text_typed(t, text, v, err)) << err;
    return v;
}

} // namespace

// Table leaves and a scalar print back as they were written (the reversed hkeypath layout and the
// keys typed by their key leaves are what the test daemons of test_emu index into); keys by enum
// name and prefixed node names read (keys of a forced type reach the daemon's type guards in the
// IP-MIB and private MIB end-to-end tests).
TEST(Keypath, TableLeafLayoutAndKeyForms)
{
    const Schema &s = models();
    ParsedPath p;
    std::string err;
    ASSERT_TRUE(emu::parse_keypath(s, kConn, p, err)) << err;
    EXPECT_EQ(emu::pp_keypath(s, emu::to_hkeypath(p)), kConn);
    ASSERT_TRUE(emu::parse_keypath(s, "/UDP-MIB/udp/udpHCInDatagrams", p, err)) << err;
    EXPECT_EQ(emu::pp_keypath(s, emu::to_hkeypath(p)), "/UDP-MIB/udp/udpHCInDatagrams");

    // Seven UDP keys; an empty address is written as "" and printed back the same way.
    const std::string udp = "/UDP-MIB/udpEndpointTable/udpEndpointEntry{0 \"\" 53 0 \"\" 0 12345}"
                            "/udpEndpointProcess";
    ASSERT_TRUE(emu::parse_keypath(s, udp, p, err)) << err;
    EXPECT_EQ(p.steps[2].keys[1].type, 39);
    EXPECT_TRUE(p.steps[2].keys[1].bytes.empty());
    EXPECT_EQ(emu::pp_path(s, p), udp);

    ASSERT_TRUE(emu::parse_keypath(s,
                                   "/TCP-MIB:TCP-MIB/tcpListenerTable/tcpListenerEntry{ipv6 "
                                   "00000000000000000000000000000001 22}",
                                   p, err))
        << err;
    EXPECT_EQ(p.steps[2].keys[0].i, 2);
    EXPECT_EQ(p.steps[2].keys[1].bytes.size(), 16u);
}

// Bad paths fail with a message that points at the fault.
TEST(Keypath, BadPaths)
{
    const std::string entry = "/TCP-MIB/tcpListenerTable/tcpListenerEntry";
    const std::pair<std::string, const char *> cases[] = {
        {"TCP-MIB/tcp", "must start with '/'"},
        {"/TCP-MIB/tcpp/tcpInSegs", "'tcpp'"},
        {"/UDP-MIB:TCP-MIB", "top level"},
        {"/TCP-MIB/tcp{1}/tcpInSegs", "not a keyed list"},
        {entry + "{1 7f000001}", "3 key(s), 2 given"},
        {entry + "{1 7f00001 22}", "key 2"},
        {entry + "{1 7f000001 22", "missing '}'"},
        {entry + "{C_NOPE:1 7f000001 22}", "C_NOPE"},
        {entry + "{1 7f000001 22}x", "'/' expected"},
        {"/TCP-MIB/tcp/tcpInSegs/deeper", "'deeper'"},
    };
    for (const auto &c : cases)
        EXPECT_NE(parse_error(c.first).find(c.second), std::string::npos)
            << c.first << ": " << parse_error(c.first);
}

// Text forms of every value family, their bounds, and the inverse printing.
TEST(ValueText, ParseAndPrint)
{
    EXPECT_EQ(typed(15, "192.168.1.1").bytes, std::string("\xc0\xa8\x01\x01", 4));
    EXPECT_EQ(typed(39, "00FFa0").bytes, std::string("\x00\xff\xa0", 3));
    // Out of range, trailing junk, empty, short or malformed texts are refused.
    const std::pair<int, const char *> bad[] = {
        {12, "4294967296"}, {8, "2147483648"}, {10, "-1"},   {12, "12abc"},
        {12, ""},           {15, "192.168.1"}, {38, "1..3"}, {38, "1.3."},
        {17, "yes"},        {39, "abc"},       {39, "zz"}};
    for (auto [t, text] : bad) {
        Value v;
        std::string err;
        EXPECT_FALSE(emu::value_from_text_typed(t, text, v, err)) << t << " " << text;
    }
    const std::pair<int, const char *> good[] = {
        {8, "-5"},           {17, "false"},       {28, "16"},
        {5, "eth0.2"},       {39, "00ff7f"},      {15, "10.0.0.1"},
        {16, "2001:db8::1"}, {38, "1.3.6.1.4.1"}, {13, "18446744073709551615"}};
    for (auto [t, text] : good)
        EXPECT_EQ(emu::value_to_text(typed(t, text)), text) << t;
}

// JSON as the command-line client prints it where the end-to-end walks do not reach: exact 64-bit
// numbers, OIDs, booleans, a null string, escapes, lists.
TEST(ValueText, Json)
{
    for (auto [t, text, json] : std::vector<std::tuple<int, const char *, const char *>>{
             {13, "18446744073709551615", R"({"type":"C_UINT64","value":18446744073709551615})"},
             {9, "-9223372036854775808", R"({"type":"C_INT64","value":-9223372036854775808})"},
             {38, "1.3.6", R"({"type":"C_OID","value":"1.3.6"})"},
             {17, "true", R"({"type":"C_BOOL","value":true})"}})
        EXPECT_EQ(emu::value_to_json(typed(t, text)), json);
    Value s;
    s.type = 4;
    s.null_str = true;
    EXPECT_EQ(emu::value_to_json(s), R"({"type":"C_STR","value":null})");
    s.null_str = false;
    s.bytes = std::string("a\"b\\c\n\x01\xc3\xa9\xff", 10);
    EXPECT_EQ(emu::value_to_json(s), R"({"type":"C_STR","value":"a\"b\\c\n\u0001é\u00ff"})");
    Value l;
    l.type = 31;
    l.list = {typed(12, "1"), typed(5, "x")};
    EXPECT_EQ(
        emu::value_to_json(l),
        R"({"type":"C_LIST","value":[{"type":"C_UINT32","value":1},{"type":"C_BUF","value":"x"}]})");
}

// Verifies that a string key printed by confd-emu, and one printed by the client library, reads
// back as the same string: keys with separators, escapes or the look of a forced type
// ("C_INT32:5") are quoted.
TEST(Keypath, StringKeysRoundTrip)
{
    const Schema &s = models();
    const std::string list = "/aaa:aaa/authentication/users/user";
    ParsedPath p;
    std::string err;
    ASSERT_TRUE(emu::parse_keypath(s, list + "{x}", p, err)) << err;
    for (const std::string key : {"kelto", "C_INT32:5", "C_BUF:x", "C_UNKNOWN:1", "a b", "a }b\"",
                                  "x/y", "back\\slash", "C_", "C:5"}) {
        p.steps.back().keys[0] = typed(5, key);
        std::string emu_text = emu::pp_path(s, p);
        confd_value_t v;
        CONFD_SET_CBUF(&v, key.data(), key.size());
        std::string lib_text = list + "{" + libconfd::key_text(v) + "}";
        for (const std::string &text : {emu_text, lib_text}) {
            ParsedPath back;
            ASSERT_TRUE(emu::parse_keypath(s, text, back, err)) << text << ": " << err;
            EXPECT_EQ(back.steps.back().keys[0].type, 5) << text;
            EXPECT_EQ(back.steps.back().keys[0].bytes, key) << text;
        }
    }
}
