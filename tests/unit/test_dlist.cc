// Unit tests of the circular doubly linked list.
#include "core/dlist.h"

#include <gtest/gtest.h>
#include <vector>

namespace
{

class DlistTest : public ::testing::Test
{
  protected:
    void SetUp() override { head_ = dlist_new(); }
    void TearDown() override
    {
        while (!dlist_is_empty(head_))
            dlist_remove(head_->next);
        free(head_);
    }

    // The data walked forwards, then backwards, as one sequence ("10 20 | 20 10").
    std::vector<int> both_ways() const
    {
        std::vector<int> seen;
        for (struct dlist *n = head_->next; n != head_; n = n->next)
            seen.push_back(*static_cast<int *>(dlist_data(n)));
        seen.push_back(-1);
        for (struct dlist *n = head_->prev; n != head_; n = n->prev)
            seen.push_back(*static_cast<int *>(dlist_data(n)));
        return seen;
    }

    struct dlist *head_ = nullptr;
    int v_[5] = {10, 20, 30, 40, 50};
};

int equals(void *data, void *arg)
{
    return *static_cast<int *>(data) == *static_cast<int *>(arg);
}

// Verifies that a new list is empty and self-linked, that insert_before the head appends,
// insert_after the head prepends and insert_after a node links right behind it, both walking
// directions agreeing; and that removal relinks the neighbours, leaving the data alone, down to an
// empty list again.
TEST_F(DlistTest, InsertAndRemoveKeepBothDirectionsInStep)
{
    ASSERT_NE(head_, nullptr);
    EXPECT_TRUE(dlist_is_empty(head_));

    struct dlist *n20 = dlist_insert_before(head_, &v_[1]);
    struct dlist *n40 = dlist_insert_before(head_, &v_[3]);
    struct dlist *n10 = dlist_insert_after(head_, &v_[0]);
    struct dlist *n30 = dlist_insert_after(n20, &v_[2]);
    ASSERT_NE(n30, nullptr);
    EXPECT_FALSE(dlist_is_empty(head_));
    EXPECT_EQ(both_ways(), (std::vector<int>{10, 20, 30, 40, -1, 40, 30, 20, 10}));

    dlist_remove(n20);
    EXPECT_EQ(both_ways(), (std::vector<int>{10, 30, 40, -1, 40, 30, 10}));
    dlist_remove(n10);
    dlist_remove(n40);
    EXPECT_EQ(both_ways(), (std::vector<int>{30, -1, 30}));
    EXPECT_EQ(v_[1], 20);
    dlist_remove(n30);
    EXPECT_TRUE(dlist_is_empty(head_));
}

// Verifies that find returns the first matching node from the front, null when nothing matches,
// and never calls the predicate on an empty list.
TEST_F(DlistTest, FindReturnsFirstMatchOrNull)
{
    static int calls = 0;
    auto counting = [](void *, void *) { return ++calls, 1; };
    EXPECT_EQ(dlist_find(head_, counting, nullptr), nullptr);
    EXPECT_EQ(calls, 0);

    int twenty = 20, absent = 99;
    dlist_insert_before(head_, &v_[0]);
    struct dlist *first = dlist_insert_before(head_, &v_[1]);
    dlist_insert_before(head_, &twenty);
    EXPECT_EQ(dlist_find(head_, equals, &twenty), first);
    EXPECT_EQ(dlist_find(head_, equals, &absent), nullptr);
}

} // namespace
