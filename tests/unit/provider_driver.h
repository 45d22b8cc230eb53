// Drives a data provider through its registered callbacks in process, on a fake /proc and a clock
// the test sets; keypaths are built from text and answers read back as text.
#pragma once

#include "fake_proc.h"
#include "timedcache.h"

#include "confd_inproc.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <deque>
#include <sstream>
#include <string>
#include <vector>

// Text of a value: "e5" an enumeration, "x7f000001" a binary in hex, "i-1" an int32, "u64:7" a
// uint64, a plain number a uint32, 'text' a string, "noexists" a C_NOEXISTS value.
inline std::string value_text(const confd_value_t &v)
{
    switch (v.type) {
    case C_ENUM_VALUE:
        return "e" + std::to_string(v.val.enumvalue);
    case C_INT32:
        return "i" + std::to_string(v.val.i32);
    case C_UINT32:
        return std::to_string(v.val.u32);
    case C_UINT64:
        return "u64:" + std::to_string(v.val.u64);
    case C_BINARY:
        return "x" + hex_text(v.val.buf.ptr, v.val.buf.size);
    case C_STR:
        return v.val.s ? "'" + std::string(v.val.s) + "'" : "null";
    case C_NOEXISTS:
        return "noexists";
    default:
        return "type" + std::to_string(v.type);
    }
}

// A keypath as ConfD hands it to a provider: the tags from the module down, the last one in row 0;
// keys, in value_text form separated by blanks, make row 1, below the list entry's tag.
class keypath
{
  public:
    keypath(uint32_t ns, std::vector<uint32_t> tags, const std::string &keys = "")
    {
        memset(&kp_, 0, sizeof kp_);
        for (auto &row : kp_.v)
            for (auto &cell : row)
                cell.type = C_NOEXISTS;
        std::vector<confd_value_t> values;
        std::istringstream words(keys);
        for (std::string w; words >> w;) {
            confd_value_t v;
            if (w[0] == 'e') {
                CONFD_SET_ENUM_VALUE(&v, std::stoi(w.substr(1)));
            } else if (w[0] == 'i') {
                CONFD_SET_INT32(&v, std::stoi(w.substr(1)));
            } else if (w[0] == 'x') {
                bytes_.emplace_back();
                for (size_t i = 1; i + 1 < w.size(); i += 2)
                    bytes_.back().push_back(static_cast<char>(std::stoi(w.substr(i, 2), 0, 16)));
                CONFD_SET_BINARY(&v, reinterpret_cast<const unsigned char *>(bytes_.back().data()),
                                 bytes_.back().size());
            } else {
                CONFD_SET_UINT32(&v, static_cast<uint32_t>(std::stoul(w)));
            }
            values.push_back(v);
        }
        if (!values.empty()) tags.insert(tags.end() - 1, 0); // the keys' row
        kp_.len = static_cast<int>(tags.size());
        for (size_t i = 0; i < tags.size(); i++)
            CONFD_SET_XMLTAG(&kp_.v[tags.size() - 1 - i][0], tags[i], ns);
        for (size_t k = 0; k < values.size(); k++)
            kp_.v[1][k] = values[k];
        if (!values.empty()) kp_.v[1][values.size()].type = C_NOEXISTS;
    }
    keypath(const keypath &) = delete;
    keypath &operator=(const keypath &) = delete;
    confd_hkeypath_t *get() const { return &kp_; }

  private:
    mutable confd_hkeypath_t kp_;
    std::deque<std::string> bytes_; // what the binary keys point into
};

// A provider registered on an in-process daemon, with a read transaction whose replies are
// captured; its /proc is proc_ and its clock now.
class provider_test : public ::testing::Test
{
  protected:
    provider_test(int (*reg)(confd_daemon_ctx *, int), const char *callpoint)
        : register_(reg), callpoint_(callpoint)
    {
    }
    void SetUp() override
    {
        now = 1700000000;
        timed_cache_set_clock([] { return now; });
        dx_ = confd_init_daemon("test");
        ASSERT_NE(dx_, nullptr);
        ASSERT_EQ(register_(dx_, -1), 0);
        cbs_ = confd_inproc_data_cbs(dx_, callpoint_);
        ASSERT_NE(cbs_, nullptr);
        tctx_ = confd_inproc_trans(dx_, CONFD_READ, CONFD_RUNNING, 1);
        ASSERT_NE(tctx_, nullptr);
    }
    void TearDown() override
    {
        if (tctx_) confd_inproc_free_trans(tctx_);
        if (dx_) confd_release_daemon(dx_);
        timed_cache_set_clock(nullptr);
    }

    // One get_next: the keys and the cookie handed back ("e1 x7f000001 22 -> 1"), or "end".
    std::string next(const keypath &list, long cookie)
    {
        confd_inproc_reset(tctx_);
        EXPECT_EQ(cbs_->get_next(tctx_, list.get(), cookie), CONFD_OK);
        const confd_inproc_capture *cap = confd_inproc_captured(tctx_);
        EXPECT_EQ(cap->nreplies, 1);
        if (cap->kind == CONFD_INPROC_NEXT_END) return "end";
        EXPECT_EQ(cap->kind, CONFD_INPROC_NEXT_KEY);
        std::string keys;
        for (int i = 0; i < cap->nvalues; i++)
            keys += (i ? " " : "") + value_text(cap->values[i]);
        return keys + " -> " + std::to_string(cap->next);
    }

    // A whole walk as ConfD makes it, from -1 on with each cookie handed back: the keys of each
    // row. Unless told otherwise, the cookies must be the positions 1, 2, ...
    std::vector<std::string> walk(const keypath &list, bool position_cookies = true)
    {
        std::vector<std::string> rows;
        for (long cookie = -1; rows.size() < 100000;) {
            std::string row = next(list, cookie);
            if (row == "end") break;
            size_t arrow = row.rfind(" -> ");
            cookie = std::stol(row.substr(arrow + 4));
            EXPECT_TRUE(!position_cookies || cookie == static_cast<long>(rows.size()) + 1) << row;
            rows.push_back(row.substr(0, arrow));
        }
        return rows;
    }

    // One get_elem: the value's text, "not-found", or "CONFD_ERR" when it failed without a reply.
    std::string get(const keypath &leaf)
    {
        confd_inproc_reset(tctx_);
        int ret = cbs_->get_elem(tctx_, leaf.get());
        const confd_inproc_capture *cap = confd_inproc_captured(tctx_);
        if (ret == CONFD_ERR) {
            EXPECT_EQ(cap->nreplies, 0);
            return "CONFD_ERR";
        }
        EXPECT_EQ(ret, CONFD_OK);
        EXPECT_EQ(cap->nreplies, 1);
        if (cap->kind == CONFD_INPROC_NOT_FOUND) return "not-found";
        EXPECT_EQ(cap->kind, CONFD_INPROC_VALUE);
        return value_text(cap->values[0]);
    }

    static inline time_t now;
    fake_proc proc_;
    confd_daemon_ctx *dx_ = nullptr;
    const confd_data_cbs *cbs_ = nullptr;
    confd_trans_ctx *tctx_ = nullptr;

  private:
    int (*register_)(confd_daemon_ctx *, int);
    const char *callpoint_;
};
