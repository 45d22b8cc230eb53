// XPath 1.0 string values with libxml2: confd-emu's maapi_xpath_eval_expr for any expression.
#include "xpath_text.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xpath.h>

#include <memory>
#include <mutex>
#include <vector>

#include "confd_lib.h"

namespace emu
{

namespace
{

struct DocFree {
    void operator()(xmlDoc *d) const { xmlFreeDoc(d); }
};
struct ContextFree {
    void operator()(xmlXPathContext *c) const { xmlXPathFreeContext(c); }
};
struct ObjectFree {
    void operator()(xmlXPathObject *o) const { xmlXPathFreeObject(o); }
};
using Doc = std::unique_ptr<xmlDoc, DocFree>;
using Context = std::unique_ptr<xmlXPathContext, ContextFree>;
using Object = std::unique_ptr<xmlXPathObject, ObjectFree>;

// Keeps libxml2's own messages off stderr: errors are handed back to the client instead.
void quiet(void *, const char *, ...) {}

void keep_message(void *user, xmlErrorPtr e)
{
    auto *msg = static_cast<std::string *>(user);
    if (msg->empty() && e && e->message) {
        *msg = e->message;
        while (!msg->empty() && msg->back() == '\n')
            msg->pop_back();
    }
}

// The configuration as one document whose top-level elements sit right under the root, as the
// configuration's top-level nodes do, so that "/system/hostname" selects from them. Namespaces
// are dropped: expressions name nodes without module prefixes. The XML is printed without
// indentation, so every text node is a value (blank ones included).
Doc parse_forest(const std::string &xml)
{
    std::string wrapped = "<forest>" + xml + "</forest>";
    Doc doc(xmlReadMemory(wrapped.data(), static_cast<int>(wrapped.size()), "running.xml",
                          nullptr, XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
    if (!doc) return doc;
    xmlNode *wrapper = xmlDocGetRootElement(doc.get());
    for (xmlNode *n = wrapper->children; n != nullptr;) {
        xmlNode *next = n->next;
        xmlUnlinkNode(n);
        xmlAddChild(reinterpret_cast<xmlNode *>(doc.get()), n);
        n = next;
    }
    xmlUnlinkNode(wrapper);
    xmlFreeNode(wrapper);
    std::vector<xmlNode *> todo{reinterpret_cast<xmlNode *>(doc.get())};
    while (!todo.empty()) {
        xmlNode *n = todo.back();
        todo.pop_back();
        for (xmlNode *c = n->children; c != nullptr; c = c->next)
            if (c->type == XML_ELEMENT_NODE) {
                c->ns = nullptr;
                todo.push_back(c);
            }
    }
    return doc;
}

Object evaluate(xmlXPathContext *xc, const std::string &expr, std::string &msg)
{
    msg.clear();
    return Object(xmlXPathEvalExpression(reinterpret_cast<const xmlChar *>(expr.c_str()), xc));
}

} // namespace

int xpath_text(const std::string &xml, const std::string &expr, const std::string &ctx_expr,
               bool &found, std::string &text, std::string &err)
{
    static std::once_flag init;
    std::call_once(init, [] { xmlInitParser(); });
    xmlSetGenericErrorFunc(nullptr, quiet); // per thread in libxml2
    found = false;
    text.clear();
    Doc doc = parse_forest(xml);
    if (!doc) {
        err = "the configuration could not be read as XML";
        return CONFD_ERR_INTERNAL;
    }
    Context xc(xmlXPathNewContext(doc.get()));
    if (!xc) {
        err = "out of memory";
        return CONFD_ERR_MALLOC;
    }
    std::string msg;
    xc->userData = &msg;
    xc->error = keep_message;
    xc->node = reinterpret_cast<xmlNode *>(doc.get());
    if (!ctx_expr.empty()) {
        Object ctx = evaluate(xc.get(), ctx_expr, msg);
        if (ctx && ctx->type == XPATH_NODESET && ctx->nodesetval && ctx->nodesetval->nodeNr > 0)
            xc->node = ctx->nodesetval->nodeTab[0];
    }
    Object res = evaluate(xc.get(), expr, msg);
    if (!res) {
        err = "XPath " + expr + ": " + (msg.empty() ? "does not evaluate" : msg);
        return CONFD_ERR_XPATH;
    }
    if (res->type == XPATH_NODESET && (!res->nodesetval || res->nodesetval->nodeNr == 0))
        return 0;
    xmlChar *s = xmlXPathCastToString(res.get());
    if (!s) {
        err = "out of memory";
        return CONFD_ERR_MALLOC;
    }
    text = reinterpret_cast<const char *>(s);
    xmlFree(s);
    found = true;
    return 0;
}

} // namespace emu
