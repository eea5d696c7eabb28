#include "servers/frame/ServerFrame.h"

#include <QTimer>

#include <functional>
#include <limits>
#include <memory>
#include <string_view>
#include <utility>

#include "core/Convert.h"
#include "core/Error.h"
#include "core/Trap.h"
#include "mailservice/CHotmail.h"

namespace servers::frame {
namespace {

constexpr const char* kIdleCommand = "CONN";
constexpr const char* kCrLf = "\r\n";
// Ports below this one need privileges.
constexpr std::int32_t kFirstUnprivilegedPort = 1024;

// A text read in pieces with CR LF added to its last piece: the response as it goes out, in one stream, so
// that its end never waits in a small packet of its own.
class CrLfAfter : public core::ITextPieces {
public:
    explicit CrLfAfter(core::TextPiecesPtr text) : text_(std::move(text)) {}

    bool Next(std::string& piece) override {
        if (done_) {
            piece.clear();
            return false;
        }
        // One piece ahead, so that the CR LF joins the last one.
        if (!started_) {
            started_ = true;
            haveNext_ = text_->Next(next_);
        }
        piece = std::move(next_);
        next_.clear();
        haveNext_ = haveNext_ && text_->Next(next_);
        if (!haveNext_) {
            piece += kCrLf;
            done_ = true;
        }
        return true;
    }

private:
    core::TextPiecesPtr text_;
    std::string next_;
    bool started_ = false;
    bool haveNext_ = false;
    bool done_ = false;
};

}  // namespace

ServerFrame::ServerFrame(core::IGatewayHost& host, ServerProfile profile, CommandTable commands)
    : host_(host),
      profile_(std::move(profile)),
      commands_(std::move(commands)),
      holdTimer_(std::make_unique<QTimer>()) {
    holdTimer_->setSingleShot(true);
    holdTimer_->setInterval(kReplyHoldTime);
    // Runs from the event loop, outside every event handler: nothing may leave it.
    QObject::connect(holdTimer_.get(), &QTimer::timeout, holdTimer_.get(),
                     [this] { core::SkipOnError([&] { SendHeldReplies(); }); });
    core::Trap(profile_.classInitializeLabel, [&] { SetDefaultValues(); });
}

ServerFrame::~ServerFrame() {
    if (objWinsock) objWinsock->SetEventSink(nullptr);
}

void ServerFrame::SetReplyHoldTime(std::chrono::milliseconds holdTime) { holdTimer_->setInterval(holdTime); }

void ServerFrame::SetDefaultValues() {
    core::Trap("SetDefaultValues Method", [&] {
        listenPort_ = profile_.defaultListenPort;
        userName_.clear();
        password_.clear();
        lastCommand_ = kIdleCommand;
        lastResponse_.clear();
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
        DropHeldReplies();
        lastCommand_ = kIdleCommand;
        ResetSessionState();
    });
}

void ServerFrame::StartListening() {
    core::Trap("StartListening Method", [&] {
        if (!objWinsock) core::Raise(core::ErrorNumber::kObjectNotSet);
        const std::int32_t port = core::ToInt32(listenPort_);
        objWinsock->SetLocalPort(port);
        try {
            objWinsock->Listen();
        } catch (const core::Error& error) {
            throw core::Error(error.Number(), error.Source(), ListenFailure(error, port));
        }
    });
}

std::string ServerFrame::ListenFailure(const core::Error& error, std::int32_t port) const {
    const std::string what = error.Description() + ": ";
    const std::string server = profile_.serverName;
    const std::string portText = "port " + core::ToText(port);
    const std::string first = core::ToText(kFirstUnprivilegedPort);
    switch (error.Number()) {
        case core::ErrorNumber::kPermissionDenied:
            if (port < kFirstUnprivilegedPort)
                return what + "the " + server + " may not listen on " + portText + ", because ports below " + first +
                       " need privileges; use a port from " + first + " up";
            return what + "the system does not let the " + server + " listen on " + portText;
        case core::ErrorNumber::kAddressInUse:
            return what + "another program already listens on " + portText + ", so the " + server +
                   " cannot; stop that program or choose another port";
        default:
            return error.Description();
    }
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
        DropHeldReplies();
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

Request ServerFrame::ReadCommand(std::string& arrival) const {
    Request request{profile_.getCommand(arrival), profile_.getArgument(arrival), std::move(arrival)};
    arrival.clear();
    return request;
}

std::string ServerFrame::FormatResponse(const std::string& text) { return text + kCrLf; }

bool ServerFrame::FitsCount16(std::size_t count) {
    return count <= static_cast<std::size_t>(std::numeric_limits<std::int16_t>::max());
}

std::string ServerFrame::RemoveCrLf(std::string_view text) {
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

void ServerFrame::DispatchRequest(const Request& request) {
    if (request.logged) {
        host_.WriteLog("SOCKET_EVENT: OnDataArrival Fired");
        host_.WriteLog("CLIENT_REQUEST: " + (profile_.requestEntry == ServerProfile::RequestEntry::kReceivedText
                                                 ? request.text
                                                 : request.word));
    }
    lastCommand_ = request.word;
    if (const Command* command = FindCommand(request.word)) {
        RunCommand(*command, request);
    } else {
        SendErrorResponse(profile_.unrecognisedCommandText + request.word);
    }
}

const Command* ServerFrame::FindCommand(const std::string& word) const {
    for (const Command& command : commands_) {
        if (command.word == word) return &command;
    }
    return nullptr;
}

void ServerFrame::RunCommand(const Command& command, const Request& request) {
    if (!command.handler) return;
    // Command handlers answer the client instead of reporting: the error goes no further.
    try {
        SendReply(command.handler(request));
    } catch (...) {
        SendErrorResponse(core::CurrentError().Description());
    }
}

void ServerFrame::SendReply(Reply reply) {
    switch (reply.kind) {
        case Reply::Kind::kResponse:
            if (reply.pieces) {
                SendStreamedResponse(reply.pieces);
            } else {
                SendResponse(std::move(reply.text));
            }
            break;
        case Reply::Kind::kError:
            SendErrorResponse(reply.text);
            break;
        case Reply::Kind::kHeld:
            HoldReply(reply.text);
            break;
    }
}

void ServerFrame::SendResponse(std::string text) {
    if (!objWinsock) core::Raise(core::ErrorNumber::kObjectNotSet);
    // The held replies go out with the response, in one write: a second small write right after the first
    // would wait for the client to acknowledge the first.
    holdTimer_->stop();
    const std::size_t held = heldReplies_.size();
    if (held != 0) {
        text.insert(0, heldReplies_);
        heldReplies_.clear();
    }
    // FormatResponse in place: a retrieved message is sent and logged without a copy of it.
    const std::size_t length = text.size() - held;
    text += kCrLf;
    const auto sent = std::make_shared<const std::string>(std::move(text));
    objWinsock->SendShared(sent);
    host_.WriteLogParts("SERVER_RESPONSE: ", std::string_view(*sent).substr(held, length), sent);
}

void ServerFrame::SendStreamedResponse(const core::TextPiecesSource& pieces) {
    if (!objWinsock) core::Raise(core::ErrorNumber::kObjectNotSet);
    holdTimer_->stop();
    SendHeldReplies();
    objWinsock->SendPieces(std::make_unique<CrLfAfter>(pieces()));
    host_.WriteLogPieces("SERVER_RESPONSE: ", *pieces());
}

void ServerFrame::SendErrorResponse(const std::string& message) {
    core::Trap("SendErrorResponse Method", [&] {
        DropHeldReplies();
        SendResponse(profile_.errorPrefix + message);
    });
}

void ServerFrame::HoldReply(const std::string& text) {
    heldReplies_ += FormatResponse(text);
    holdTimer_->start();
}

void ServerFrame::SendHeldReplies() {
    if (heldReplies_.empty()) return;
    if (!objWinsock) core::Raise(core::ErrorNumber::kObjectNotSet);
    // Taken off first: a reply that cannot be sent is not sent again to anyone.
    const auto held = std::make_shared<const std::string>(std::move(heldReplies_));
    heldReplies_.clear();
    objWinsock->SendShared(held);
}

void ServerFrame::DropHeldReplies() {
    holdTimer_->stop();
    heldReplies_.clear();
}

void ServerFrame::OnConnectionRequest(std::int32_t requestId) {
    core::Trap("Winsock_ConnectionRequest Event", [&] {
        host_.ClearLog();
        host_.WriteLog("SOCKET_EVENT: OnConnectionRequest Fired");
        if (!objWinsock) core::Raise(core::ErrorNumber::kObjectNotSet);
        if (objWinsock->State() != core::ISocketControl::kClosed) objWinsock->Close();
        DropHeldReplies();
        objWinsock->Accept(requestId);
        MakeCHotmail();
        if (const Command* greeting = FindCommand(kIdleCommand)) RunCommand(*greeting, Request{kIdleCommand, {}, {}});
    });
}

void ServerFrame::OnDataArrival(std::int32_t /*bytesTotal*/) {
    core::Trap("Winsock_DataArrival Event", [&] {
        if (!objWinsock) core::Raise(core::ErrorNumber::kObjectNotSet);
        // One arrival is one request, unless the server's reader cuts it (the SMTP end of data).
        std::string arrival = objWinsock->GetData();
        do {
            DispatchRequest(ReadRequest(arrival));
        } while (!arrival.empty());
        // The client is still sending: the hold starts again from this arrival.
        if (!heldReplies_.empty()) holdTimer_->start();
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
        DropHeldReplies();
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
