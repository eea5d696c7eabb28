// The POP3 server's protocol texts as plain functions over bytes: the STAT, LIST, UIDL and RETR responses
// and the unique-id rule. No sockets, no service calls, no state.
// Responses are returned without their final CR LF; the frame adds it when it sends them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "core/Collection.h"
#include "core/ITextPieces.h"
#include "core/SpoolText.h"
#include "mailservice/CHotmailMessage.h"

namespace servers::pop3::MPop3Responses {

using MessagePtr = std::shared_ptr<mailservice::CHotmailMessage>;
using MessageList = core::Collection<MessagePtr>;

// Unique ids are cut to this many characters.
inline constexpr std::size_t kUniqueIdMaxLength = 69;

// "+OK <count> <size>".
std::string BuildSTATResponse(std::int16_t count, std::int32_t size);

// The whole-list LIST answer: "+OK <count> messages (<size> octets)", one "<i> <mLength>" line per record,
// then "." — every line but the last ending in CR LF.
std::string BuildLISTResponse(const MessageList& messages, std::int16_t count, std::int32_t size);

// The one-message LIST answer: "+OK ", the argument exactly as received, a space, the record's mLength.
std::string BuildLISTItemResponse(const std::string& argument, const mailservice::CHotmailMessage& message);

// The whole-list UIDL answer: "+OK ", one "<i> <unique id>" line per record, then ".".
std::string BuildUIDLResponse(const MessageList& messages);

// The one-message UIDL answer: "+OK ", the argument exactly as received, a space, the record's unique id.
std::string BuildUIDLItemResponse(const std::string& argument, const mailservice::CHotmailMessage& message);

// `messageId` ":" `from` with every "@" and space of `from` made ":", cut to kUniqueIdMaxLength characters.
std::string GetUIDLUniqueID(const std::string& messageId, const std::string& from);

// "+OK <mLength> octets", the "X-Application: <name> - <version>" line, the byte-stuffed body, CR LF, ".",
// read in pieces: the body comes from its spool file `pieceBytes` at a time, stuffed as it comes.
core::TextPiecesPtr RETRResponsePieces(const mailservice::CHotmailMessage& message, const std::string& appName,
                                       const std::string& appVersion,
                                       std::size_t pieceBytes = core::SpoolText::kPieceBytes);

// The whole RETR response at once (RETRResponsePieces read to the end); for short messages.
std::string BuildRETRResponse(const mailservice::CHotmailMessage& message, const std::string& appName,
                              const std::string& appVersion);

// Dot stuffing of a text that arrives in pieces: one more "." in front of every line that begins with "."
// (lines begin at the start and after each CR LF), nothing else changed, the same bytes wherever the text
// is cut, a CR LF split between two pieces included.
class DotStuffer {
public:
    // Appends `piece`, stuffed, to `out`.
    void Append(std::string& out, std::string_view piece);

private:
    bool atLineStart_ = true;  // the text so far is empty or ends in CR LF
    bool afterCr_ = false;     // the text so far ends in CR
};

// `body` stuffed whole (one DotStuffer over the one piece).
std::string StuffDots(std::string_view body);

}  // namespace servers::pop3::MPop3Responses
