// Reading confd-emu-cli's JSON answers in tests: a small parser and the rows of a walk.
#pragma once

#include <cctype>
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

namespace detail
{

inline void skip_space(const std::string &s, size_t &at)
{
    while (at < s.size() && isspace(static_cast<unsigned char>(s[at])))
        at++;
}

inline bool parse_string(const std::string &s, size_t &at, std::string &out)
{
    if (at >= s.size() || s[at] != '"') return false;
    for (at++; at < s.size(); at++) {
        char c = s[at];
        if (c == '"') return ++at, true;
        if (c == '\\' && ++at < s.size()) {
            c = s[at] == 'n' ? '\n' : s[at] == 't' ? '\t' : s[at];
            if (s[at] == 'u' && at + 4 < s.size()) {
                c = static_cast<char>(std::stoi(s.substr(at + 1, 4), nullptr, 16));
                at += 4;
            }
        }
        out += c;
    }
    return false;
}

inline bool parse_value(const std::string &s, size_t &at, value &v)
{
    skip_space(s, at);
    if (at >= s.size()) return false;
    char open = s[at];
    if (open == '"') {
        v.kind = value::string;
        return parse_string(s, at, v.text);
    }
    if (open == '[' || open == '{') {
        v.kind = open == '[' ? value::array : value::object;
        char close = open == '[' ? ']' : '}';
        skip_space(s, ++at);
        if (at < s.size() && s[at] == close) return ++at, true;
        for (;;) {
            if (open == '{') {
                v.members.emplace_back();
                skip_space(s, at);
                if (!parse_string(s, at, v.members.back().first)) return false;
                skip_space(s, at);
                if (at >= s.size() || s[at++] != ':') return false;
                if (!parse_value(s, at, v.members.back().second)) return false;
            } else {
                v.items.emplace_back();
                if (!parse_value(s, at, v.items.back())) return false;
            }
            skip_space(s, at);
            if (at >= s.size()) return false;
            if (s[at] == close) return ++at, true;
            if (s[at++] != ',') return false;
        }
    }
    size_t start = at;
    while (at < s.size() && (isalnum(static_cast<unsigned char>(s[at])) || s[at] == '-'))
        at++;
    v.text = s.substr(start, at - start);
    if (v.text == "null") v.text.clear();
    v.kind = v.text.empty()                          ? value::null
             : v.text == "true" || v.text == "false" ? value::boolean
                                                     : value::number;
    return at > start && (v.kind != value::number ||
                          v.text.find_first_not_of("-0123456789") == std::string::npos);
}

} // namespace detail

// Parses the whole text; false when it is not one well-formed value.
inline bool parse(const std::string &text, value &out)
{
    size_t at = 0;
    if (!detail::parse_value(text, at, out)) return false;
    detail::skip_space(text, at);
    return at == text.size();
}

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
    if (!parse(answer, doc) || doc.kind != value::array) return false;
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
