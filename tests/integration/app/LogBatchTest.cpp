// The log on its way to a window: entries written while the loop is busy arrive together, in order, with the
// same text as one by one; ClearLog drops what is still waiting. (A headless gateway's log is read by the
// end-to-end tests.)
#include <QCoreApplication>

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "app/LogBatch.h"
#include "tests/integration/app/RecordingView.h"

namespace {

TEST(LogBatchTest, WindowGetsWaitingEntriesInOneAppendInOrderAndDropLosesThem) {
    testing_support::RecordingView view;
    view.batches = true;
    app::LogBatch log(view);
    const auto response = std::make_shared<const std::string>("+OK 2 octets\r\nab\r\n.\r\n");
    log.Add("SOCKET_EVENT: OnDataArrival Fired", {}, nullptr);
    log.Add("SERVER_RESPONSE: ", std::string_view(*response).substr(0, response->size() - 2), response);
    log.Add("", {}, nullptr);
    EXPECT_TRUE(view.appends.empty()) << "nothing before the loop turns";
    QCoreApplication::processEvents();
    ASSERT_EQ(view.appends.size(), 1u);
    EXPECT_EQ(view.appends[0], "SOCKET_EVENT: OnDataArrival Fired\r\nSERVER_RESPONSE: +OK 2 octets\r\nab\r\n.\r\n\r\n");

    log.Add("dropped", {}, nullptr);
    log.Drop();
    log.Add("kept", {}, nullptr);
    log.Flush();
    ASSERT_EQ(view.appends.size(), 2u);
    EXPECT_EQ(view.appends[1], "kept\r\n");
}

}  // namespace
