// Unit tests of the audit listener's attribute names and diff printer.
#include "notify/audit.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace
{

confd_value_t text_value(const std::string &s)
{
    confd_value_t v;
    CONFD_SET_BUF(&v, reinterpret_cast<unsigned char *>(const_cast<char *>(s.c_str())),
                  static_cast<unsigned int>(s.size()));
    return v;
}

// Verifies the three attribute names, null for any other attribute, and that an attribute given as
// another type aborts with the type check's text.
TEST(AuditTest, AttributeNames)
{
    const struct {
        uint32_t attr;
        const char *name;
    } cases[] = {{0x80000000u, "TAGS"},
                 {0x80000001u, "ANNOTATIONS"},
                 {0u, "INACTIVE"},
                 {0x80000003u, nullptr},
                 {7u, nullptr}};
    for (const auto &c : cases) {
        confd_value_t v;
        CONFD_SET_UINT32(&v, c.attr);
        const char *name = attr_str(&v);
        EXPECT_STREQ(name, c.name) << c.attr;
    }
    confd_value_t wrong;
    CONFD_SET_INT32(&wrong, 0);
    EXPECT_DEATH(attr_str(&wrong), "\\(v\\)->type == C_UINT32");
}

// Verifies that the printer takes a move and asks to recurse: it names a copy of the keypath with
// the new keys, the keypath handed in staying as it was. (Creations, deletions, values and
// attributes longer than its buffers are committed through the daemon end to end.)
TEST(AuditTest, DiffPrinterTakesAMove)
{
    std::string key = "eth0", after = "eth1";
    confd_hkeypath_t kp;
    memset(&kp, 0, sizeof kp);
    kp.len = 2;
    CONFD_SET_XMLTAG(&kp.v[1][0], 11, 1);
    kp.v[0][0] = text_value(key);
    kp.v[0][1].type = C_NOEXISTS;
    confd_value_t moved_after[2] = {text_value(after), {}};
    moved_after[1].type = C_NOEXISTS;
    for (confd_value_t *newv : {moved_after, static_cast<confd_value_t *>(nullptr)})
        EXPECT_EQ(diff_printer(&kp, MOP_MOVED_AFTER, nullptr, newv, nullptr), ITER_RECURSE);
    ASSERT_EQ(kp.v[0][0].type, C_BUF);
    EXPECT_EQ(reinterpret_cast<const char *>(kp.v[0][0].val.buf.ptr), key.c_str());
}

} // namespace
