// The error reporter and the trap: the first error of the process is kept for good and raised for every later
// report, with the label of the operation that first reported it.
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

#include "core/Convert.h"
#include "core/Error.h"
#include "core/MErrorHandler.h"
#include "core/Trap.h"
#include "tests/support/RaisedError.h"

namespace {

using core::Error;
using testing_support::RaisedError;

class ErrorHandler : public ::testing::Test {
protected:
    void SetUp() override { core::MErrorHandler::ResetForTesting(); }
    void TearDown() override { core::MErrorHandler::ResetForTesting(); }
};

TEST_F(ErrorHandler, TrapsReportWithTheInnermostLabelAndEveryLaterErrorIsTheFirst) {
    auto inner = [] { return core::Trap("StartListening Method", [] { return core::ToInt32("x110"); }); };
    const Error first = RaisedError([&] { core::Trap("Form_Load Event", [&] { inner(); }); });
    EXPECT_EQ(first.Number(), 13);
    EXPECT_EQ(first.Source(), "StartListening Method");
    EXPECT_EQ(first.Description(), "Type mismatch");

    // Even after a command handler stopped the first error, a later, different one is reported as the first.
    const Error later =
        RaisedError([] { core::MErrorHandler::HandleError(5, "StopMenu_Click Event", "Invalid call"); });
    EXPECT_EQ(later.Number(), 13);
    EXPECT_EQ(later.Source(), "StartListening Method");
    EXPECT_EQ(later.Description(), "Type mismatch");
}

TEST_F(ErrorHandler, TrapPassesResultsThroughAndMapsForeignExceptions) {
    EXPECT_EQ(core::Trap("Ok Method", [] { return 7; }), 7);
    const Error e = RaisedError([] { core::Trap("Std Method", [] { throw std::runtime_error("boom"); }); });
    EXPECT_EQ(e.Number(), 51);
    EXPECT_EQ(e.Source(), "Std Method");
    EXPECT_NE(e.Description().find("boom"), std::string::npos);
}

}  // namespace
