// One request as the frame hands it to a command handler: read from an arrival by the server's own rules.
#pragma once

#include <string>

namespace servers::frame {

struct Request {
    // The command word by the server's rule (or a word the server gives a data chunk); compared with the
    // command table and kept in LastCommand while the request is handled.
    std::string word;
    // The argument by the server's rule; empty for data chunks, which have none.
    std::string argument;
    // The received text the request covers, unchanged: the whole arrival, or its share up to an end mark.
    std::string text;
    // Whether the arrival and the request are written to the log (message data chunks are not).
    bool logged = true;
};

}  // namespace servers::frame
