// The application: owns the POP3 and SMTP server objects and the two socket controls they attach to,
// starts and stops the servers, keeps the activity log and the shared credential store, and ends the
// program when an error leaves one of its event handlers.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "app/GatewayOptions.h"
#include "app/IMainView.h"
#include "app/LogBatch.h"
#include "core/Error.h"
#include "core/IGatewayHost.h"
#include "platform/net/SocketControl.h"
#include "servers/pop3/CPop3Server.h"
#include "servers/smtp/CSmtpServer.h"

namespace app {

class Main : public core::IGatewayHost {
public:
    // Exit status of a program ended by an error that left an outermost event handler.
    static constexpr int kFatalExitStatus = 1;

    // Ends the program after an error left an outermost event handler.
    using ProgramEnd = std::function<void(const core::Error& error)>;

    // A controller for `view`; the servers listen on the options' listen address. Nothing starts yet.
    Main(IMainView& view, const GatewayOptions& options);
    ~Main() override;
    Main(const Main&) = delete;
    Main& operator=(const Main&) = delete;

    // "Tarnwick Gateway" once start-up has run.
    std::string ApplicationName() const override { return applicationName_; }
    // "major.minor.revision" once start-up has run.
    std::string ApplicationVersion() const override { return applicationVersion_; }
    // The credential store: what a mail reader last gave the POP3 server; kept until the program ends.
    std::string UserName() const override { return userName_; }
    void SetUserName(const std::string& value) override { userName_ = value; }
    std::string Password() const override { return password_; }
    void SetPassword(const std::string& value) override { password_ = value; }
    // Lets the log act; start-up sets it and nothing clears it.
    bool bLog = false;

    // Appends the message and CR LF to the log while bLog is set; failures are ignored.
    void WriteLog(const std::string& message) override;
    // The same entry as WriteLog(prefix + text), without joining them (a whole retrieved message, say).
    void WriteLogParts(std::string_view prefix, std::string_view text, const core::SharedText& owner) override;
    // The same entry read in pieces: written as it is read in the headless mode, kept whole by the window.
    void WriteLogPieces(std::string_view prefix, core::ITextPieces& text) override;
    // Empties the log while bLog is set, entries still on their way included; failures are ignored.
    void ClearLog() override;
    core::ISocketControl& WinsockPOP3() override { return winsockPOP3_; }
    core::ISocketControl& WinsockSMTP() override { return winsockSMTP_; }
    void DoEvents() override;

    // Event handlers: each raises the kept error when a step fails (RunEvent turns that into the program's end).
    void Form_Load();
    void Form_Unload();
    void StartMenu_Click();
    void StartButton_Click();
    void StopMenu_Click();
    void StopButton_Click();
    // Help, About Tarnwick: the modal About box with the application's name and version.
    void AboutMenu_Click();

    // Runs one outermost event handler; an error leaving it goes to the program-end handler.
    void RunEvent(void (Main::*handler)());
    // The same for a handler of the window's own (minimise, notification-area icon): `body` runs under a
    // trap labelled `label`.
    void RunEvent(const std::string& label, const std::function<void()>& body);
    // Replaces how the program ends after such an error (default: Fatal(view)). Tests record the error instead.
    void SetProgramEnd(ProgramEnd programEnd);
    // The program's one way to end after such an error: `view` shows ProgramEndMessage, `release` runs (the
    // instance lock, say), standard output is flushed and the process exits with kFatalExitStatus at once,
    // running nothing else (not even the rest of the event still on the stack).
    static ProgramEnd Fatal(IMainView& view, std::function<void()> release = {});
    // The message shown before the program ends: the error's number and description.
    static std::string ProgramEndMessage(const core::Error& error);

    // The server objects, or nullptr before start-up and after unload.
    const servers::pop3::CPop3Server* Pop3ServerObject() const { return Pop3Server.get(); }
    const servers::smtp::CSmtpServer* SmtpServerObject() const { return SmtpServer.get(); }

private:
    void StartCommand(const std::string& label);
    void StopCommand(const std::string& label);
    void Initialize();
    void SetConfiguration();
    void MakeCPop3Server();
    void KillCPop3Server();
    void MakeCSmtpServer();
    void KillCSmtpServer();
    void StartPop3Server();
    void StartSmtpServer();
    void StopPop3Server();
    void StopSmtpServer();
    void Toggle(bool stopped);
    void ToggleInputs(bool stopped);
    void ToggleButtons(bool stopped);
    void ToggleStatusBar(bool stopped);
    void ToggleMenus(bool stopped);
    void EndProgram(const core::Error& error);

    IMainView& view_;
    // Between the log operations and the view.
    LogBatch log_;
    GatewayOptions options_;
    std::string applicationName_;
    std::string applicationVersion_;
    std::string userName_;
    std::string password_;
    std::string Pop3Port;
    std::string SmtpPort;
    // Declared before the servers, which detach from them when released.
    platform::net::SocketControl winsockPOP3_;
    platform::net::SocketControl winsockSMTP_;
    std::unique_ptr<servers::pop3::CPop3Server> Pop3Server;
    std::unique_ptr<servers::smtp::CSmtpServer> SmtpServer;
    ProgramEnd programEnd_;
};

}  // namespace app
