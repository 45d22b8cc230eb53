// String values of XPath 1.0 expressions over the configuration printed as XML, by libxml2.
#pragma once

#include <string>

namespace emu
{

// Evaluates expr over xml, the configuration's top-level elements one after another (their
// namespaces are ignored, so expr carries no module prefixes). The context node is the first node
// ctx_expr selects, or the root when ctx_expr is empty or selects nothing. Returns 0 with found
// false for an empty node set and otherwise found true with the XPath string value of the result
// (a node set's first node in document order, a number as XPath prints it, "true"/"false");
// CONFD_ERR_XPATH with err when the expression does not evaluate.
int xpath_text(const std::string &xml, const std::string &expr, const std::string &ctx_expr,
               bool &found, std::string &text, std::string &err);

} // namespace emu
