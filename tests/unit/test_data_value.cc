// confd-emu's datastore values: libyang data to ConfD values and back.
#include <gtest/gtest.h>

#include <libyang/libyang.h>

#include <string>

#include "data_value.h"
#include "model_schema.h"

namespace
{

using confd_wire::Value;

const char kModule[] = R"(module dv {
  yang-version 1.1;
  namespace "urn:dv";
  prefix d;
  import ietf-inet-types { prefix inet; }
  import ietf-yang-types { prefix yang; }
  identity kind;
  identity one { base kind; }
  container c {
    leaf bin { type binary; }
    leaf mac { type yang:phys-address; }
    leaf host { type inet:host; }
    leaf id { type identityref { base kind; } }
    leaf e { type enumeration { enum x { value -3; } enum y; } }
  }
})";

// The module above loaded through emu::Schema from a directory of its own, on first use.
const emu::Schema &schema()
{
    static ModelDir dir;
    static const emu::Schema *s = [] {
        dir.add("dv.yang", kModule);
        auto *sc = new emu::Schema;
        std::string err;
        EXPECT_TRUE(sc->load(dir.path, err)) << err;
        return sc;
    }();
    return *s;
}

const emu::SchemaNode *leaf(const char *name)
{
    return schema().child(schema().top("c"), name);
}

// Stores text in leaf `name` with libyang and reads it back as a ConfD value, then converts that
// value back to the text libyang takes (in `back`).
Value round_trip(const char *name, const char *text, std::string &back)
{
    lyd_node *tree = nullptr;
    std::string path = std::string("/dv:c/") + name;
    EXPECT_EQ(lyd_new_path(nullptr, schema().ctx(), path.c_str(), text, 0, &tree), LY_SUCCESS)
        << name << "=" << text;
    lyd_node *node = nullptr;
    EXPECT_EQ(lyd_find_path(tree, path.c_str(), 0, &node), LY_SUCCESS);
    Value v;
    std::string err;
    EXPECT_TRUE(emu::value_from_data(leaf(name), node, v, err)) << err;
    EXPECT_TRUE(emu::value_to_data_text(schema(), leaf(name), v, back, err)) << err;
    lyd_free_all(tree);
    return v;
}

// Verifies the ConfD form of each YANG type the router's configuration uses beyond integers and
// strings, and that writing that form back gives the same data (an identityref's hashes are read
// through MAAPI in the end-to-end tests).
TEST(DataValue, TypesRoundTrip)
{
    struct Case {
        const char *leaf, *text;
        int type;
        const char *back; // the text written back (null: the same)
    };
    for (const Case &c : std::vector<Case>{{"bin", "AAEC/w==", emu::vt::BINARY, nullptr},
                                           {"bin", "AQI=", emu::vt::BINARY, nullptr},
                                           {"bin", "AQID", emu::vt::BINARY, nullptr},
                                           {"mac", "00:1a:2B", emu::vt::BINARY, "00:1a:2b"},
                                           {"host", "10.0.0.1", emu::vt::IPV4, nullptr},
                                           {"host", "::1", emu::vt::IPV6, nullptr},
                                           {"host", "example.org", emu::vt::BUF, nullptr},
                                           {"id", "dv:one", emu::vt::IDENTITYREF, nullptr},
                                           {"e", "x", emu::vt::ENUM_VALUE, nullptr}}) {
        std::string back;
        EXPECT_EQ(round_trip(c.leaf, c.text, back).type, c.type) << c.leaf << "=" << c.text;
        EXPECT_EQ(back, c.back ? c.back : c.text) << c.leaf;
    }
    std::string back;
    EXPECT_EQ(round_trip("bin", "AAEC/w==", back).bytes, std::string("\x00\x01\x02\xff", 4));
    EXPECT_EQ(round_trip("mac", "00:1a:2B", back).bytes, std::string("\x00\x1a\x2b", 3));
    EXPECT_EQ(round_trip("e", "x", back).i, -3);
}

} // namespace
