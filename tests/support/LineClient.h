// A mail reader's side of a connection to one of the gateway's servers, driven from the test's event loop:
// bytes out, lines or counted bytes back. A wait that runs out returns what arrived, so the caller's
// comparison fails rather than the test hanging. And free loopback ports for the servers a test starts.
#pragma once

#include <QTcpSocket>

#include <cstddef>
#include <string>

namespace testing_support {

// A port on 127.0.0.1 that nothing listens on (bound, then released), as decimal text.
std::string FreePort();

class LineClient {
public:
    LineClient() = default;
    // Connects at once; see Refused for a connection nothing accepted.
    explicit LineClient(const std::string& port) { (void)Connect(port); }
    // Connects to 127.0.0.1:`port` and waits for the connection; false when it was refused.
    bool Connect(const std::string& port);
    void Send(const std::string& bytes);
    // One line with its CR LF.
    std::string ReceiveLine();
    // Exactly `count` more bytes.
    std::string Receive(std::size_t count);
    // Sends `request` and returns the reply line.
    std::string Ask(const std::string& request);
    // Sends `request` and returns a multi-line answer up to its "." line, or the one line of an "-ERR" answer.
    std::string AskMultiLine(const std::string& request);
    // Whether the connection was refused (nothing listened), or has been dropped by the server.
    bool Refused();
    bool Dropped();

    QTcpSocket socket;
};

}  // namespace testing_support
