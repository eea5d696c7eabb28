// The log on its way to a window: entries written while the loop is busy arrive together, in order, with the
// same text as one by one; ClearLog drops what is still waiting; the window's box gives back exactly the lines
// it was given, however many. (A headless gateway's log is read by the end-to-end tests.)
#include <QCoreApplication>
#include <QPlainTextEdit>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "app/DisplayText.h"
#include "app/LogBatch.h"
#include "app/MainWindow.h"
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

TEST(LogBatchTest, WindowBoxGivesBackEveryLineOfALongEntryAndOfTheEntriesAfterIt) {
    // Lines with every kind of line end and characters on both sides of the decoder's fast path, in an entry of
    // some megabytes, which goes into the box in slices.
    std::string message = "+OK\r\n";
    const char* const ends[] = {"\r\n", "\n", "\r"};
    const std::string line = "\xF0\x9F\x93\xA7\xF0\x9F\x93\xA7\xF0\x9F\x93\xA7\xF0\x9F\x93\xA7Sch\xC3\xB6n\xF6\t";
    for (int i = 0; i < 130000; ++i) message.append(line).append(ends[i % 3]);
    message += ".";
    app::MainWindow window;
    const std::string_view first[] = {"SERVER_RESPONSE: ", message, "\r\n"};
    window.AppendLogParts(first);
    window.AppendLog("SOCKET_EVENT: OnSendComplete Fired\r\n");

    // What the box would show for the whole text decoded at once; a lone CR ends a line in the box too.
    QString expected = app::DisplayText("SERVER_RESPONSE: " + message + "\r\nSOCKET_EVENT: OnSendComplete Fired\r\n");
    expected.replace(u'\r', u'\n');
    EXPECT_EQ(window.txtData->toPlainText(), expected);
}

}  // namespace
