// The POP3 and SMTP command-word and argument rules over arbitrary request text (the number conversions are
// proved by a unit table).
// Each rule is checked against a plain statement of it, so a wrong word or argument is a finding too.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/Ascii.h"
#include "fuzz/FuzzCheck.h"
#include "servers/pop3/CPop3Server.h"
#include "servers/smtp/CSmtpServer.h"

namespace {

using fuzz::Check;

// Every CR LF pair removed, scanning left to right.
std::string WithoutCrLf(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text.compare(i, 2, "\r\n") == 0) {
            ++i;
            continue;
        }
        out += text[i];
    }
    return out;
}

// Request texts are counted in 16 bits; longer ones make the rules yield the empty text.
constexpr std::size_t kMaxCount = 32767;

void CheckPop3(const std::string& text) {
    using servers::pop3::CPop3Server;
    Check(CPop3Server::GetCommand(text) == core::Ascii::UpperCase(text.substr(0, 4)),
          "POP3 word: first four characters, upper-cased");

    const std::string s = WithoutCrLf(text);
    const std::size_t space = s.find(' ');
    const std::string expected = s.size() > kMaxCount || space == std::string::npos ? "" : s.substr(space + 1);
    Check(CPop3Server::GetArgument(text) == expected, "POP3 argument: after the first space, CR LF removed, untrimmed");
}

void CheckSmtp(const std::string& text) {
    using servers::smtp::CSmtpServer;
    const std::size_t space = text.find(' ');
    const std::size_t length = space == std::string::npos ? text.size() : space;
    const std::string expectedWord =
        length > kMaxCount ? "" : WithoutCrLf(core::Ascii::UpperCase(text.substr(0, length)));
    Check(CSmtpServer::GetCommand(text) == expectedWord,
          "SMTP word: before the first space, upper-cased, CR LF removed");

    const std::string s = WithoutCrLf(text);
    std::string expected;
    const std::size_t colon = s.find(':');
    if (s.size() <= kMaxCount && colon != std::string::npos) {
        expected = s.substr(colon + 1);
        expected.erase(0, expected.find_first_not_of(' '));
        const std::size_t last = expected.find_last_not_of(' ');
        expected.erase(last == std::string::npos ? 0 : last + 1);
    }
    Check(CSmtpServer::GetArgument(text) == expected, "SMTP argument: after the first colon, CR LF removed, trimmed");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    CheckPop3(text);
    CheckSmtp(text);
    return 0;
}
