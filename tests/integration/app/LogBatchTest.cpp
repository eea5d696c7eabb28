// The log on its way to a window: entries written while the loop is busy arrive together, in order, with the
// same text as one by one; ClearLog drops what is still waiting; a headless view gets each entry at once.
#include <QCoreApplication>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "app/LogBatch.h"

namespace {

class BatchingView : public app::IMainView {
public:
    explicit BatchingView(bool batches) : batches_(batches) {}
    std::string ListenPortPOP3Text() const override { return {}; }
    void SetListenPortPOP3Text(const std::string&) override {}
    std::string ListenPortSMTPText() const override { return {}; }
    void SetListenPortSMTPText(const std::string&) override {}
    void AppendLog(const std::string& entry) override { appends.push_back(entry); }
    bool BatchesLog() const override { return batches_; }
    void ClearLog() override {}
    void ToggleInputs(bool) override {}
    void ToggleButtons(bool) override {}
    void ToggleStatusBar(bool) override {}
    void ToggleMenus(bool) override {}
    void PlaceAtWorkAreaCorner() override {}
    void AddTrayIcon() override {}
    void RemoveTrayIcon() override {}
    void HideFromTaskList() override {}
    void ShowAbout(const std::string&, const std::string&) override {}
    void ShowMessage(const std::string&) override {}
    void ShowFatalMessage(const std::string&) override {}

    std::vector<std::string> appends;

private:
    bool batches_;
};

TEST(LogBatchTest, WindowGetsWaitingEntriesInOneAppendInOrderAndDropLosesThem) {
    BatchingView view(true);
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

TEST(LogBatchTest, HeadlessViewGetsEachEntryAtOnce) {
    BatchingView view(false);
    app::LogBatch log(view);
    const auto text = std::make_shared<const std::string>("abc\r\n");
    log.Add("CLIENT_REQUEST: ", *text, text);
    ASSERT_EQ(view.appends.size(), 1u);
    EXPECT_EQ(view.appends[0], "CLIENT_REQUEST: abc\r\n\r\n");
}

}  // namespace
