// A property every fuzz target checks: when it does not hold, say which and abort, so that libFuzzer keeps the
// input as a finding.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace fuzz {

inline void Check(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "rule broken: %s\n", what);
        std::abort();
    }
}

}  // namespace fuzz
