// The POP3 and SMTP command-word and argument rules and the end of the SMTP data over arbitrary request text,
// under the sanitizers (the rules themselves are proved by a unit table): the end of the data lies in the
// arrival it is looked for in.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/FuzzCheck.h"
#include "servers/pop3/CPop3Server.h"
#include "servers/smtp/CSmtpServer.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    using servers::pop3::CPop3Server;
    using servers::smtp::CSmtpServer;
    (void)CPop3Server::GetCommand(text);
    (void)CPop3Server::GetArgument(text);
    (void)CSmtpServer::GetCommand(text);
    (void)CSmtpServer::GetArgument(text);
    const std::size_t half = size / 2;
    const std::size_t end = CSmtpServer::FindEndOfData(text.substr(0, half), text.substr(half));
    fuzz::Check(end == std::string::npos || end <= size - half, "the end of the data lies in the arrival");
    return 0;
}
