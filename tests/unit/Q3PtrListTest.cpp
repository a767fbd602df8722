#include "qt/Q3PtrList.h"

#include <gtest/gtest.h>

namespace {

class Q3PtrListTest : public testing::Test
{
protected:
    void SetUp() override
    {
        for (int& value : values)
            list.append(&value);
    }

    int values[3] = {0, 1, 2};
    Q3PtrList<int> list;
};

TEST_F(Q3PtrListTest, AppendingMakesTheNewEntryCurrent)
{
    EXPECT_EQ(list.count(), 3u);
    EXPECT_FALSE(list.isEmpty());
    EXPECT_EQ(list.current(), &values[2]);
    EXPECT_EQ(list.at(), 2);
}

TEST_F(Q3PtrListTest, StepsFromTheFirstEntryPastTheLast)
{
    EXPECT_EQ(list.first(), &values[0]);
    EXPECT_EQ(list.next(), &values[1]);
    EXPECT_EQ(list.next(), &values[2]);
    EXPECT_EQ(list.next(), nullptr);
    EXPECT_EQ(list.at(), -1);
    EXPECT_EQ(list.next(), nullptr);
}

TEST_F(Q3PtrListTest, FindsByAddressFromTheStart)
{
    list.append(&values[0]);
    int other = 1;
    EXPECT_EQ(list.findRef(&values[0]), 0);
    EXPECT_EQ(list.current(), &values[0]);
    EXPECT_EQ(list.findRef(&values[1]), 1);
    EXPECT_EQ(list.findRef(&other), -1);
    EXPECT_EQ(list.current(), nullptr);
}

TEST_F(Q3PtrListTest, AnIndexBeyondTheEndLeavesThePositionAlone)
{
    list.at(1);
    EXPECT_EQ(list.at(3), nullptr);
    EXPECT_EQ(list.at(), 1);
}

TEST_F(Q3PtrListTest, AnEmptyListHasNoFirstEntry)
{
    Q3PtrList<int> empty;
    EXPECT_TRUE(empty.isEmpty());
    EXPECT_EQ(empty.first(), nullptr);
    EXPECT_EQ(empty.next(), nullptr);
}

} // namespace
