// The shared collection: positions from 1, unique keys, and a key index that follows every removal.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "core/Collection.h"
#include "tests/support/RaisedError.h"

namespace {

using testing_support::RaisedErrorNumber;

TEST(Collection, BadPositionsUnknownKeysAndDuplicatesRaiseTheirNumbers) {
    core::Collection<int> c;
    c.Add(10, "a");
    c.Add(20);
    EXPECT_EQ(c.Item(2), 20);
    EXPECT_EQ(RaisedErrorNumber([&] { c.Item(0); }), 9);
    EXPECT_EQ(RaisedErrorNumber([&] { c.Remove(3); }), 9);
    EXPECT_EQ(RaisedErrorNumber([&] { c.Item(std::string("b")); }), 5);
    EXPECT_EQ(RaisedErrorNumber([&] { c.Remove(std::string("b")); }), 5);
    EXPECT_EQ(RaisedErrorNumber([&] { c.Add(11, "a"); }), 457);
    EXPECT_EQ(c.Count(), 2);
}

// After any mix of removals by position and by key, each key finds the entry at its current position, the
// order is kept, and a removed key is gone and may be added again.
TEST(Collection, KeysFollowTheirEntriesThroughRemovals) {
    // Each step removes by key ("k2") or by position ("3").
    const std::vector<std::vector<std::string>> scripts = {
        {"1"}, {"k5", "1", "k2"}, {"6", "k1", "2"}, {"k3", "k4", "k1", "3"}, {"3", "3", "3", "k1", "k6"}};
    for (const auto& script : scripts) {
        core::Collection<std::string> c;
        std::vector<std::optional<std::string>> model;  // the keys in order; the unkeyed entry has none
        for (const char* k : {"k1", "k2", "k3", "", "k4", "k5", "k6"}) {
            c.Add(std::string("v") + k, *k ? std::optional<std::string>(k) : std::nullopt);
            model.push_back(*k ? std::optional<std::string>(k) : std::nullopt);
        }
        for (const std::string& step : script) {
            if (step[0] == 'k') {
                c.Remove(step);
                model.erase(std::find(model.begin(), model.end(), std::optional<std::string>(step)));
                EXPECT_EQ(RaisedErrorNumber([&] { c.Item(step); }), 5);
            } else {
                c.Remove(std::stoi(step));
                model.erase(model.begin() + (std::stoi(step) - 1));
            }
            ASSERT_EQ(c.Count(), static_cast<std::int32_t>(model.size()));
            std::string seen;
            for (const std::string& v : c) seen += v + ",";
            std::string expected;
            for (std::size_t p = 0; p < model.size(); ++p) {
                expected += "v" + model[p].value_or("") + ",";
                if (model[p]) {
                    EXPECT_EQ(c.Item(*model[p]), "v" + *model[p]);
                }
            }
            EXPECT_EQ(seen, expected);
        }
        c.Add("back", "k1");
        EXPECT_EQ(c.Item(std::string("k1")), "back");
    }
}

}  // namespace
