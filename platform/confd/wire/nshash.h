// Stable 31-bit hashes of YANG namespaces and names: the platform's tag and ns numbers.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

namespace confd_wire
{

namespace detail
{
constexpr uint32_t fnv_offset = 2166136261u;
constexpr uint32_t fnv_prime = 16777619u;

constexpr uint32_t fnv1a(uint32_t h, std::string_view s)
{
    for (char c : s) {
        h ^= static_cast<uint8_t>(c);
        h *= fnv_prime;
    }
    return h;
}

// Hash values are positive 31-bit numbers; 0 is reserved for "no namespace / unknown".
constexpr uint32_t fold31(uint32_t h)
{
    h &= 0x7fffffffu;
    return h == 0 ? 1u : h;
}
} // namespace detail

// Namespace hash of a module's namespace URI: FNV-1a 32 over the URI, masked to 31 bits, never 0.
constexpr uint32_t ns_hash(std::string_view uri)
{
    return detail::fold31(detail::fnv1a(detail::fnv_offset, uri));
}

// Tag hash of a node (or identity) name in a namespace: FNV-1a 32 over uri, one 0 byte, name; 31
// bits, never 0.
constexpr uint32_t tag_hash(std::string_view uri, std::string_view name)
{
    uint32_t h = detail::fnv1a(detail::fnv_offset, uri);
    h ^= 0u; // the separator byte
    h *= detail::fnv_prime;
    return detail::fold31(detail::fnv1a(h, name));
}

// One hashed name: the namespace URI and the name (an empty name stands for the namespace itself).
struct HashedName {
    std::string uri, name;
    uint32_t hash = 0;
};

// Hashes a list of (uri, name) pairs (empty name = the namespace hash of uri). Duplicated pairs are
// fine. Returns true when two different pairs share one hash; msg then names both. Returns false
// otherwise.
inline bool find_hash_collision(std::vector<HashedName> names, std::string &msg)
{
    for (auto &n : names)
        if (n.hash == 0) n.hash = n.name.empty() ? ns_hash(n.uri) : tag_hash(n.uri, n.name);
    std::sort(names.begin(), names.end(), [](const HashedName &a, const HashedName &b) {
        return std::tie(a.hash, a.uri, a.name) < std::tie(b.hash, b.uri, b.name);
    });
    for (size_t i = 1; i < names.size(); ++i) {
        const HashedName &a = names[i - 1], &b = names[i];
        if (a.hash != b.hash || (a.uri == b.uri && a.name == b.name)) continue;
        auto show = [](const HashedName &n) {
            return n.name.empty() ? "namespace '" + n.uri + "'"
                                  : "'" + n.name + "' in '" + n.uri + "'";
        };
        msg = "hash collision: " + show(a) + " and " + show(b) + " both hash to " +
              std::to_string(a.hash);
        return true;
    }
    return false;
}

} // namespace confd_wire
