// The error trap every operation runs under, and the skip-on-failure helper for the stretches that go on.
#pragma once

#include <exception>
#include <new>
#include <string>
#include <utility>

#include "core/Error.h"
#include "core/MErrorHandler.h"

namespace core {

// Converts whatever was thrown into an Error (a bad_alloc becomes "Out of memory", anything else "Internal
// error" with its message). Call only inside a catch block.
Error CurrentError();

// Runs `body`; on any failure hands (number, label, description) to HandleError, which raises the kept error.
// `label` is the operation's label, for example "StartServer Method" or "Winsock_Close Event".
template <typename Body>
decltype(auto) Trap(const std::string& label, Body&& body) {
    try {
        return std::forward<Body>(body)();
    } catch (...) {
        const Error e = CurrentError();
        MErrorHandler::HandleError(e.Number(), label, e.Description());
    }
}

// Runs `step`, swallowing any failure; for the few stretches that skip a failing step and carry on.
// Returns whether the step completed.
template <typename Step>
bool SkipOnError(Step&& step) {
    try {
        std::forward<Step>(step)();
        return true;
    } catch (...) {
        return false;
    }
}

}  // namespace core
