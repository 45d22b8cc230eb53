// A circular doubly linked list with a sentinel head, holding data pointers it does not own.
//
// The head is a node like any other whose data is never read; an empty list's
// head points at itself both ways. Walk forwards with next from head->next
// until head, backwards with prev from head->prev.
#ifndef LEISOBEK_CORE_DLIST_H
#define LEISOBEK_CORE_DLIST_H

struct dlist {
    struct dlist *next;
    struct dlist *prev;
    void *data;
};

// Returns a new empty list (its head), or null when out of memory.
struct dlist *dlist_new(void);

// Links a new node holding data immediately before node. Returns the new
// node, or null (list unchanged) when out of memory.
struct dlist *dlist_insert_before(struct dlist *node, void *data);

// Links a new node holding data immediately after node; the same as
// dlist_insert_before(node->next, data).
struct dlist *dlist_insert_after(struct dlist *node, void *data);

// Unlinks node and frees it; its data is the caller's to free first.
void dlist_remove(struct dlist *node);

// Non-zero when the list has no node besides head.
int dlist_is_empty(const struct dlist *head);

// The data pointer a node holds.
void *dlist_data(const struct dlist *node);

// Returns the first node after head whose data satisfies pred(data, arg)
// (non-zero), or null when none does. pred is never called on an empty list.
struct dlist *dlist_find(struct dlist *head, int (*pred)(void *data, void *arg), void *arg);

#endif
