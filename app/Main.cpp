#include "app/Main.h"

#include <QCoreApplication>
#include <QHostAddress>

#include <cstdio>
#include <cstdlib>

#include "core/Convert.h"
#include "core/Trap.h"
#include "core/Version.h"

namespace app {

Main::Main(IMainView& view, const GatewayOptions& options)
    : view_(view),
      log_(view),
      options_(options),
      // An error that leaves a socket event handler ends the program like one from any other event.
      winsockPOP3_([this](const core::Error& error) { EndProgram(error); }),
      winsockSMTP_([this](const core::Error& error) { EndProgram(error); }),
      programEnd_(Fatal(view)) {
    const QHostAddress address(QString::fromStdString(options_.listenAddress));
    for (platform::net::SocketControl* control : {&winsockPOP3_, &winsockSMTP_}) control->SetListenAddress(address);
}

Main::~Main() = default;

void Main::WriteLog(const std::string& message) {
    if (!bLog) return;
    core::SkipOnError([&] { log_.Add(message, {}, nullptr); });
}

void Main::WriteLogParts(std::string_view prefix, std::string_view text, const core::SharedText& owner) {
    if (!bLog) return;
    core::SkipOnError([&] { log_.Add(prefix, text, owner); });
}

void Main::WriteLogPieces(std::string_view prefix, core::ITextPieces& text) {
    if (!bLog) return;
    core::SkipOnError([&] { log_.AddPieces(prefix, text); });
}

void Main::ClearLog() {
    if (!bLog) return;
    core::SkipOnError([&] {
        log_.Drop();
        view_.ClearLog();
    });
}

void Main::DoEvents() { QCoreApplication::processEvents(); }

void Main::Form_Load() {
    core::Trap("Form_Load Event", [&] {
        // A second instance never gets this far: main() refuses it before the window exists.
        applicationName_ = "Tarnwick Gateway";
        applicationVersion_ = core::Version::kText;
        bLog = true;
        view_.PlaceAtWorkAreaCorner();
        view_.AddTrayIcon();
        view_.HideFromTaskList();
        Initialize();
        MakeCPop3Server();
        StartPop3Server();
        MakeCSmtpServer();
        StartSmtpServer();
        Toggle(false);
    });
}

void Main::Form_Unload() {
    core::Trap("Form_Unload Event", [&] {
        StopPop3Server();
        StopSmtpServer();
        KillCPop3Server();
        KillCSmtpServer();
        Toggle(true);
        view_.RemoveTrayIcon();
    });
}

void Main::StartMenu_Click() { StartCommand("StartMenu_Click Event"); }
void Main::StartButton_Click() { StartCommand("StartButton_Click Event"); }
void Main::StopMenu_Click() { StopCommand("StopMenu_Click Event"); }
void Main::StopButton_Click() { StopCommand("StopButton_Click Event"); }

void Main::AboutMenu_Click() {
    core::Trap("AboutMenu_Click Event", [&] { view_.ShowAbout(ApplicationName(), ApplicationVersion()); });
}

void Main::StartCommand(const std::string& label) {
    core::Trap(label, [&] {
        ClearLog();
        StartPop3Server();
        StartSmtpServer();
        Toggle(false);
    });
}

void Main::StopCommand(const std::string& label) {
    core::Trap(label, [&] {
        StopPop3Server();
        StopSmtpServer();
        Toggle(true);
    });
}

void Main::Initialize() {
    core::Trap("Initialize Method", [&] {
        view_.SetListenPortPOP3Text(options_.pop3Port);
        view_.SetListenPortSMTPText(options_.smtpPort);
    });
}

void Main::SetConfiguration() {
    core::Trap("SetConfiguration Method", [&] {
        Pop3Port = view_.ListenPortPOP3Text();
        SmtpPort = view_.ListenPortSMTPText();
    });
}

void Main::MakeCPop3Server() {
    core::Trap("MakeCPop3Server Method", [&] {
        if (!Pop3Server) Pop3Server = std::make_unique<servers::pop3::CPop3Server>(*this);
    });
}

void Main::KillCPop3Server() {
    core::Trap("KillCPop3Server Method", [&] { Pop3Server.reset(); });
}

void Main::MakeCSmtpServer() {
    core::Trap("MakeCSmtpServer Method", [&] {
        if (!SmtpServer) SmtpServer = std::make_unique<servers::smtp::CSmtpServer>(*this);
    });
}

void Main::KillCSmtpServer() {
    core::Trap("KillCSmtpServer Method", [&] { SmtpServer.reset(); });
}

void Main::StartPop3Server() {
    core::Trap("StartPop3Server Method", [&] {
        SetConfiguration();
        if (!Pop3Server) core::Raise(core::ErrorNumber::kObjectNotSet);
        Pop3Server->SetListenPort(Pop3Port);
        Pop3Server->StartServer();
    });
}

void Main::StartSmtpServer() {
    core::Trap("StartSmtpServer Method", [&] {
        SetConfiguration();
        if (!SmtpServer) core::Raise(core::ErrorNumber::kObjectNotSet);
        SmtpServer->SetListenPort(SmtpPort);
        SmtpServer->StartServer();
    });
}

void Main::StopPop3Server() {
    core::Trap("StopPop3Server Method", [&] {
        if (!Pop3Server) core::Raise(core::ErrorNumber::kObjectNotSet);
        Pop3Server->StopServer();
    });
}

void Main::StopSmtpServer() {
    core::Trap("StopSmtpServer Method", [&] {
        if (!SmtpServer) core::Raise(core::ErrorNumber::kObjectNotSet);
        SmtpServer->StopServer();
    });
}

// Each step runs under its own trap, so an error names the step and the steps after it do not run.
void Main::Toggle(bool stopped) {
    core::Trap("Toggle Method", [&] {
        ToggleInputs(stopped);
        ToggleButtons(stopped);
        ToggleStatusBar(stopped);
        ToggleMenus(stopped);
    });
}

void Main::ToggleInputs(bool stopped) {
    core::Trap("ToggleInputs Method", [&] { view_.ToggleInputs(stopped); });
}

void Main::ToggleButtons(bool stopped) {
    core::Trap("ToggleButtons Method", [&] { view_.ToggleButtons(stopped); });
}

void Main::ToggleStatusBar(bool stopped) {
    core::Trap("ToggleStatusBar Method", [&] { view_.ToggleStatusBar(stopped); });
}

void Main::ToggleMenus(bool stopped) {
    core::Trap("ToggleMenus Method", [&] { view_.ToggleMenus(stopped); });
}

void Main::RunEvent(void (Main::*handler)()) {
    try {
        (this->*handler)();
    } catch (...) {
        EndProgram(core::CurrentError());
    }
}

void Main::RunEvent(const std::string& label, const std::function<void()>& body) {
    try {
        core::Trap(label, body);
    } catch (...) {
        EndProgram(core::CurrentError());
    }
}

void Main::SetProgramEnd(ProgramEnd programEnd) { programEnd_ = std::move(programEnd); }

Main::ProgramEnd Main::Fatal(IMainView& view, std::function<void()> release) {
    return [&view, release = std::move(release)](const core::Error& error) {
        view.ShowFatalMessage(ProgramEndMessage(error));
        if (release) release();
        std::fflush(stdout);
        std::_Exit(kFatalExitStatus);
    };
}

std::string Main::ProgramEndMessage(const core::Error& error) {
    std::string message = "Error " + core::ToText(error.Number()) + ": " + error.Description();
    if (!error.Source().empty()) message += " (in " + error.Source() + ")";
    return message;
}

void Main::EndProgram(const core::Error& error) {
    // The log shows everything written before the end.
    core::SkipOnError([&] { log_.Flush(); });
    programEnd_(error);
}

}  // namespace app
