// Test helpers: the core::Error a step raises, or a default error (number 0) when it raises nothing.
#pragma once

#include <cstdint>
#include <functional>

#include "core/Error.h"

namespace testing_support {

inline core::Error RaisedError(const std::function<void()>& step) {
    try {
        step();
    } catch (const core::Error& e) {
        return e;
    }
    return core::Error(0, {}, {});
}

inline std::int32_t RaisedErrorNumber(const std::function<void()>& step) { return RaisedError(step).Number(); }

}  // namespace testing_support
