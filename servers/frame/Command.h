// One entry of a server's command table: the word as GetCommand yields it and the member that handles it.
#pragma once

#include <string>
#include <string_view>

namespace servers::frame {

template <typename Server>
struct Command {
    // Compared exactly, with case, against LastCommand.
    std::string_view word;
    // Gets the whole received text; nullptr means the word is answered with nothing.
    void (Server::*handler)(const std::string& request);
};

}  // namespace servers::frame
