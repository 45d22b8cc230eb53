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

// Verifies the three attribute names, null for any other attribute, and that
// an attribute given as another type aborts with the type check's text.
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

// Verifies that the printer takes every kind of change and asks to recurse:
// a move names a copy of the keypath with the new keys (the keypath handed
// in stays as it was), attributes with and without a value, values far
// longer than its buffers, and the operations it only prints the path of.
TEST(AuditTest, DiffPrinterTakesEveryChange)
{
    std::string key = "eth0", after = "eth1", huge(20000, 'v');
    confd_hkeypath_t kp;
    memset(&kp, 0, sizeof kp);
    kp.len = 2;
    CONFD_SET_XMLTAG(&kp.v[1][0], 11, 1);
    kp.v[0][0] = text_value(key);
    kp.v[0][1].type = C_NOEXISTS;

    confd_value_t moved_after[2] = {text_value(after), {}};
    moved_after[1].type = C_NOEXISTS;
    confd_value_t tags[2], annotation[2], value = text_value(huge);
    CONFD_SET_UINT32(&tags[0], 0x80000000u);
    tags[1].type = C_NOEXISTS;
    CONFD_SET_UINT32(&annotation[0], 0x80000001u);
    annotation[1] = text_value(huge);

    const struct {
        enum maapi_iter_op op;
        confd_value_t *newv;
    } changes[] = {{MOP_CREATED, nullptr},   {MOP_DELETED, nullptr},      {MOP_MODIFIED, nullptr},
                   {MOP_VALUE_SET, &value},  {MOP_MOVED_AFTER, moved_after},
                   {MOP_MOVED_AFTER, nullptr}, {MOP_ATTR_SET, tags},     {MOP_ATTR_SET, annotation}};
    for (const auto &c : changes)
        EXPECT_EQ(diff_printer(&kp, c.op, nullptr, c.newv, nullptr), ITER_RECURSE) << c.op;
    ASSERT_EQ(kp.v[0][0].type, C_BUF);
    EXPECT_EQ(reinterpret_cast<const char *>(kp.v[0][0].val.buf.ptr), key.c_str());
}

} // namespace
