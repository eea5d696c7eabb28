// Test helper: the number of the core::Error a step raises, or 0 when it raises nothing.
#pragma once

#include <cstdint>
#include <functional>

#include "core/Error.h"

namespace testing_support {

inline std::int32_t RaisedErrorNumber(const std::function<void()>& step) {
    try {
        step();
    } catch (const core::Error& e) {
        return e.Number();
    }
    return 0;
}

}  // namespace testing_support
