// UCI contexts: loading package files from the configuration directory, lookups, error reporting.
#include "store.h"

#include <uci.h>
#include <uci_host.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using leisobek::uci::PackageStore;
using leisobek::uci::ParseError;

namespace {

constexpr const char *kDefaultConfdir = "/etc/config";

// What a context keeps besides its public fields.
struct ContextState {
    uci_context ctx{};
    std::string confdir;
    std::string detail; // what went wrong beyond the code: a parse reason, a system error
    int line = 0;       // line of the last parse error
};

ContextState *state_of(uci_context *ctx) { return static_cast<ContextState *>(ctx->priv); }

// The directory new contexts start with; changed only by the host test seam.
std::mutex &default_mutex()
{
    static std::mutex m;
    return m;
}

std::string &default_confdir()
{
    static std::string dir = kDefaultConfdir;
    return dir;
}

int set_error(uci_context *ctx, int code, std::string detail = std::string(), int line = 0)
{
    ContextState *st = state_of(ctx);
    ctx->err = code;
    st->detail = std::move(detail);
    st->line = line;
    return code;
}

class Fd
{
  public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};

// Reads a whole package file, at most LEISOBEK_UCI_MAX_FILE_BYTES. Returns
// UCI_OK, or the error code with `detail` saying why.
int read_package_file(const std::string &path, std::string &text, std::string &detail)
{
    Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (fd.get() < 0) {
        int e = errno;
        detail = path + ": " + std::strerror(e);
        return (e == ENOENT || e == ENOTDIR) ? UCI_ERR_NOTFOUND : UCI_ERR_IO;
    }
    struct stat st;
    if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        detail = path + ": not a regular file";
        return UCI_ERR_IO;
    }
    // The buffer starts at the file's size plus one byte (to see the end, or a
    // file that grew since fstat) and doubles only if more arrives, never past
    // one byte over the limit, which tells "exactly at the limit" from "over".
    constexpr size_t kLimit = LEISOBEK_UCI_MAX_FILE_BYTES;
    size_t size = static_cast<size_t>(st.st_size);
    text.resize(std::min(size, kLimit) + 1);
    size_t got = 0;
    for (;;) {
        if (got == text.size()) {
            if (got > kLimit)
                break;
            text.resize(std::min(2 * got, kLimit + 1));
        }
        ssize_t n = ::read(fd.get(), &text[got], text.size() - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            detail = path + ": " + std::strerror(errno);
            return UCI_ERR_IO;
        }
        if (n == 0)
            break;
        got += static_cast<size_t>(n);
    }
    if (got > kLimit) {
        detail = path + ": larger than " + std::to_string(kLimit) + " bytes";
        return UCI_ERR_PARSE;
    }
    text.resize(got);
    return UCI_OK;
}

bool is_loaded(uci_context *ctx, uci_package *p)
{
    uci_element *e;
    uci_foreach_element(&ctx->root, e) if (uci_to_package(e) == p) return true;
    return false;
}

uci_package *find_package(uci_context *ctx, const std::string &name)
{
    uci_element *e;
    uci_foreach_element(&ctx->root, e) if (name == e->name) return uci_to_package(e);
    return nullptr;
}

void free_package(uci_package *p) { delete static_cast<PackageStore *>(p->priv); }

const char *message_of(int code)
{
    switch (code) {
    case UCI_OK:
        return "Success";
    case UCI_ERR_MEM:
        return "Out of memory";
    case UCI_ERR_INVAL:
        return "Invalid argument";
    case UCI_ERR_NOTFOUND:
        return "Entry not found";
    case UCI_ERR_IO:
        return "I/O error";
    case UCI_ERR_PARSE:
        return "Parse error";
    case UCI_ERR_DUPLICATE:
        return "Duplicate entry";
    default:
        return "Unknown error";
    }
}

std::string error_text(uci_context *ctx, const char *prefix)
{
    std::string text;
    if (prefix && *prefix)
        text = std::string(prefix) + ": ";
    if (!ctx)
        return text + message_of(UCI_ERR_INVAL);
    const ContextState *st = state_of(ctx);
    text += message_of(ctx->err);
    if (ctx->err != UCI_OK && !st->detail.empty())
        text += " (" + st->detail + ")";
    if (ctx->err == UCI_ERR_PARSE && st->line > 0)
        text += " at line " + std::to_string(st->line);
    return text;
}

} // namespace

extern "C" {

struct uci_context *uci_alloc_context(void)
{
    auto *st = new (std::nothrow) ContextState;
    if (!st)
        return nullptr;
    try {
        std::lock_guard<std::mutex> lock(default_mutex());
        st->confdir = default_confdir();
    } catch (const std::bad_alloc &) {
        delete st;
        return nullptr;
    }
    uci_context *ctx = &st->ctx;
    leisobek::uci::list_init(&ctx->root);
    ctx->confdir = st->confdir.data();
    ctx->err = UCI_OK;
    ctx->priv = st;
    return ctx;
}

void uci_free_context(struct uci_context *ctx)
{
    if (!ctx)
        return;
    uci_element *e, *tmp;
    uci_foreach_element_safe(&ctx->root, tmp, e) free_package(uci_to_package(e));
    delete state_of(ctx);
}

int uci_set_confdir(struct uci_context *ctx, const char *dir)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    if (!dir || !*dir)
        return set_error(ctx, UCI_ERR_INVAL, "empty configuration directory");
    ContextState *st = state_of(ctx);
    try {
        st->confdir = dir;
    } catch (const std::bad_alloc &) {
        return set_error(ctx, UCI_ERR_MEM);
    }
    ctx->confdir = st->confdir.data();
    return set_error(ctx, UCI_OK);
}

int uci_load(struct uci_context *ctx, const char *name, struct uci_package **package)
{
    if (package)
        *package = nullptr;
    if (!ctx)
        return UCI_ERR_INVAL;
    if (!name || !*name)
        return set_error(ctx, UCI_ERR_INVAL, "empty package name");
    try {
        // "/path" and "./path" name a file outside the configuration
        // directory; the package is then called after the file.
        std::string path, pkg_name;
        if (name[0] == '/' || name[0] == '.') {
            if (name[0] == '.' && name[1] != '/')
                return set_error(ctx, UCI_ERR_NOTFOUND, std::string(name) + ": not a package");
            path = name;
            pkg_name = path.substr(path.rfind('/') + 1);
        } else {
            pkg_name = name;
            path = std::string(ctx->confdir) + "/" + name;
        }
        if (!leisobek::uci::valid_package_name(pkg_name))
            return set_error(ctx, UCI_ERR_INVAL, "invalid package name '" + pkg_name + "'");
        if (find_package(ctx, pkg_name))
            return set_error(ctx, UCI_ERR_DUPLICATE, "package '" + pkg_name + "' already loaded");

        std::string text, detail;
        int rc = read_package_file(path, text, detail);
        if (rc != UCI_OK)
            return set_error(ctx, rc, std::move(detail));

        auto store = std::make_unique<PackageStore>();
        uci_package &pkg = store->pkg;
        pkg.e.type = UCI_TYPE_PACKAGE;
        pkg.e.name = store->keep(pkg_name);
        pkg.path = store->keep(path);
        pkg.ctx = ctx;
        pkg.priv = store.get();
        leisobek::uci::list_init(&pkg.e.list);
        leisobek::uci::list_init(&pkg.sections);

        ParseError err;
        if (!leisobek::uci::parse_package(text, *store, err))
            return set_error(ctx, UCI_ERR_PARSE, path + ": " + err.reason, err.line);

        leisobek::uci::list_append(&ctx->root, &pkg.e.list);
        store.release();
        if (package)
            *package = &pkg;
        return set_error(ctx, UCI_OK);
    } catch (const std::bad_alloc &) {
        return set_error(ctx, UCI_ERR_MEM);
    }
}

int uci_unload(struct uci_context *ctx, struct uci_package *p)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    if (!p || !is_loaded(ctx, p))
        return set_error(ctx, UCI_ERR_INVAL, "package not loaded in this context");
    leisobek::uci::list_unlink(&p->e.list);
    free_package(p);
    return set_error(ctx, UCI_OK);
}

struct uci_section *uci_lookup_section(struct uci_context *, struct uci_package *p,
                                       const char *name)
{
    if (!p || !name)
        return nullptr;
    uci_element *e;
    uci_foreach_element(&p->sections, e) if (std::strcmp(e->name, name) == 0) return uci_to_section(e);
    return nullptr;
}

struct uci_option *uci_lookup_option(struct uci_context *, struct uci_section *s,
                                     const char *name)
{
    if (!s || !name)
        return nullptr;
    uci_element *e;
    uci_foreach_element(&s->options, e) if (std::strcmp(e->name, name) == 0) return uci_to_option(e);
    return nullptr;
}

const char *uci_lookup_option_string(struct uci_context *ctx, struct uci_section *s,
                                     const char *name)
{
    uci_option *o = uci_lookup_option(ctx, s, name);
    return (o && o->type == UCI_TYPE_STRING) ? o->v.string : nullptr;
}

void uci_get_errorstr(struct uci_context *ctx, char **dest, const char *prefix)
{
    std::string text;
    try {
        text = error_text(ctx, prefix);
    } catch (const std::bad_alloc &) {
        if (dest)
            *dest = nullptr;
        return;
    }
    if (!dest) {
        std::fprintf(stderr, "%s\n", text.c_str());
        return;
    }
    *dest = static_cast<char *>(std::malloc(text.size() + 1));
    if (*dest)
        std::memcpy(*dest, text.c_str(), text.size() + 1);
}

void uci_perror(struct uci_context *ctx, const char *prefix) { uci_get_errorstr(ctx, nullptr, prefix); }

int leisobek_uci_set_default_confdir(const char *dir)
{
    if (dir && !*dir)
        return -1;
    try {
        std::lock_guard<std::mutex> lock(default_mutex());
        default_confdir() = dir ? dir : kDefaultConfdir;
    } catch (const std::bad_alloc &) {
        return -1;
    }
    return 0;
}

} // extern "C"
