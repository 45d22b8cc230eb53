/* Read-only UCI configuration API (the libuci subset the daemon uses) for hosts without OpenWrt. */
#ifndef LEISOBEK_PLATFORM_UCI_H
#define LEISOBEK_PLATFORM_UCI_H

#include <stdbool.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Object model
 * ------------
 * A context owns the packages loaded through it. A package holds its
 * sections, a section its options, a list option its items, each in file
 * order, on circular doubly linked lists. Every object starts with a
 * struct uci_element (name and list link), so code walks any level with
 * uci_foreach_element and converts with uci_to_section / uci_to_option.
 * Everything reachable from a package stays valid until uci_unload of that
 * package or uci_free_context. Contexts share nothing: threads may each
 * use their own context at the same time, but not one context together.
 */

/* Result codes: functions return one of these and keep it in ctx->err. */
enum {
    UCI_OK = 0,
    UCI_ERR_MEM,       /* allocation failed */
    UCI_ERR_INVAL,     /* bad argument, e.g. an invalid package name */
    UCI_ERR_NOTFOUND,  /* no such package file */
    UCI_ERR_IO,        /* the file exists but cannot be read */
    UCI_ERR_PARSE,     /* the file is not valid UCI syntax (or too large) */
    UCI_ERR_DUPLICATE, /* the package is already loaded in this context */
    UCI_ERR_UNKNOWN,
    UCI_ERR_LAST
};

/* What a struct uci_element is embedded in. */
enum uci_type {
    UCI_TYPE_UNSPEC = 0,
    UCI_TYPE_DELTA = 1,
    UCI_TYPE_PACKAGE = 2,
    UCI_TYPE_SECTION = 3,
    UCI_TYPE_OPTION = 4,
    UCI_TYPE_PATH = 5,
    UCI_TYPE_BACKEND = 6,
    UCI_TYPE_ITEM = 7, /* one value of a list option; the value is the element's name */
    UCI_TYPE_HOOK = 8
};

/* Whether an option holds one string (v.string) or a list of items (v.list). */
enum uci_option_type {
    UCI_TYPE_STRING = 0,
    UCI_TYPE_LIST = 1
};

/* Link of a circular list; a list head is a bare struct uci_list. */
struct uci_list {
    struct uci_list *next;
    struct uci_list *prev;
};

/* Common head of packages, sections, options and list items. */
struct uci_element {
    struct uci_list list; /* kept first: a list link converts to its element by a cast */
    enum uci_type type;
    char *name;
};

struct uci_context {
    struct uci_list root; /* loaded packages */
    char *confdir;        /* directory searched by uci_load; "/etc/config" unless changed */
    int err;              /* result of the last call */
    void *priv;           /* library-internal */
};

struct uci_package {
    struct uci_element e; /* e.name: the package name */
    struct uci_list sections;
    struct uci_context *ctx;
    char *path; /* the file it was read from */
    int n_section;
    void *priv; /* library-internal */
};

struct uci_section {
    struct uci_element e; /* e.name: the section name, generated ("cfgXXXXXX") when anonymous */
    struct uci_list options;
    struct uci_package *package;
    bool anonymous;
    char *type;
};

struct uci_option {
    struct uci_element e; /* e.name: the option name */
    struct uci_section *section;
    enum uci_option_type type;
    union {
        struct uci_list list; /* UCI_TYPE_LIST: elements of type UCI_TYPE_ITEM */
        char *string;         /* UCI_TYPE_STRING */
    } v;
};

/* Pointer to the structure of type `type` whose member `member` is at `ptr`. */
#define uci_container_of_(ptr, type, member) ((type *)((char *)(ptr) - offsetof(type, member)))

#define list_to_element(ptr) uci_container_of_(ptr, struct uci_element, list)
#define uci_to_package(ptr) uci_container_of_(ptr, struct uci_package, e)
#define uci_to_section(ptr) uci_container_of_(ptr, struct uci_section, e)
#define uci_to_option(ptr) uci_container_of_(ptr, struct uci_option, e)

#define uci_list_empty(head) ((head)->next == (head))

/* Visit every element on the list `head` in order; `elem` is a struct uci_element *. */
#define uci_foreach_element(head, elem)                                                        \
    for ((elem) = list_to_element((head)->next); &(elem)->list != (head);                      \
         (elem) = list_to_element((elem)->list.next))

/* As uci_foreach_element, but `tmp` holds the successor so `elem` may be unlinked. */
#define uci_foreach_element_safe(head, tmp, elem)                                              \
    for ((elem) = list_to_element((head)->next), (tmp) = list_to_element((elem)->list.next);   \
         &(elem)->list != (head);                                                              \
         (elem) = (tmp), (tmp) = list_to_element((elem)->list.next))

/* A new context searching "/etc/config"; NULL when out of memory. */
struct uci_context *uci_alloc_context(void);

/* Frees the context and every package still loaded in it. NULL is ignored. */
void uci_free_context(struct uci_context *ctx);

/*
 * Makes uci_load read packages from `dir` instead of "/etc/config".
 * Returns UCI_OK, UCI_ERR_INVAL for a NULL context or an empty/NULL dir,
 * UCI_ERR_MEM when the copy cannot be made.
 */
int uci_set_confdir(struct uci_context *ctx, const char *dir);

/*
 * Reads package `name` (the file <confdir>/<name>; a name starting with "/"
 * or "./" is taken as a path) into the context and stores it in *package.
 * Returns UCI_OK; UCI_ERR_NOTFOUND when the file does not exist,
 * UCI_ERR_PARSE on a syntax error (the line is in the error text),
 * UCI_ERR_INVAL for an invalid name, UCI_ERR_IO, UCI_ERR_MEM, or
 * UCI_ERR_DUPLICATE when a package of that name is already loaded.
 * On failure nothing is kept and *package is set to NULL.
 */
int uci_load(struct uci_context *ctx, const char *name, struct uci_package **package);

/*
 * Removes the package from its context and frees it with all its sections
 * and options. Returns UCI_OK, or UCI_ERR_INVAL when the package is NULL or
 * not loaded in this context.
 */
int uci_unload(struct uci_context *ctx, struct uci_package *p);

/* The section named `name` (generated names included), or NULL. */
struct uci_section *uci_lookup_section(struct uci_context *ctx, struct uci_package *p,
                                       const char *name);

/* The option named `name` in the section, or NULL. */
struct uci_option *uci_lookup_option(struct uci_context *ctx, struct uci_section *s,
                                     const char *name);

/* The value of a string option, or NULL when it is missing or a list. */
const char *uci_lookup_option_string(struct uci_context *ctx, struct uci_section *s,
                                     const char *name);

/* Prints the last error to stderr as "<prefix>: <message>", plus the line of a parse error. */
void uci_perror(struct uci_context *ctx, const char *prefix);

/*
 * The text uci_perror would print (without the newline). With `dest` set,
 * stores a malloc'd copy there (NULL if the allocation fails; the caller
 * frees it); with `dest` NULL, prints it to stderr.
 */
void uci_get_errorstr(struct uci_context *ctx, char **dest, const char *prefix);

#ifdef __cplusplus
}
#endif

#endif /* LEISOBEK_PLATFORM_UCI_H */
