// A view for the application's tests: records what the controller asks of its window.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "app/IMainView.h"
#include "core/Error.h"

namespace testing_support {

// Records what the controller asks of its window.
class RecordingView : public app::IMainView {
public:
    std::string ListenPortPOP3Text() const override { return pop3; }
    void SetListenPortPOP3Text(const std::string& text) override { pop3 = text; }
    std::string ListenPortSMTPText() const override { return smtp; }
    void SetListenPortSMTPText(const std::string& text) override { smtp = text; }
    void AppendLog(const std::string& entry) override {
        log += entry;
        appends.push_back(entry);
    }
    bool BatchesLog() const override { return batches; }
    void ClearLog() override { log.clear(); }
    void ToggleInputs(bool) override { steps.push_back("inputs"); }
    void ToggleButtons(bool) override {
        steps.push_back("buttons");
        if (failButtons) core::Raise(core::ErrorNumber::kObjectNotSet);
    }
    void ToggleStatusBar(bool isStopped) override {
        steps.push_back("status");
        stopped = isStopped;
    }
    void ToggleMenus(bool) override { steps.push_back("menus"); }
    void PlaceAtWorkAreaCorner() override {}
    void AddTrayIcon() override {}
    void RemoveTrayIcon() override {}
    void HideFromTaskList() override {}
    void ShowAbout(const std::string&, const std::string&) override {}
    void ShowMessage(const std::string&) override {}
    void ShowFatalMessage(const std::string&) override {}

    std::string pop3;
    std::string smtp;
    std::string log;
    // Each append as it came, and whether the view asks for its log in batches.
    std::vector<std::string> appends;
    bool batches = false;
    std::optional<bool> stopped;
    std::vector<std::string> steps;
    bool failButtons = false;
};

}  // namespace testing_support
