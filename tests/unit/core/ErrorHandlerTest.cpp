// The trap: results pass through, and an exception that is no error of ours becomes error 51 under the trap's
// label. (The innermost label and the first error kept for good show in the gateway's own output: the process
// test and the end-to-end failure table.)
#include <gtest/gtest.h>

#include <stdexcept>

#include "core/Error.h"
#include "core/MErrorHandler.h"
#include "core/Trap.h"
#include "tests/support/RaisedError.h"

namespace {

using core::Error;
using testing_support::RaisedError;

TEST(ErrorHandler, TrapPassesResultsThroughAndMapsForeignExceptions) {
    core::MErrorHandler::ResetForTesting();
    EXPECT_EQ(core::Trap("Ok Method", [] { return 7; }), 7);
    const Error e = RaisedError([] { core::Trap("Std Method", [] { throw std::runtime_error("boom"); }); });
    EXPECT_EQ(e.Number(), 51);
    EXPECT_EQ(e.Source(), "Std Method");
    EXPECT_NE(e.Description().find("boom"), std::string::npos);
    core::MErrorHandler::ResetForTesting();
}

}  // namespace
