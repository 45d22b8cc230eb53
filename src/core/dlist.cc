// The circular doubly linked list used by the providers' ordered tables.
#include "dlist.h"

#include <cstdlib>

struct dlist *dlist_new(void)
{
    auto *head = static_cast<struct dlist *>(malloc(sizeof(struct dlist)));
    if (head == nullptr) return nullptr;
    head->next = head;
    head->prev = head;
    head->data = nullptr;
    return head;
}

struct dlist *dlist_insert_before(struct dlist *node, void *data)
{
    auto *n = static_cast<struct dlist *>(malloc(sizeof(struct dlist)));
    if (n == nullptr) return nullptr;
    n->data = data;
    n->next = node;
    n->prev = node->prev;
    node->prev->next = n;
    node->prev = n;
    return n;
}

struct dlist *dlist_insert_after(struct dlist *node, void *data)
{
    return dlist_insert_before(node->next, data);
}

void dlist_remove(struct dlist *node)
{
    node->prev->next = node->next;
    node->next->prev = node->prev;
    free(node);
}

int dlist_is_empty(const struct dlist *head)
{
    return head->next == head;
}

void *dlist_data(const struct dlist *node)
{
    return node->data;
}

struct dlist *dlist_find(struct dlist *head, int (*pred)(void *data, void *arg), void *arg)
{
    for (struct dlist *n = head->next; n != head; n = n->next) {
        if (pred(n->data, arg)) return n;
    }
    return nullptr;
}
