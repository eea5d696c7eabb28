// The view of the headless mode: no window; every log entry goes to standard output as it is appended.
#pragma once

#include <string>

#include "app/IMainView.h"

namespace app {

class HeadlessView : public IMainView {
public:
    std::string ListenPortPOP3Text() const override { return pop3Port_; }
    void SetListenPortPOP3Text(const std::string& text) override { pop3Port_ = text; }
    std::string ListenPortSMTPText() const override { return smtpPort_; }
    void SetListenPortSMTPText(const std::string& text) override { smtpPort_ = text; }

    // Writes `entry` to standard output unchanged and flushes it at once.
    void AppendLog(const std::string& entry) override;
    // Writes the parts one after the other, without joining them, and flushes once.
    void AppendLogParts(std::span<const std::string_view> parts) override;
    // Writes each piece as it is read, so that a long entry (a retrieved message) is never in memory whole.
    void AppendLogPieces(std::string_view head, core::ITextPieces& text) override;
    // Writes nothing: what is on standard output stays.
    void ClearLog() override {}
    // There are no controls to switch, no window to place, no icon and no About box.
    void ToggleInputs(bool /*stopped*/) override {}
    void ToggleButtons(bool /*stopped*/) override {}
    void ToggleStatusBar(bool /*stopped*/) override {}
    void ToggleMenus(bool /*stopped*/) override {}
    void PlaceAtWorkAreaCorner() override {}
    void AddTrayIcon() override {}
    void RemoveTrayIcon() override {}
    void HideFromTaskList() override {}
    void ShowAbout(const std::string& /*applicationName*/, const std::string& /*applicationVersion*/) override {}
    // Both kinds of message go to standard error.
    void ShowMessage(const std::string& text) override;
    void ShowFatalMessage(const std::string& text) override;

private:
    std::string pop3Port_;
    std::string smtpPort_;
};

}  // namespace app
