// The shared collection: positions from 1, unique keys, and a key index that follows every removal.
#include <gtest/gtest.h>

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
    EXPECT_EQ(RaisedErrorNumber([&] { c.Add(11, "a"); }), 457);
    EXPECT_EQ(c.Count(), 2);
}

// Entries "v1".."v6" under keys "k1".."k6", and one without a key after "v3": after each script of removals by
// key ("k2") or position ("3"), the entries left are in order and every remaining key finds its own entry.
TEST(Collection, KeysFollowTheirEntriesThroughRemovals) {
    const std::pair<std::vector<std::string>, std::vector<std::string>> scripts[] = {
        {{"1"}, {"v2", "v3", "v", "v4", "v5", "v6"}},
        {{"k5", "1", "k2"}, {"v3", "v", "v4", "v6"}},
        {{"6", "k1", "2"}, {"v2", "v", "v4", "v6"}},
        {{"3", "3", "3", "k1", "k6"}, {"v2", "v5"}},
    };
    for (const auto& [script, left] : scripts) {
        core::Collection<std::string> c;
        for (const char* k : {"1", "2", "3", "", "4", "5", "6"}) {
            c.Add(std::string("v") + k, *k ? std::optional<std::string>(std::string("k") + k) : std::nullopt);
        }
        for (const std::string& step : script) {
            if (step[0] == 'k') {
                c.Remove(step);
            } else {
                c.Remove(std::stoi(step));
            }
        }
        std::vector<std::string> seen;
        for (const std::string& v : c) seen.push_back(v);
        EXPECT_EQ(seen, left);
        for (const std::string& v : left) {
            if (v != "v") {
                EXPECT_EQ(c.Item("k" + v.substr(1)), v);
            }
        }
        c.Add("back", "k1");  // every script removes "v1": its key is free again
        EXPECT_EQ(c.Item(std::string("k1")), "back");
    }
}

}  // namespace
