// Parser of UCI package files: package/config/option/list statements, quoting, escapes and comments.
#include "store.h"

#include <uci_host.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <unordered_map>
#include <utility>
#include <vector>

namespace leisobek::uci {
namespace {

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\v' || c == '\f' || c == '\r'; }

bool is_name_char(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

// Section and option names: letters, digits and '_'.
bool valid_name(std::string_view s)
{
    if (s.empty())
        return false;
    for (char c : s)
        if (!is_name_char(c))
            return false;
    return true;
}

// Section types are freer than names: any printable ASCII character but the space.
bool valid_type(std::string_view s)
{
    if (s.empty())
        return false;
    for (char c : s)
        if (c < 33 || c > 126)
            return false;
    return true;
}

// Shortens user text quoted in an error message.
std::string excerpt(std::string_view s)
{
    constexpr size_t kMax = 40;
    return s.size() <= kMax ? std::string(s) : std::string(s.substr(0, kMax)) + "...";
}

// Drops the CR of every CRLF and checks the limits that hold per line. A NUL
// byte is refused because every value is handed out as a C string.
bool normalize(std::string_view in, std::string &out, ParseError &err)
{
    out.reserve(in.size());
    int line = 1;
    size_t length = 0;
    for (size_t i = 0; i < in.size(); ++i) {
        char c = in[i];
        if (c == '\r' && i + 1 < in.size() && in[i + 1] == '\n')
            continue;
        if (c == '\0') {
            err = {"NUL byte in the text", line};
            return false;
        }
        if (c == '\n') {
            ++line;
            length = 0;
        } else if (++length > LEISOBEK_UCI_MAX_LINE_BYTES) {
            err = {"line longer than " + std::to_string(LEISOBEK_UCI_MAX_LINE_BYTES) + " bytes",
                   line};
            return false;
        }
        out += c;
    }
    return true;
}

// One word of a statement, after quotes and escapes are resolved.
struct Word {
    std::string text;
    int line;
};

class Parser
{
  public:
    Parser(std::string_view text, PackageStore &store) : text_(text), store_(store) {}

    bool run(ParseError &err)
    {
        std::vector<Word> words;
        while (pos_ < text_.size()) {
            if (!read_statement(words) || (!words.empty() && !execute(words))) {
                err = std::move(err_);
                return false;
            }
        }
        name_anonymous_sections();
        return true;
    }

  private:
    bool fail(int line, std::string reason)
    {
        err_ = {std::move(reason), line};
        return false;
    }

    // Reads the words up to the end of the line. Quoted text may span lines
    // and a backslash before the line break continues the statement.
    bool read_statement(std::vector<Word> &words)
    {
        words.clear();
        const size_t n = text_.size();
        for (;;) {
            while (pos_ < n && is_blank(text_[pos_]))
                ++pos_;
            if (pos_ == n)
                return true;
            char c = text_[pos_];
            if (c == '\n') {
                ++pos_;
                ++line_;
                return true;
            }
            if (c == '#') {
                while (pos_ < n && text_[pos_] != '\n')
                    ++pos_;
                continue;
            }
            if (c == '\\' && pos_ + 1 < n && text_[pos_ + 1] == '\n') {
                pos_ += 2;
                ++line_;
                continue;
            }
            Word w{std::string(), line_};
            if (!read_word(w.text))
                return false;
            words.push_back(std::move(w));
        }
    }

    // One word: unquoted runs, 'single' and "double" quoted parts, all
    // joined while no blank separates them ('it'"'"'s' is one word). An
    // unquoted '#' ends the word and starts a comment, even mid-word.
    bool read_word(std::string &out)
    {
        const size_t n = text_.size();
        while (pos_ < n) {
            char c = text_[pos_];
            if (is_blank(c) || c == '\n' || c == '#')
                return true;
            if (c == '\'') {
                if (!read_single_quoted(out))
                    return false;
            } else if (c == '"') {
                if (!read_double_quoted(out))
                    return false;
            } else if (c == '\\') {
                // Outside quotes a backslash takes the next character as it is.
                ++pos_;
                if (pos_ == n)
                    return true;
                if (text_[pos_] == '\n') {
                    ++line_;
                    ++pos_;
                    continue;
                }
                out += text_[pos_++];
            } else {
                out += c;
                ++pos_;
            }
        }
        return true;
    }

    // Everything up to the next single quote is literal, line breaks included.
    bool read_single_quoted(std::string &out)
    {
        const int start = line_;
        size_t close = text_.find('\'', pos_ + 1);
        if (close == std::string_view::npos)
            return fail(start, "unterminated single quote");
        std::string_view body = text_.substr(pos_ + 1, close - pos_ - 1);
        for (char c : body)
            line_ += c == '\n';
        out.append(body);
        pos_ = close + 1;
        return true;
    }

    // Double quotes: a backslash takes the next character literally (\" \\),
    // and a backslash before a line break joins the lines.
    bool read_double_quoted(std::string &out)
    {
        const int start = line_;
        const size_t n = text_.size();
        ++pos_;
        while (pos_ < n) {
            char c = text_[pos_++];
            if (c == '"')
                return true;
            if (c == '\\') {
                if (pos_ == n)
                    break;
                char next = text_[pos_++];
                if (next == '\n')
                    ++line_;
                else
                    out += next;
                continue;
            }
            line_ += c == '\n';
            out += c;
        }
        return fail(start, "unterminated double quote");
    }

    bool execute(const std::vector<Word> &words)
    {
        const std::string &keyword = words[0].text;
        if (keyword == "config")
            return do_config(words);
        if (keyword == "option")
            return do_option(words, false);
        if (keyword == "list")
            return do_option(words, true);
        if (keyword == "package") {
            // The file name decides the package; the statement is only checked.
            if (words.size() != 2)
                return fail(words[0].line, "'package' takes exactly one name");
            if (!valid_package_name(words[1].text))
                return fail(words[1].line, "invalid package name '" + excerpt(words[1].text) + "'");
            return true;
        }
        return fail(words[0].line, "unknown statement '" + excerpt(keyword) + "'");
    }

    bool do_config(const std::vector<Word> &words)
    {
        if (words.size() < 2 || words.size() > 3)
            return fail(words[0].line, "'config' takes a type and an optional name");
        const std::string &type = words[1].text;
        if (!valid_type(type))
            return fail(words[1].line, "invalid section type '" + excerpt(type) + "'");
        const std::string name = words.size() == 3 ? words[2].text : std::string();
        if (!name.empty()) {
            if (!valid_name(name))
                return fail(words[2].line, "invalid section name '" + excerpt(name) + "'");
            auto found = named_.find(name);
            if (found != named_.end()) {
                // A repeated named section continues the first one; under
                // another type it would silently change its meaning.
                if (std::strcmp(found->second->type, type.c_str()) != 0)
                    return fail(words[0].line,
                                "section '" + name + "' defined again with another type");
                current_ = found->second;
                return true;
            }
        }
        uci_package &pkg = store_.pkg;
        uci_section &s = store_.sections.emplace_back();
        s.e.type = UCI_TYPE_SECTION;
        s.e.name = name.empty() ? nullptr : store_.keep(name); // anonymous: named at the end
        s.type = store_.keep(type);
        s.package = &pkg;
        s.anonymous = name.empty();
        list_init(&s.options);
        list_append(&pkg.sections, &s.e.list);
        ++pkg.n_section;
        if (!name.empty())
            named_.emplace(s.e.name, &s);
        current_ = &s;
        return true;
    }

    void append_item(uci_option &o, char *value)
    {
        uci_element &item = store_.items.emplace_back();
        item.type = UCI_TYPE_ITEM;
        item.name = value;
        list_append(&o.v.list, &item.list);
    }

    // `option` sets a string, replacing an earlier option of that name in
    // place; `list` appends an item, turning an earlier string into the
    // list's first item.
    bool do_option(const std::vector<Word> &words, bool is_list)
    {
        const char *keyword = is_list ? "list" : "option";
        if (words.size() < 2 || words.size() > 3)
            return fail(words[0].line, std::string("'") + keyword + "' takes a name and a value");
        if (!current_)
            return fail(words[0].line, std::string("'") + keyword + "' before the first 'config'");
        const std::string &name = words[1].text;
        if (!valid_name(name))
            return fail(words[1].line, "invalid option name '" + excerpt(name) + "'");
        char *value = store_.keep(words.size() == 3 ? std::string_view(words[2].text) : "");

        auto &by_name = options_[current_];
        auto found = by_name.find(name);
        if (found == by_name.end()) {
            uci_option &o = store_.options.emplace_back();
            o.e.type = UCI_TYPE_OPTION;
            o.e.name = store_.keep(name);
            o.section = current_;
            if (is_list) {
                o.type = UCI_TYPE_LIST;
                list_init(&o.v.list);
                append_item(o, value);
            } else {
                o.type = UCI_TYPE_STRING;
                o.v.string = value;
            }
            list_append(&current_->options, &o.e.list);
            by_name.emplace(o.e.name, &o);
            return true;
        }
        uci_option &o = *found->second;
        if (!is_list) {
            o.type = UCI_TYPE_STRING;
            o.v.string = value; // earlier items stay in the store, unlinked
            return true;
        }
        if (o.type == UCI_TYPE_STRING) {
            char *first = o.v.string;
            o.type = UCI_TYPE_LIST;
            list_init(&o.v.list);
            append_item(o, first);
        }
        append_item(o, value);
        return true;
    }

    // Anonymous sections get "cfg" + their position among all sections (two
    // hex digits or more) + a 16-bit hash of their content, so a name stays
    // the same across loads of an unchanged file.
    void name_anonymous_sections()
    {
        unsigned position = 0;
        for (uci_section &s : store_.sections) {
            ++position;
            if (!s.anonymous)
                continue;
            uint32_t h = 2166136261u; // FNV-1a
            auto mix = [&h](const char *text) {
                for (const char *p = text;; ++p) {
                    h = (h ^ static_cast<unsigned char>(*p)) * 16777619u;
                    if (!*p)
                        break;
                }
            };
            mix(s.type);
            uci_element *oe;
            uci_foreach_element(&s.options, oe)
            {
                uci_option *o = uci_to_option(oe);
                mix(oe->name);
                if (o->type == UCI_TYPE_STRING) {
                    mix(o->v.string);
                } else {
                    uci_element *item;
                    uci_foreach_element(&o->v.list, item) mix(item->name);
                }
            }
            unsigned tag = ((h >> 16) ^ h) & 0xffffu;
            char name[32];
            for (;;) { // a hand-written name could already look generated
                std::snprintf(name, sizeof name, "cfg%02x%04x", position, tag);
                if (named_.find(name) == named_.end())
                    break;
                tag = (tag + 1) & 0xffffu;
            }
            s.e.name = store_.keep(name);
            named_.emplace(s.e.name, &s);
        }
    }

    std::string_view text_;
    size_t pos_ = 0;
    int line_ = 1;
    PackageStore &store_;
    uci_section *current_ = nullptr;
    std::unordered_map<std::string_view, uci_section *> named_;
    std::unordered_map<const uci_section *, std::unordered_map<std::string_view, uci_option *>>
        options_;
    ParseError err_;
};

} // namespace

bool valid_package_name(std::string_view name)
{
    if (name.empty())
        return false;
    for (char c : name)
        if (!is_name_char(c) && c != '-')
            return false;
    return true;
}

bool parse_package(std::string_view text, PackageStore &store, ParseError &err)
{
    std::string clean;
    if (!normalize(text, clean, err))
        return false;
    return Parser(clean, store).run(err);
}

} // namespace leisobek::uci
