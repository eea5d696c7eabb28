// The listener and session frame both local servers share: binds a socket control of the host, listens,
// serves one client at a time, reads each arrival into a request by the server's rules, runs the handler the
// server's command table gives its word, and sends and logs the reply. Every socket event is logged.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "core/Error.h"
#include "core/IGatewayHost.h"
#include "core/ISocketControl.h"
#include "core/ISocketEvents.h"
#include "servers/frame/Command.h"
#include "servers/frame/Reply.h"
#include "servers/frame/Request.h"
#include "servers/frame/ServerProfile.h"

class QTimer;

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
    // The word of the request being handled; "CONN" whenever the server listens.
    const std::string& LastCommand() const { return lastCommand_; }
    void SetLastCommand(const std::string& New_LastCommand) { lastCommand_ = New_LastCommand; }
    // Empty at creation; the frame writes nothing else into it.
    const std::string& LastResponse() const { return lastResponse_; }
    void SetLastResponse(const std::string& New_LastResponse) { lastResponse_ = New_LastResponse; }

    // Binds the socket control and starts listening on ListenPort; a bad port raises (13, 6, 10013 or 10048).
    void StartServer();
    // Closes and releases the socket control; silent when nothing is bound.
    void StopServer();

    // `text` followed by CR LF.
    static std::string FormatResponse(const std::string& text);

    // How long the client must have sent nothing before the held replies go out (see heldReplies_). A client
    // that stalls for longer in the middle of its message gets the replies so far early, so the hold is
    // long; one that waits for every chunk's reply pays it once per chunk, so it is not longer.
    static constexpr std::chrono::milliseconds kReplyHoldTime{2000};
    // For tests that wait for every held reply.
    void SetReplyHoldTime(std::chrono::milliseconds holdTime);

    // Socket events of the bound control; an error leaves them after it has been reported.
    void OnConnectionRequest(std::int32_t requestId) final;
    void OnDataArrival(std::int32_t bytesTotal) final;
    void OnSendProgress(std::int32_t bytesSent, std::int32_t bytesRemaining) final;
    void OnSendComplete() final;
    void OnError(std::int32_t number, const std::string& description) final;
    void OnClose() final;
    void OnConnect() final;

protected:
    // The "CONN" entry of `commands` greets every accepted client.
    ServerFrame(core::IGatewayHost& host, ServerProfile profile, CommandTable commands);

    // The application: log, credential store, name and version.
    core::IGatewayHost& Host() const { return host_; }
    // The service client of the current connection; raises 91 when no connection has made one.
    mailservice::CHotmail& ConnectionHotmail() const;

    // The whole arrival as one command, its word and argument read by the profile's rules.
    Request ReadCommand(std::string& arrival) const;
    // Takes the next request off the front of an arrival, leaving in `arrival` what follows it (read after the
    // request has been handled). By default the whole arrival is one command (ReadCommand).
    virtual Request ReadRequest(std::string& arrival) const { return ReadCommand(arrival); }

    // Request texts are counted in 16 bits: a rule yields the empty text for a longer one.
    static bool FitsCount16(std::size_t count);
    // `text` without any CR LF pair; a lone CR or LF stays.
    static std::string RemoveCrLf(std::string_view text);

    // Protocol state of a connection, dropped with the connection's service client (close or socket error).
    virtual void ResetConnectionState() {}
    // Extra state reset at every end of session.
    virtual void ResetSessionState() {}

private:
    void SetDefaultValues();
    void RestartSession();
    void EndSession();
    void StartListening();
    // The description of a listening error that a user can act on: which server, which port, and why.
    std::string ListenFailure(const core::Error& error, std::int32_t port) const;
    void MakeWinsock();
    void KillWinsock();
    void MakeCHotmail();
    void KillCHotmail();

    // Logs `request` as the profile says, keeps its word in LastCommand and runs the handler the table gives
    // that word; a word without an entry gets the unrecognised-command response.
    void DispatchRequest(const Request& request);
    // Runs `command`'s handler and sends its reply; a failing handler is answered with the error's description.
    void RunCommand(const Command& command, const Request& request);
    // The first entry of the table for `word`; nullptr when there is none.
    const Command* FindCommand(const std::string& word) const;

    void SendReply(Reply reply);
    // Sends the held replies and then `text` with CR LF, and logs "SERVER_RESPONSE: " + text. The text is
    // taken over, not copied: the CR LF is added in place and the socket and the log share the one text.
    void SendResponse(std::string text);
    // Sends the held replies and then the text `pieces` reads with CR LF, and logs "SERVER_RESPONSE: " + that
    // text, each reading it anew in pieces.
    void SendStreamedResponse(const core::TextPiecesSource& pieces);
    // Drops the held replies, then sends and logs the error prefix + `message`.
    void SendErrorResponse(const std::string& message);
    // Keeps `text` with CR LF back and (re)starts the hold timer.
    void HoldReply(const std::string& text);
    // Sends the held replies, in order, without a log entry (the client has been waiting for them).
    void SendHeldReplies();
    // Forgets the held replies and stops the hold timer: a session that ends takes them with it.
    void DropHeldReplies();

    core::IGatewayHost& host_;
    const ServerProfile profile_;
    const CommandTable commands_;
    std::string listenPort_;
    std::string userName_;
    std::string password_;
    std::string lastCommand_;
    std::string lastResponse_;
    // The host's control while bound; not owned.
    core::ISocketControl* objWinsock = nullptr;
    // The service client of the current connection: made when a client is accepted, dropped when it goes.
    std::unique_ptr<mailservice::CHotmail> Hotmail;
    // Replies held back, each with its CR LF, oldest first. The one exception to answering every request at
    // once, made so that no mail is lost: a mail reader streams its message without reading and then reads
    // one reply for its end of data. Were each chunk's "250 ok" sent at once, it would take an early one for
    // that reply, send QUIT, take the next for the reply to QUIT and close with replies unread; its system
    // then resets the connection and the text still in flight is gone. So a held reply goes out only when
    // the client has sent nothing for the hold time (it waits for it), or right before the next response;
    // an error response drops it, so that the client reads the error as the answer to its message. The
    // bytes and their order are otherwise those of answering at once.
    std::string heldReplies_;
    // The gateway's only timer: single-shot, restarted by every arrival while replies are held.
    std::unique_ptr<QTimer> holdTimer_;
};

}  // namespace servers::frame
