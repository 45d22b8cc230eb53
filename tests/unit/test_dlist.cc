// Unit tests of the circular doubly linked list.
#include "core/dlist.h"

#include <gtest/gtest.h>
#include <vector>

namespace
{

// The data walked forwards, then (after -1) backwards.
std::vector<int> both_ways(const struct dlist *head)
{
    std::vector<int> seen;
    for (struct dlist *n = head->next; n != head; n = n->next)
        seen.push_back(*static_cast<int *>(dlist_data(n)));
    seen.push_back(-1);
    for (struct dlist *n = head->prev; n != head; n = n->prev)
        seen.push_back(*static_cast<int *>(dlist_data(n)));
    return seen;
}

int equals(void *data, void *arg)
{
    return *static_cast<int *>(data) == *static_cast<int *>(arg);
}

// Verifies that insert_before the head appends, insert_after the head prepends and insert_after a
// node links right behind it, both directions agreeing; that find returns the first match from the
// front or null (never asking the predicate on an empty list); and that removal relinks the
// neighbours, leaving the data alone, down to an empty list again.
TEST(DlistTest, InsertFindAndRemoveKeepBothDirectionsInStep)
{
    struct dlist *head = dlist_new();
    ASSERT_NE(head, nullptr);
    EXPECT_EQ(dlist_find(
                  head, [](void *, void *) -> int { abort(); }, nullptr),
              nullptr);
    int v[] = {10, 20, 30, 20}, absent = 99;
    struct dlist *n20 = dlist_insert_before(head, &v[1]);
    struct dlist *n10 = dlist_insert_after(head, &v[0]);
    struct dlist *n30 = dlist_insert_after(n20, &v[2]);
    struct dlist *last = dlist_insert_before(head, &v[3]);
    EXPECT_EQ(both_ways(head), (std::vector<int>{10, 20, 30, 20, -1, 20, 30, 20, 10}));
    EXPECT_EQ(dlist_find(head, equals, &v[3]), n20);
    EXPECT_EQ(dlist_find(head, equals, &absent), nullptr);

    dlist_remove(n20);
    EXPECT_EQ(both_ways(head), (std::vector<int>{10, 30, 20, -1, 20, 30, 10}));
    EXPECT_EQ(dlist_find(head, equals, &v[3]), last);
    EXPECT_EQ(v[1], 20);
    for (struct dlist *n : {n10, n30, last})
        dlist_remove(n);
    EXPECT_TRUE(dlist_is_empty(head));
    free(head);
}

} // namespace
