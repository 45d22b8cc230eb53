// Internal to the UCI library: the storage a loaded package owns, list helpers and the parser entry.
#pragma once

#include <uci.h>

#include <deque>
#include <string>
#include <string_view>

namespace leisobek::uci {

// Everything one loaded package owns. Objects live in deques so their
// addresses stay fixed while the parser appends; uci_unload deletes the
// whole store at once, so nothing is freed piecemeal (an option replaced by
// a later line of the same name simply stays unlinked until then).
struct PackageStore {
    uci_package pkg{};
    std::deque<uci_section> sections;
    std::deque<uci_option> options;
    std::deque<uci_element> items;
    std::deque<std::string> strings;

    // A NUL-terminated copy of `text` that lives as long as the store.
    char *keep(std::string_view text)
    {
        strings.emplace_back(text);
        return strings.back().data();
    }
};

// Where and why the text is not valid UCI.
struct ParseError {
    std::string reason;
    int line = 0; // 1-based; 0 when the error is not tied to a line
};

inline void list_init(uci_list *head) { head->next = head->prev = head; }

inline void list_append(uci_list *head, uci_list *node)
{
    node->prev = head->prev;
    node->next = head;
    head->prev->next = node;
    head->prev = node;
}

inline void list_unlink(uci_list *node)
{
    node->prev->next = node->next;
    node->next->prev = node->prev;
    list_init(node);
}

// A package name as it may appear in the configuration directory:
// letters, digits, '_' and '-'.
bool valid_package_name(std::string_view name);

// Parses the text of one package file into `store`, whose pkg must already
// have its name and an empty section list. Returns true, or false with
// `err` filled (also for a line over LEISOBEK_UCI_MAX_LINE_BYTES or a NUL
// byte); throws std::bad_alloc when memory runs out. Line breaks may be LF
// or CRLF.
bool parse_package(std::string_view text, PackageStore &store, ParseError &err);

} // namespace leisobek::uci
