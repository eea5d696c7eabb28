#include <gtest/gtest.h>

#include "core/Convert.h"
#include "core/Error.h"
#include "core/MErrorHandler.h"
#include "core/Trap.h"

namespace {

using core::Error;
namespace MErrorHandler = core::MErrorHandler;

class ErrorHandler : public ::testing::Test {
protected:
    void SetUp() override { MErrorHandler::ResetForTesting(); }
    void TearDown() override { MErrorHandler::ResetForTesting(); }
};

Error Caught(const std::function<void()>& f) {
    try {
        f();
    } catch (const Error& e) {
        return e;
    }
    ADD_FAILURE() << "nothing was raised";
    return Error(0, "", "");
}

TEST_F(ErrorHandler, TheFirstErrorIsKeptAndRaisedForEveryLaterReport) {
    const Error first = Caught([] { MErrorHandler::HandleError(91, "StopPop3Server Method", "Object not set"); });
    EXPECT_EQ(first.Number(), 91);
    EXPECT_EQ(first.Source(), "StopPop3Server Method");
    EXPECT_EQ(first.Description(), "Object not set");

    const Error later = Caught([] { MErrorHandler::HandleError(5, "StopMenu_Click Event", "Invalid call"); });
    EXPECT_EQ(later.Number(), 91);
    EXPECT_EQ(later.Source(), "StopPop3Server Method");
    EXPECT_EQ(later.Description(), "Object not set");
}

TEST_F(ErrorHandler, TrapsReportWithTheirLabelAndPassTheErrorUpTheChain) {
    auto inner = [] { return core::Trap("StartListening Method", [] { return core::ToInt32("x110"); }); };
    auto outer = [&] { core::Trap("Form_Load Event", [&] { inner(); }); };
    const Error e = Caught(outer);
    EXPECT_EQ(e.Number(), 13);
    EXPECT_EQ(e.Source(), "StartListening Method");
    EXPECT_EQ(e.Description(), "Type mismatch");
}

TEST_F(ErrorHandler, AnErrorStoppedByAHandlerStaysKept) {
    // A command handler answers the client instead of passing the error on...
    try {
        core::Trap("ConnectToHotmail Method", [] { core::Raise(9); });
    } catch (const Error&) {
    }
    // ...yet a later, different error is reported as the first one.
    const Error later = Caught([] { core::Trap("RETR", [] { core::ToInt16("x"); }); });
    EXPECT_EQ(later.Number(), 9);
    EXPECT_EQ(later.Source(), "ConnectToHotmail Method");
    EXPECT_EQ(later.Description(), "Subscript out of range");
}

TEST_F(ErrorHandler, TrapPassesResultsThroughAndMapsForeignExceptions) {
    EXPECT_EQ(core::Trap("Ok Method", [] { return 7; }), 7);
    const Error e = Caught([] { core::Trap("Std Method", [] { throw std::runtime_error("boom"); }); });
    EXPECT_EQ(e.Number(), 51);
    EXPECT_EQ(e.Source(), "Std Method");
    EXPECT_NE(e.Description().find("boom"), std::string::npos);
}

TEST(SkipOnError, SwallowsTheFailureAndSaysSo) {
    MErrorHandler::ResetForTesting();
    int ran = 0;
    EXPECT_FALSE(core::SkipOnError([&] {
        ++ran;
        core::Raise(13);
    }));
    EXPECT_TRUE(core::SkipOnError([&] { ++ran; }));
    EXPECT_EQ(ran, 2);
    EXPECT_FALSE(MErrorHandler::HasKeptError());
}

}  // namespace
