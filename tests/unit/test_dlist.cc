// Unit tests of the circular doubly linked list.
#include "core/dlist.h"

#include <gtest/gtest.h>
#include <string>
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

    std::vector<int> forward() const
    {
        std::vector<int> seen;
        for (struct dlist *n = head_->next; n != head_; n = n->next)
            seen.push_back(*static_cast<int *>(dlist_data(n)));
        return seen;
    }

    std::vector<int> backward() const
    {
        std::vector<int> seen;
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

int calls = 0;
int counting_pred(void *, void *)
{
    ++calls;
    return 1;
}

// Verifies that a new list is empty and its head points at itself both ways.
TEST_F(DlistTest, NewListIsEmptyAndSelfLinked)
{
    ASSERT_NE(head_, nullptr);
    EXPECT_TRUE(dlist_is_empty(head_));
    EXPECT_EQ(head_->next, head_);
    EXPECT_EQ(head_->prev, head_);
}

// Verifies that insert_before the head appends, insert_after the head
// prepends, and both walking directions see the same order.
TEST_F(DlistTest, InsertionsKeepOrderInBothDirections)
{
    dlist_insert_before(head_, &v_[1]); // 20
    dlist_insert_before(head_, &v_[2]); // 20 30
    dlist_insert_after(head_, &v_[0]);  // 10 20 30
    EXPECT_FALSE(dlist_is_empty(head_));
    EXPECT_EQ(forward(), (std::vector<int>{10, 20, 30}));
    EXPECT_EQ(backward(), (std::vector<int>{30, 20, 10}));
}

// Verifies that insert_after a node links the new one right behind it and
// returns the new node holding the data.
TEST_F(DlistTest, InsertAfterNodeGoesBetweenNodeAndItsSuccessor)
{
    struct dlist *a = dlist_insert_before(head_, &v_[0]);
    dlist_insert_before(head_, &v_[2]);
    struct dlist *b = dlist_insert_after(a, &v_[1]);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(dlist_data(b), &v_[1]);
    EXPECT_EQ(b->prev, a);
    EXPECT_EQ(forward(), (std::vector<int>{10, 20, 30}));
    EXPECT_EQ(backward(), (std::vector<int>{30, 20, 10}));
}

// Verifies that removing nodes from the middle, front and back relinks their
// neighbours and leaves the data alone, down to an empty list.
TEST_F(DlistTest, RemoveRelinksNeighboursDownToEmpty)
{
    struct dlist *n[4];
    for (int i = 0; i < 4; ++i)
        n[i] = dlist_insert_before(head_, &v_[i]);
    dlist_remove(n[1]);
    EXPECT_EQ(forward(), (std::vector<int>{10, 30, 40}));
    dlist_remove(n[0]);
    dlist_remove(n[3]);
    EXPECT_EQ(forward(), (std::vector<int>{30}));
    EXPECT_EQ(backward(), (std::vector<int>{30}));
    EXPECT_EQ(v_[1], 20);
    dlist_remove(n[2]);
    EXPECT_TRUE(dlist_is_empty(head_));
    EXPECT_EQ(head_->prev, head_);
}

// Verifies that find returns the first matching node from the front, and
// null when nothing matches.
TEST_F(DlistTest, FindReturnsFirstMatchOrNull)
{
    int twenty = 20;
    dlist_insert_before(head_, &v_[0]);
    struct dlist *first = dlist_insert_before(head_, &v_[1]);
    dlist_insert_before(head_, &twenty);
    EXPECT_EQ(dlist_find(head_, equals, &twenty), first);
    int absent = 99;
    EXPECT_EQ(dlist_find(head_, equals, &absent), nullptr);
}

// Verifies that find on an empty list returns null without calling the predicate.
TEST_F(DlistTest, FindOnEmptyListNeverCallsPredicate)
{
    calls = 0;
    EXPECT_EQ(dlist_find(head_, counting_pred, nullptr), nullptr);
    EXPECT_EQ(calls, 0);
}

} // namespace
