// Namespace-header generator: a C header of tag, callpoint and enum macros per YANG module.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "schema.h"

namespace nsgen
{

// `s` with every character that may not appear in a C identifier replaced by '_'.
std::string c_ident(std::string_view s);

// One macro of a header: name and replacement text.
using Macro = std::pair<std::string, std::string>;

// The macros of module `ns` of a loaded schema, in header order: namespace, node and identity tags,
// callpoint ids, then enumerators that are unambiguous in the module. Returns false with err naming
// both sources when two different definitions map to one macro name.
bool module_macros(const emu::Schema &s, const emu::Schema::Ns &ns, std::vector<Macro> &out,
                   std::string &err);

// Header text for module `ns` (include guard, the macros). Returns false as module_macros does.
bool module_header(const emu::Schema &s, const emu::Schema::Ns &ns, std::string &text,
                   std::string &err);

// Loads every module of models_dir and writes <module>.h for each into out_dir (created if
// missing); a file whose content is unchanged is left alone. Returns false with err on a load
// error, a hash collision, a macro-name clash or a write failure.
bool generate(const std::string &models_dir, const std::string &out_dir, std::string &err);

} // namespace nsgen
