// The SMTP server: the shared frame with the SMTP command table and rules, the reading of arrivals that
// switches between command mode and message data mode, and the relay of each finished message through the
// connection's service client.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "core/IGatewayHost.h"
#include "core/ITextPieces.h"
#include "core/SpoolFile.h"
#include "core/SpoolText.h"
#include "servers/frame/Reply.h"
#include "servers/frame/Request.h"
#include "servers/frame/ServerFrame.h"

namespace servers::smtp {

class CSmtpServer : public frame::ServerFrame {
public:
    // A server on the host's WinsockSMTP with ListenPort "25"; it listens only after StartServer.
    explicit CSmtpServer(core::IGatewayHost& host);

    // The fixed mail domain named in the greeting and in the reply to QUIT.
    static constexpr std::string_view kMailDomain = "tarnwick.local";
    // The refusal of HELO and of the relay while the credential store holds no user name.
    static constexpr std::string_view kCredentialsUnavailable =
        "Tarnwick/SMTP Gateway Server Username and Password are unavailable. Please perform a 'Receive' before "
        "sending any messages to initialize the application.";

    // The command word: the text before the first space (all of it without one), upper-cased, with every
    // CR LF removed; empty for a text beyond 16-bit counts.
    static std::string GetCommand(std::string_view text);
    // The argument: the text after the first colon, CR LF removed, leading and trailing spaces trimmed; empty
    // without a colon or for a text beyond 16-bit counts.
    static std::string GetArgument(std::string_view text);

    // Where the message data ends in `arrival`: the length of its share up to and including the first end
    // mark CR LF "." CR LF, whose first bytes may close the text `collected` before it (the data starts at
    // the beginning of a line); npos when the arrival holds no end mark.
    static std::size_t FindEndOfData(std::string_view collected, std::string_view arrival);

private:
    using Request = frame::Request;
    using Reply = frame::Reply;

    Reply HandleCONN(const Request& request);
    Reply HandleHELO(const Request& request);
    Reply HandleMAIL(const Request& request);
    Reply HandleRCPT(const Request& request);
    Reply HandleDATA(const Request& request);
    Reply HandleMESG(const Request& request);
    Reply HandleSEND(const Request& request);
    Reply HandleQUIT(const Request& request);

    // In command mode the whole arrival is one command. In the data phase it is a chunk of message text,
    // "MESG", or the chunk that ends the data, "SEND", cut after the end mark: what follows the mark in the
    // same arrival is read next, as a command.
    Request ReadRequest(std::string& arrival) const override;

    // Whether the host's credential store holds a user name (a mail reader has fetched mail since start).
    bool CredentialsAvailable() const;
    // Logs the connection's service client in with the host's credentials, once per connection; does
    // nothing while no user name is available.
    void ConnectToHotmail();
    // The message/rfc821 text posted for `messageText`, read in pieces (the text from its spool file), and
    // its size: envelope lines, an empty line, the text, CR LF, ".", CR LF.
    struct RelayedText {
        core::TextPiecesSource pieces;
        std::uint64_t size = 0;
    };
    RelayedText BuildMessage(const core::SpoolText& messageText) const;
    // Appends a chunk of the data to MailData. A chunk the file cannot take leaves MailData failed, to be
    // reported at the end of the data rather than in the middle of a client's stream.
    void AppendMailData(std::string_view chunk);

    // LoggedIn goes with the connection's service client, DataMode with the session.
    void ResetConnectionState() override;
    void ResetSessionState() override;

    // Sender and recipient as the client wrote them after the colon; kept across transactions and
    // connections until the next MAIL or RCPT.
    std::string MailFrom;
    std::string RcptTo;
    // The message text collected in the current data phase, as received: appended to a file of its own as it
    // comes, so that a message of tens of megabytes is never held in memory. Its last few bytes are kept in
    // MailDataTail too, where an end mark that begins in the text before an arrival is looked for.
    std::shared_ptr<core::SpoolFile> MailData;
    std::string MailDataTail;
    // The connection's service client has been logged in.
    bool LoggedIn = false;
    // From an accepted DATA until the end of the data: arrivals are message chunks, not commands.
    bool DataMode = false;
};

}  // namespace servers::smtp
