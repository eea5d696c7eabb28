#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "core/Collection.h"
#include "core/Error.h"
#include "tests/support/RaisedError.h"

namespace {

using testing_support::RaisedErrorNumber;

using core::Collection;
using core::Error;

TEST(Collection, PositionsCountFromOneAndKeysFindTheSameEntries) {
    Collection<std::string> c;
    c.Add("first", "1");
    c.Add("second", "2");
    c.Add("unkeyed");
    EXPECT_EQ(c.Count(), 3);
    EXPECT_EQ(c.Item(1), "first");
    EXPECT_EQ(c.Item(3), "unkeyed");
    EXPECT_EQ(c.Item(std::string("2")), "second");
}

TEST(Collection, RemovalByKeyClosesTheGap) {
    Collection<std::string> c;
    for (const char* k : {"1", "2", "3"}) c.Add(std::string("m") + k, std::string(k));
    c.Remove(std::string("2"));
    ASSERT_EQ(c.Count(), 2);
    EXPECT_EQ(c.Item(2), "m3");
    EXPECT_EQ(c.Item(std::string("3")), "m3");
    c.Remove(1);
    ASSERT_EQ(c.Count(), 1);
    EXPECT_EQ(c.Item(1), "m3");
}

TEST(Collection, BadPositionsKeysAndDuplicatesRaiseTheirNumbers) {
    Collection<int> c;
    c.Add(10, "a");
    EXPECT_EQ(RaisedErrorNumber([&] { c.Item(0); }), 9);
    EXPECT_EQ(RaisedErrorNumber([&] { c.Item(2); }), 9);
    EXPECT_EQ(RaisedErrorNumber([&] { c.Remove(5); }), 9);
    EXPECT_EQ(RaisedErrorNumber([&] { c.Item(std::string("b")); }), 5);
    EXPECT_EQ(RaisedErrorNumber([&] { c.Remove(std::string("b")); }), 5);
    EXPECT_EQ(RaisedErrorNumber([&] { c.Add(11, "a"); }), 457);
    EXPECT_EQ(c.Count(), 1);
}

TEST(Collection, HoldersOfTheSamePointerShareTheList) {
    auto mine = core::MakeCollection<std::shared_ptr<int>>();
    mine->Add(std::make_shared<int>(1), "1");
    mine->Add(std::make_shared<int>(2), "2");
    core::CollectionPtr<std::shared_ptr<int>> theirs = mine;
    theirs->Remove(std::string("1"));
    EXPECT_EQ(mine->Count(), 1);
    *theirs->Item(1) = 42;  // records are shared objects, too
    EXPECT_EQ(*mine->Item(std::string("2")), 42);
}

TEST(Collection, IteratesInOrder) {
    Collection<int> c;
    for (int i : {3, 1, 2}) c.Add(i);
    std::string seen;
    for (int i : c) seen += std::to_string(i);
    EXPECT_EQ(seen, "312");
}

}  // namespace
