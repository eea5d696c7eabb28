#include "servers/frame/ServerFrame.h"

#include <functional>
#include <limits>
#include <memory>
#include <string_view>
#include <utility>

#include "core/Ascii.h"
#include "core/Convert.h"
#include "core/Error.h"
#include "core/Trap.h"
#include "mailservice/CHotmail.h"

namespace servers::frame {
namespace {

constexpr const char* kIdleCommand = "CONN";
constexpr const char* kCrLf = "\r\n";

}  // namespace

ServerFrame::ServerFrame(core::IGatewayHost& host, ServerProfile profile)
    : host_(host), profile_(std::move(profile)), lastCommand_(kIdleCommand) {}

ServerFrame::~ServerFrame() {
    if (objWinsock) objWinsock->SetEventSink(nullptr);
}

void ServerFrame::ClassInitialize() {
    core::Trap(profile_.classInitializeLabel, [&] { SetDefaultValues(); });
}

void ServerFrame::SetDefaultValues() {
    core::Trap("SetDefaultValues Method", [&] {
        listenPort_ = profile_.defaultListenPort;
        userName_.clear();
        password_.clear();
        lastCommand_ = kIdleCommand;
        lastResponse_.clear();
        SetServerDefaults();
    });
}

void ServerFrame::StartServer() {
    core::Trap("StartServer Method", [&] {
        MakeWinsock();
        RestartSession();
    });
}

void ServerFrame::StopServer() {
    // The connection's service client stays; the next connection's MakeCHotmail replaces it.
    core::Trap("StopServer Method", [&] { KillWinsock(); });
}

void ServerFrame::RestartSession() {
    core::Trap("RestartSession Method", [&] {
        EndSession();
        StartListening();
    });
}

void ServerFrame::EndSession() {
    core::Trap("EndSession Method", [&] {
        if (!objWinsock) core::Raise(core::ErrorNumber::kObjectNotSet);
        if (objWinsock->State() != core::ISocketControl::kClosed) {
            objWinsock->Close();
            // Events already queued for this control run now, before the port is given up.
            host_.DoEvents();
            objWinsock->SetLocalPort(0);
        }
        lastCommand_ = kIdleCommand;
        ResetSessionState();
    });
}

void ServerFrame::StartListening() {
    core::Trap("StartListening Method", [&] {
        if (!objWinsock) core::Raise(core::ErrorNumber::kObjectNotSet);
        objWinsock->SetLocalPort(core::ToInt32(listenPort_));
        objWinsock->Listen();
    });
}

void ServerFrame::MakeWinsock() {
    core::Trap("MakeWinsock Method", [&] {
        KillWinsock();
        objWinsock = &std::invoke(profile_.socketControl, host_);
        objWinsock->SetEventSink(this);
    });
}

void ServerFrame::KillWinsock() {
    core::Trap("KillWinsock Method", [&] {
        if (!objWinsock) return;
        // Stopping a control that is already closed must stay silent.
        core::SkipOnError([&] { objWinsock->Close(); });
        core::SkipOnError([&] { objWinsock->SetLocalPort(0); });
        objWinsock->SetEventSink(nullptr);
        objWinsock = nullptr;
    });
}

void ServerFrame::MakeCHotmail() {
    core::Trap("MakeCHotmail Method", [&] {
        KillCHotmail();
        Hotmail = std::make_unique<mailservice::CHotmail>();
    });
}

void ServerFrame::KillCHotmail() {
    core::Trap("KillCHotmail Method", [&] {
        ResetConnectionState();
        // After the state that depends on it: the mailbox shares the client's message list.
        Hotmail.reset();
    });
}

mailservice::CHotmail& ServerFrame::ConnectionHotmail() const {
    if (!Hotmail) core::Raise(core::ErrorNumber::kObjectNotSet);
    return *Hotmail;
}

std::string ServerFrame::GetCommand(const std::string& text) {
    std::string word;
    core::SkipOnError([&] { word = ExtractCommand(text); });
    lastCommand_ = word;
    return word;
}

std::string ServerFrame::GetArgument(const std::string& text) const {
    std::string argument;
    core::SkipOnError([&] { argument = ExtractArgument(text); });
    return argument;
}

std::string ServerFrame::FormatResponse(const std::string& text) { return text + kCrLf; }

std::int16_t ServerFrame::ToCount16(std::size_t count) {
    if (count > static_cast<std::size_t>(std::numeric_limits<std::int16_t>::max())) {
        core::Raise(core::ErrorNumber::kOverflow);
    }
    return static_cast<std::int16_t>(count);
}

std::string ServerFrame::RemoveCrLf(const std::string& text) {
    std::string result;
    result.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') {
            ++i;
            continue;
        }
        result.push_back(text[i]);
    }
    return result;
}

std::string ServerFrame::UpperCase(std::string text) { return core::Ascii::UpperCase(std::move(text)); }

void ServerFrame::SendResponse(std::string text) {
    if (!objWinsock) core::Raise(core::ErrorNumber::kObjectNotSet);
    // FormatResponse in place: a retrieved message is sent and logged without a copy of it.
    const std::size_t length = text.size();
    text += kCrLf;
    const auto sent = std::make_shared<const std::string>(std::move(text));
    objWinsock->SendShared(sent);
    host_.WriteLogParts("SERVER_RESPONSE: ", std::string_view(*sent).substr(0, length), sent);
}

void ServerFrame::SendUnloggedResponse(const std::string& text) {
    if (!objWinsock) core::Raise(core::ErrorNumber::kObjectNotSet);
    objWinsock->SendData(FormatResponse(text));
}

void ServerFrame::SendErrorResponse(const std::string& message) {
    core::Trap("SendErrorResponse Method",
               [&] { SendResponse(profile_.errorPrefix + (message.empty() ? commandErrorDescription_ : message)); });
}

void ServerFrame::RunCommand(const std::function<void()>& handler) {
    // Command handlers answer the client instead of reporting: the error goes no further.
    try {
        handler();
    } catch (...) {
        commandErrorDescription_ = core::CurrentError().Description();
        SendErrorResponse({});
    }
}

void ServerFrame::DispatchRequest(const std::string& request) {
    if (!DispatchCommand(request)) SendErrorResponse(profile_.unrecognisedCommandText + lastCommand_);
}

void ServerFrame::OnConnectionRequest(std::int32_t requestId) {
    core::Trap("Winsock_ConnectionRequest Event", [&] {
        host_.ClearLog();
        host_.WriteLog("SOCKET_EVENT: OnConnectionRequest Fired");
        if (!objWinsock) core::Raise(core::ErrorNumber::kObjectNotSet);
        if (objWinsock->State() != core::ISocketControl::kClosed) objWinsock->Close();
        objWinsock->Accept(requestId);
        MakeCHotmail();
        RunCommand([&] { HandleCONN({}); });
    });
}

void ServerFrame::OnDataArrival(std::int32_t /*bytesTotal*/) {
    core::Trap("Winsock_DataArrival Event", [&] {
        if (!objWinsock) core::Raise(core::ErrorNumber::kObjectNotSet);
        ReceiveRequest(objWinsock->GetData());
    });
}

void ServerFrame::OnSendProgress(std::int32_t /*bytesSent*/, std::int32_t /*bytesRemaining*/) {
    core::Trap("Winsock_SendProgress Event", [&] {
        if (profile_.logsSendEvents) host_.WriteLog("SOCKET_EVENT: OnSendProgress Fired");
    });
}

void ServerFrame::OnSendComplete() {
    core::Trap("Winsock_SendComplete", [&] {
        if (profile_.logsSendEvents) host_.WriteLog("SOCKET_EVENT: OnSendComplete Fired");
    });
}

void ServerFrame::OnError(std::int32_t /*number*/, const std::string& /*description*/) {
    // The control stays as it is and nothing listens until the server is started again.
    core::Trap("Winsock_Error Event", [&] {
        KillCHotmail();
        host_.WriteLog("SOCKET_EVENT: OnError Fired");
    });
}

void ServerFrame::OnClose() {
    core::Trap("Winsock_Close Event", [&] {
        KillCHotmail();
        host_.WriteLog("SOCKET_EVENT: OnClose Fired");
        RestartSession();
    });
}

void ServerFrame::OnConnect() {
    core::Trap("Winsock_Connect Event", [&] { host_.WriteLog("SOCKET_EVENT: OnConnect Fired"); });
}

}  // namespace servers::frame
