#include "servers/pop3/MPop3Responses.h"

#include <vector>

#include "core/Convert.h"
#include "core/Error.h"

namespace servers::pop3::MPop3Responses {
namespace {

constexpr std::string_view kCrLf = "\r\n";
constexpr const char* kSource = "CPop3Server";

[[noreturn]] void Fail(std::int32_t number, const char* description) {
    throw core::Error(number, kSource, description);
}

}  // namespace

std::string BuildSTATResponse(std::int16_t count, std::int32_t size) {
    return "+OK " + core::ToText(count) + " " + core::ToText(size);
}

std::string BuildLISTResponse(const MessageList& messages, std::int16_t count, std::int32_t size) {
    std::string out = "+OK " + core::ToText(count) + " messages (" + core::ToText(size) + " octets)";
    out += kCrLf;
    std::int64_t i = 0;
    for (const MessagePtr& m : messages) {
        out += core::ToText(++i) + " " + m->mLength;
        out += kCrLf;
    }
    out += ".";
    return out;
}

std::string BuildLISTItemResponse(const std::string& argument, const mailservice::CHotmailMessage& message) {
    return "+OK " + argument + " " + message.mLength;
}

std::string BuildUIDLResponse(const MessageList& messages) {
    std::string out = "+OK ";
    out += kCrLf;
    std::int64_t i = 0;
    for (const MessagePtr& m : messages) {
        out += core::ToText(++i) + " " + GetUIDLUniqueID(m->mMessageID, m->mFrom);
        out += kCrLf;
    }
    out += ".";
    return out;
}

std::string BuildUIDLItemResponse(const std::string& argument, const mailservice::CHotmailMessage& message) {
    return "+OK " + argument + " " + GetUIDLUniqueID(message.mMessageID, message.mFrom);
}

std::string GetUIDLUniqueID(const std::string& messageId, const std::string& from) {
    std::string sender = from;
    for (char& c : sender) {
        if (c == '@' || c == ' ') c = ':';
    }
    std::string id = messageId + ":" + sender;
    if (id.size() > kUniqueIdMaxLength) id.resize(kUniqueIdMaxLength);
    return id;
}

std::string StuffDots(std::string_view body) {
    std::string out;
    // Bodies run to many megabytes: one pass, one allocation in the common case.
    out.reserve(body.size() + body.size() / 64 + 1);
    std::size_t lineStart = 0;
    while (lineStart <= body.size()) {
        const std::size_t next = body.find(kCrLf, lineStart);
        const std::size_t lineEnd = next == std::string_view::npos ? body.size() : next + kCrLf.size();
        if (lineStart < body.size() && body[lineStart] == '.') out += '.';
        out.append(body.substr(lineStart, lineEnd - lineStart));
        if (next == std::string_view::npos) break;
        lineStart = lineEnd;
    }
    return out;
}

std::string BuildRETRResponse(const mailservice::CHotmailMessage& message, const std::string& appName,
                              const std::string& appVersion) {
    std::string out;
    out.reserve(message.mBody.size() + message.mBody.size() / 64 + 128);
    out += "+OK " + message.mLength + " octets";
    out += kCrLf;
    out += "X-Application: " + appName + " - " + appVersion;
    out += kCrLf;
    out += StuffDots(message.mBody);
    out += kCrLf;
    out += ".";
    return out;
}

std::int16_t ParseMessageNumber(const std::string& argument, std::int32_t count) {
    if (argument.empty()) Fail(kNoMessageNumberError, kNoMessageNumberText);
    std::int16_t n = 0;
    try {
        n = core::ToInt16(argument);
    } catch (const core::Error& e) {
        // A number too large for 16 bits names no message; anything else is not a number at all.
        if (e.Number() == core::ErrorNumber::kOverflow) Fail(kNoSuchMessageError, kNoSuchMessageText);
        Fail(kNotANumberError, kNotANumberText);
    }
    if (n < 1 || n > count) Fail(kNoSuchMessageError, kNoSuchMessageText);
    return n;
}

const MessagePtr& SelectMessage(const MessageList& messages, const std::string& argument) {
    return messages.Item(ParseMessageNumber(argument, messages.Count()));
}

void RemoveReadMessages(MessageList& messages) {
    std::vector<std::string> readKeys;
    for (const MessagePtr& m : messages) {
        if (m->mRead != 0) readKeys.push_back(m->mIndex);
    }
    for (const std::string& key : readKeys) messages.Remove(key);
}

std::int32_t SumMessageSizes(const MessageList& messages) {
    double total = 0;
    for (const MessagePtr& m : messages) total += core::ToDouble(m->mLength);
    return core::RoundToInt32(total);
}

std::int16_t CountMessages(const MessageList& messages) { return core::RoundToInt16(messages.Count()); }

}  // namespace servers::pop3::MPop3Responses
