// Reading confd-emu-cli's JSON answers in tests: a small parser and the rows of a walk.
#pragma once

#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace cli_json
{

// A parsed JSON value. Numbers keep their text so that 64-bit values stay exact.
struct value {
    enum kind_t { null, boolean, number, string, array, object } kind = null;
    std::string text; // number digits, string contents, "true"/"false"
    std::vector<value> items;
    std::vector<std::pair<std::string, value>> members;

    // The member called name, or a null value.
    const value &operator[](const std::string &name) const
    {
        static const value none;
        for (const auto &m : members)
            if (m.first == name) return m.second;
        return none;
    }
};

class parser
{
  public:
    explicit parser(const std::string &text) : s_(text) {}

    // Parses the whole text; false when it is not one well-formed value.
    bool parse(value &out)
    {
        if (!parse_value(out)) return false;
        skip_space();
        return at_ == s_.size();
    }

  private:
    void skip_space()
    {
        while (at_ < s_.size() &&
               (s_[at_] == ' ' || s_[at_] == '\n' || s_[at_] == '\t' || s_[at_] == '\r'))
            at_++;
    }

    bool literal(const char *word)
    {
        size_t n = std::char_traits<char>::length(word);
        if (s_.compare(at_, n, word) != 0) return false;
        at_ += n;
        return true;
    }

    bool parse_string(std::string &out)
    {
        if (s_[at_] != '"') return false;
        for (at_++; at_ < s_.size(); at_++) {
            char c = s_[at_];
            if (c == '"') {
                at_++;
                return true;
            }
            if (c == '\\') {
                if (++at_ >= s_.size()) return false;
                char e = s_[at_];
                if (e == 'n')
                    c = '\n';
                else if (e == 't')
                    c = '\t';
                else if (e == 'u') {
                    if (at_ + 4 >= s_.size()) return false;
                    c = static_cast<char>(std::strtol(s_.substr(at_ + 1, 4).c_str(), nullptr, 16));
                    at_ += 4;
                } else
                    c = e;
            }
            out += c;
        }
        return false;
    }

    bool parse_value(value &v)
    {
        skip_space();
        if (at_ >= s_.size()) return false;
        char c = s_[at_];
        if (c == '{') {
            v.kind = value::object;
            at_++;
            skip_space();
            if (at_ < s_.size() && s_[at_] == '}') return ++at_, true;
            for (;;) {
                skip_space();
                std::pair<std::string, value> m;
                if (at_ >= s_.size() || !parse_string(m.first)) return false;
                skip_space();
                if (at_ >= s_.size() || s_[at_++] != ':' || !parse_value(m.second)) return false;
                v.members.push_back(std::move(m));
                skip_space();
                if (at_ >= s_.size()) return false;
                if (s_[at_] == '}') return ++at_, true;
                if (s_[at_++] != ',') return false;
            }
        }
        if (c == '[') {
            v.kind = value::array;
            at_++;
            skip_space();
            if (at_ < s_.size() && s_[at_] == ']') return ++at_, true;
            for (;;) {
                v.items.emplace_back();
                if (!parse_value(v.items.back())) return false;
                skip_space();
                if (at_ >= s_.size()) return false;
                if (s_[at_] == ']') return ++at_, true;
                if (s_[at_++] != ',') return false;
            }
        }
        if (c == '"') {
            v.kind = value::string;
            return parse_string(v.text);
        }
        for (const char *word : {"true", "false"}) {
            if (literal(word)) {
                v.kind = value::boolean;
                v.text = word;
                return true;
            }
        }
        if (literal("null")) return true;
        size_t start = at_;
        while (at_ < s_.size() && (s_[at_] == '-' || (s_[at_] >= '0' && s_[at_] <= '9')))
            at_++;
        if (at_ == start) return false;
        v.kind = value::number;
        v.text = s_.substr(start, at_ - start);
        return true;
    }

    const std::string &s_;
    size_t at_ = 0;
};

// One row of a walk: its keys and leaves as the CLI printed their values
// (numbers in decimal, binaries in hex, strings as they are).
struct row {
    std::vector<std::string> keys;
    std::map<std::string, std::string> leaves;
};

// The rows of a `confd-emu-cli walk` answer; false when the answer is not a
// walk (an error object, or not JSON).
inline bool parse_walk(const std::string &answer, std::vector<row> &rows)
{
    value doc;
    if (!parser(answer).parse(doc) || doc.kind != value::array) return false;
    rows.clear();
    for (const value &r : doc.items) {
        row out;
        for (const value &k : r["keys"].items)
            out.keys.push_back(k["value"].text);
        for (const auto &leaf : r["leaves"].members)
            out.leaves[leaf.first] = leaf.second["value"].text;
        rows.push_back(std::move(out));
    }
    return true;
}

} // namespace cli_json
