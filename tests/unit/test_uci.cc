// Tests of the UCI library on router configuration files: walking, quoting, errors, lifetimes.
#include <uci.h>
#ifdef LEISOBEK_UCI_IN_TREE
#include <uci_host.h>
#endif

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

const char kNetwork[] = R"(
config device
	option name 'br-lan'
	option type 'bridge'
	list ports 'lan1'
	list ports 'lan2'

config interface 'lan'
	option device 'br-lan'
	option proto 'static'
	option ipaddr '192.168.1.1'

config interface 'wan'
	option ifname 'eth1'
	option proto 'dhcp'
)";

// One line per section ("name type", "@type" when anonymous) and per option ("  name=value",
// lists as "  name=[a|b]"), in the order the iteration macros visit them.
std::vector<std::string> dump(uci_package *p)
{
    std::vector<std::string> out;
    uci_element *se, *oe, *ie;
    uci_foreach_element(&p->sections, se)
    {
        uci_section *s = uci_to_section(se);
        out.push_back(s->anonymous ? std::string("@") + s->type
                                   : std::string(se->name) + " " + s->type);
        uci_foreach_element(&s->options, oe)
        {
            uci_option *o = uci_to_option(oe);
            std::string line = std::string("  ") + oe->name + "=";
            if (o->type == UCI_TYPE_STRING) {
                line += o->v.string;
            } else {
                std::string items;
                uci_foreach_element(&o->v.list, ie) items +=
                    (items.empty() ? "" : "|") + std::string(ie->name);
                line += "[" + items + "]";
            }
            out.push_back(line);
        }
    }
    return out;
}

class UciTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/unit_uci.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        dir_ = tmpl;
        ctx_ = uci_alloc_context();
        ASSERT_NE(nullptr, ctx_);
        ASSERT_EQ(UCI_OK, uci_set_confdir(ctx_, dir_.c_str()));
    }
    void TearDown() override
    {
        uci_free_context(ctx_);
        std::filesystem::remove_all(dir_);
    }
    void write(const std::string &name, const std::string &text)
    {
        std::ofstream(dir_ + "/" + name, std::ios::binary) << text;
    }
    // Loads `text` as package "p"; the package on success, else NULL with rc_ set.
    uci_package *load_text(const std::string &text, const char *name = "p")
    {
        write(name, text);
        uci_package *p = reinterpret_cast<uci_package *>(1);
        rc_ = uci_load(ctx_, name, &p);
        return p;
    }
    std::string error()
    {
        char *s = nullptr;
        uci_get_errorstr(ctx_, &s, "uci");
        std::string text = s ? s : "";
        std::free(s);
        return text;
    }

    std::string dir_;
    uci_context *ctx_ = nullptr;
    int rc_ = -1;
};

// Verifies that a typical network file is walked in file order with every value and list item
// (lookups by name are in the providers' tests on fixture files).
TEST_F(UciTest, NetworkFileWalksInFileOrder)
{
    uci_package *p = load_text(kNetwork, "network");
    ASSERT_NE(nullptr, p) << error();
    const std::vector<std::string> expected = {
        "@device",       "  name=br-lan",   "  type=bridge",  "  ports=[lan1|lan2]",
        "lan interface", "  device=br-lan", "  proto=static", "  ipaddr=192.168.1.1",
        "wan interface", "  ifname=eth1",   "  proto=dhcp"};
    EXPECT_EQ(expected, dump(p));
}

// Verifies quoting (literal single quotes, escapes, concatenation, '#' handling, empty and
// multi-line values), and that comments, blank lines and CRLF line ends leave only the statements.
TEST_F(UciTest, QuotingAndEscapes)
{
    // Each option as written after "option", and the value read.
    const std::pair<const char *, const char *> options[] = {
        {"single 'a b  c\\n'", "a b  c\\n"},
        {"dbl \"tab\\there \\\"q\\\" back\\\\slash 'in'\"", "tabthere \"q\" back\\slash 'in'"},
        {"bare foo\\ bar", "foo bar"},
        {"glued 'it'\"'\"'s'", "it's"},
        {"mixed pre'mid'\"post\"", "premidpost"},
        {"quoted_hash '#not a comment'", "#not a comment"},
        {"bare_hash value#comment", "value"},
        {"empty ''", ""},
        {"none", ""},
        {"multi 'first\nsecond'", "first\nsecond"},
        {"joined \"one\\\ntwo\"", "onetwo"},
        {"after 'ok'", "ok"}};
    std::string text = "config t 'x'\n";
    std::vector<std::string> expected = {"x t"};
    for (auto [line, value] : options) {
        text += std::string("\toption ") + line + "\n";
        expected.push_back("  " + std::string(line, strcspn(line, " ")) + "=" + value);
    }
    uci_package *p = load_text(text);
    ASSERT_NE(nullptr, p) << error();
    EXPECT_EQ(expected, dump(p));

    p = load_text("# network, edited on Windows\r\n"
                  "\r\n"
                  "   \t\r\n"
                  "config interface 'lan'   # the LAN\r\n"
                  "    # option proto 'dhcp'\r\n"
                  "\toption proto 'static'\t# fixed\r\n"
                  "\toption ipaddr 192.168.1.1\r\n"
                  "#config interface 'gone'\r\n",
                  "crlf");
    ASSERT_NE(nullptr, p) << error();
    EXPECT_EQ((std::vector<std::string>{"lan interface", "  proto=static", "  ipaddr=192.168.1.1"}),
              dump(p));
}

// Verifies redefinitions: a repeated option replaces in place, list converts a string, a repeated
// section merges.
TEST_F(UciTest, RepeatedOptionsListsAndSections)
{
    uci_package *p = load_text("config interface 'lan'\n"
                               "\toption proto 'static'\n"
                               "\toption ipaddr '10.0.0.1'\n"
                               "\toption proto 'dhcp'\n"
                               "\toption dns '1.1.1.1'\n"
                               "\tlist dns '8.8.8.8'\n"
                               "\tlist ntp 'a'\n"
                               "\toption ntp 'b'\n"
                               "config interface 'wan'\n"
                               "config interface 'lan'\n"
                               "\toption mtu '1500'\n");
    ASSERT_NE(nullptr, p) << error();
    EXPECT_EQ((std::vector<std::string>{"lan interface", "  proto=dhcp", "  ipaddr=10.0.0.1",
                                        "  dns=[1.1.1.1|8.8.8.8]", "  ntp=b", "  mtu=1500",
                                        "wan interface"}),
              dump(p));
}

// Verifies that syntax errors fail with UCI_ERR_PARSE naming the offending line, and keep nothing
// loaded.
TEST_F(UciTest, ParseErrorsNameTheLine)
{
    const struct {
        const char *text;
        int line;
    } cases[] = {
        {"option proto 'dhcp'\n", 1},
        {"config t\n\toption ok 'x'\n\toption bad 'open\n\n", 3},
        {"config t\n\n\tfrobnicate x\n", 3},
        {"config t\n\toption a b c\n", 2},
        {"config a 's'\nconfig b 's'\n", 2},
        {"config t 'no.dots'\n", 1},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(nullptr, load_text(c.text)) << c.text;
        EXPECT_EQ(UCI_ERR_PARSE, rc_) << c.text;
        EXPECT_EQ(UCI_ERR_PARSE, ctx_->err);
        std::string msg = error();
        EXPECT_NE(std::string::npos, msg.find("line " + std::to_string(c.line))) << c.text << msg;
        EXPECT_EQ(0, msg.rfind("uci: ", 0)) << msg;
        EXPECT_TRUE(uci_list_empty(&ctx_->root));
    }
    EXPECT_NE(nullptr, load_text("config t\n")) << "a failed load leaves the context usable";
}

// Verifies load failures other than syntax: missing package, invalid name, loading twice.
TEST_F(UciTest, LoadFailures)
{
    uci_package *p = reinterpret_cast<uci_package *>(1);
    EXPECT_EQ(UCI_ERR_NOTFOUND, uci_load(ctx_, "nosuch", &p));
    EXPECT_EQ(nullptr, p);
    EXPECT_NE(std::string::npos, error().find("not found")) << error();
    EXPECT_EQ(UCI_ERR_INVAL, uci_load(ctx_, "", &p));

    write("network", kNetwork);
    ASSERT_EQ(UCI_OK, uci_load(ctx_, "network", &p));
    uci_package *again = nullptr;
    EXPECT_EQ(UCI_ERR_DUPLICATE, uci_load(ctx_, "network", &again));
    EXPECT_EQ(nullptr, again);
}

#ifdef LEISOBEK_UCI_IN_TREE
// Verifies the size limits: an over-long line or file is a parse error, not an unbounded read.
TEST_F(UciTest, LimitsOnLineAndFileSize)
{
    std::string line(LEISOBEK_UCI_MAX_LINE_BYTES - 20, 'v');
    EXPECT_NE(nullptr, load_text("config t\n\toption a '" + line + "'\n", "fits")) << error();
    EXPECT_EQ(nullptr, load_text("config t\n\toption a '" + line + std::string(20, 'v') + "'\n"));
    EXPECT_EQ(UCI_ERR_PARSE, rc_);
    EXPECT_NE(std::string::npos, error().find("line 2")) << error();

    std::string comments;
    while (comments.size() <= LEISOBEK_UCI_MAX_FILE_BYTES)
        comments += "# " + std::string(1000, 'c') + "\n";
    EXPECT_EQ(nullptr, load_text(comments, "huge"));
    EXPECT_EQ(UCI_ERR_PARSE, rc_);
}
#endif

} // namespace
