// The listener and session frame both local servers share: binds a socket control of the host, listens,
// serves one client at a time, turns each arrival into one request, dispatches it through the server's
// command table and logs every socket event, request and response. Subclasses supply what differs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "core/IGatewayHost.h"
#include "core/ISocketControl.h"
#include "core/ISocketEvents.h"
#include "servers/frame/Command.h"
#include "servers/frame/ServerProfile.h"

namespace mailservice {
class CHotmail;
}

namespace servers::frame {

class ServerFrame : public core::ISocketEvents {
public:
    // Detaches from the socket control without closing it; the owner calls StopServer first.
    ~ServerFrame() override;
    ServerFrame(const ServerFrame&) = delete;
    ServerFrame& operator=(const ServerFrame&) = delete;

    // TCP port to listen on, as decimal text; taken as it is at StartServer.
    const std::string& ListenPort() const { return listenPort_; }
    void SetListenPort(const std::string& New_ListenPort) { listenPort_ = New_ListenPort; }
    // Account name and password of the connection (POP3 only; the SMTP server leaves them empty).
    const std::string& UserName() const { return userName_; }
    void SetUserName(const std::string& New_UserName) { userName_ = New_UserName; }
    const std::string& Password() const { return password_; }
    void SetPassword(const std::string& New_Password) { password_ = New_Password; }
    // The command word being handled; "CONN" whenever the server listens.
    const std::string& LastCommand() const { return lastCommand_; }
    void SetLastCommand(const std::string& New_LastCommand) { lastCommand_ = New_LastCommand; }
    // Empty at creation; the frame writes nothing else into it.
    const std::string& LastResponse() const { return lastResponse_; }
    void SetLastResponse(const std::string& New_LastResponse) { lastResponse_ = New_LastResponse; }

    // Binds the socket control and starts listening on ListenPort; a bad port raises (13, 6 or 10048).
    void StartServer();
    // Closes and releases the socket control; silent when nothing is bound.
    void StopServer();

    // The command word of `text` by this server's rule, also stored in LastCommand; empty on failure.
    std::string GetCommand(const std::string& text);
    // The argument of `text` by this server's rule; empty on failure.
    std::string GetArgument(const std::string& text) const;
    // `text` followed by CR LF.
    static std::string FormatResponse(const std::string& text);

    // Socket events of the bound control; an error leaves them after it has been reported.
    void OnConnectionRequest(std::int32_t requestId) final;
    void OnDataArrival(std::int32_t bytesTotal) final;
    void OnSendProgress(std::int32_t bytesSent, std::int32_t bytesRemaining) final;
    void OnSendComplete() final;
    void OnError(std::int32_t number, const std::string& description) final;
    void OnClose() final;
    void OnConnect() final;

protected:
    ServerFrame(core::IGatewayHost& host, ServerProfile profile);

    // Runs SetDefaultValues under the creation label; each subclass constructor calls it last.
    void ClassInitialize();

    // The application: log, credential store, name and version.
    core::IGatewayHost& Host() const { return host_; }
    // The service client of the current connection; raises 91 when no connection has made one.
    mailservice::CHotmail& ConnectionHotmail() const;

    // Sends `text` with CR LF and logs "SERVER_RESPONSE: " + text. The text is taken over, not copied: the
    // CR LF is added in place and the socket and the log share the one text.
    void SendResponse(std::string text);
    // Sends `text` with CR LF and writes no log entry.
    void SendUnloggedResponse(const std::string& text);
    // Sends the error prefix + `message`; an empty message stands for the error that stopped the command.
    void SendErrorResponse(const std::string& message);

    // Dispatch on LastCommand: the first matching handler runs, or the unrecognised-command response goes out.
    void DispatchRequest(const std::string& request);

    // Walks one server's command table; true when LastCommand matched an entry.
    template <typename Server>
    bool DispatchFrom(std::span<const Command<Server>> table, Server& server, const std::string& request) {
        for (const Command<Server>& command : table) {
            if (command.word != lastCommand_) continue;
            if (command.handler) RunCommand([&] { (server.*command.handler)(request); });
            return true;
        }
        return false;
    }

    // Counts and positions in requests are 16-bit signed; a longer text raises 6 (Overflow).
    static std::int16_t ToCount16(std::size_t count);
    // `text` without any CR LF pair; a lone CR or LF stays.
    static std::string RemoveCrLf(const std::string& text);
    // ASCII letters upper-cased; command words are ASCII, other bytes pass unchanged.
    static std::string UpperCase(std::string text);

    // Greets the client; run when a client is accepted and for the word "CONN". `request` is unused.
    virtual void HandleCONN(const std::string& request) = 0;
    // Looks LastCommand up in the server's table (via DispatchFrom); false when no entry matches.
    virtual bool DispatchCommand(const std::string& request) = 0;
    // The server's command-word and argument rules; may raise, GetCommand/GetArgument absorb it.
    virtual std::string ExtractCommand(const std::string& text) const = 0;
    virtual std::string ExtractArgument(const std::string& text) const = 0;
    // Logs and dispatches one arrival (the text GetData fetched) in the server's own way.
    virtual void ReceiveRequest(const std::string& text) = 0;
    // Server fields set at creation, after the frame's own defaults.
    virtual void SetServerDefaults() {}
    // Protocol state of a connection, dropped with the connection's service client.
    virtual void ResetConnectionState() {}
    // Extra state reset at every end of session.
    virtual void ResetSessionState() {}

private:
    void SetDefaultValues();
    void RestartSession();
    void EndSession();
    void StartListening();
    void MakeWinsock();
    void KillWinsock();
    void MakeCHotmail();
    void KillCHotmail();
    void RunCommand(const std::function<void()>& handler);

    core::IGatewayHost& host_;
    const ServerProfile profile_;
    std::string listenPort_;
    std::string userName_;
    std::string password_;
    std::string lastCommand_;
    std::string lastResponse_;
    // The host's control while bound; not owned.
    core::ISocketControl* objWinsock = nullptr;
    // The service client of the current connection: made when a client is accepted, dropped when it goes.
    std::unique_ptr<mailservice::CHotmail> Hotmail;
    // Description of the error that stopped the current command handler.
    std::string commandErrorDescription_;
};

}  // namespace servers::frame
