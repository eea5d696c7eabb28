#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

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

// The key index must follow every removal: after any mix of removals by position and by key, each key still
// finds the entry at its current position, and a removed key is gone (and may be added again).
TEST(Collection, KeysFollowTheirEntriesThroughRemovals) {
    struct Step {
        bool byKey;
        std::string key;        // by key: the key to remove
        std::int32_t position;  // by position
    };
    const std::vector<std::vector<Step>> scripts = {
        {{false, "", 1}},
        {{true, "k5", 0}, {false, "", 1}, {true, "k2", 0}},
        {{false, "", 6}, {true, "k1", 0}, {false, "", 2}},
        {{true, "k3", 0}, {true, "k4", 0}, {true, "k1", 0}, {false, "", 3}},
        {{false, "", 3}, {false, "", 3}, {false, "", 3}, {true, "k1", 0}, {true, "k6", 0}},
    };
    for (const auto& script : scripts) {
        Collection<std::string> c;
        std::vector<std::optional<std::string>> model;  // the keys, in order (the unkeyed entry has none)
        for (int i = 1; i <= 6; ++i) {
            const std::string k = "k" + std::to_string(i);
            c.Add("v" + k, k);
            model.push_back(k);
            if (i == 3) {
                c.Add("unkeyed");
                model.push_back(std::nullopt);
            }
        }
        for (const Step& step : script) {
            if (step.byKey) {
                c.Remove(step.key);
                model.erase(std::find(model.begin(), model.end(), std::optional<std::string>(step.key)));
                EXPECT_EQ(RaisedErrorNumber([&] { c.Item(step.key); }), 5);
            } else {
                c.Remove(step.position);
                model.erase(model.begin() + (step.position - 1));
            }
            ASSERT_EQ(c.Count(), static_cast<std::int32_t>(model.size()));
            for (std::size_t p = 0; p < model.size(); ++p) {
                const std::string expected = model[p] ? "v" + *model[p] : "unkeyed";
                EXPECT_EQ(c.Item(static_cast<std::int32_t>(p + 1)), expected);
                if (model[p]) {
                    EXPECT_EQ(c.Item(*model[p]), expected) << *model[p];
                }
            }
        }
        const bool k1Kept = std::find(model.begin(), model.end(), std::optional<std::string>("k1")) != model.end();
        EXPECT_EQ(RaisedErrorNumber([&] { c.Add("back", "k1"); }), k1Kept ? 457 : 0);
        EXPECT_EQ(c.Item(c.Count()), k1Kept ? (model.back() ? "v" + *model.back() : "unkeyed") : "back");
    }
}

TEST(Collection, IteratesInOrder) {
    Collection<int> c;
    for (int i : {3, 1, 2}) c.Add(i);
    std::string seen;
    for (int i : c) seen += std::to_string(i);
    EXPECT_EQ(seen, "312");
}

}  // namespace
