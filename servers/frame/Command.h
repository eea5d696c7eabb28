// One entry of a server's command table: a word and the handler that answers it.
#pragma once

#include <functional>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "servers/frame/Reply.h"
#include "servers/frame/Request.h"

namespace servers::frame {

struct Command {
    // Compared exactly, with case, against the request's word.
    std::string word;
    // Empty: the word is answered with nothing.
    std::function<Reply(const Request&)> handler;
};

// A server's words in dispatch order; the first entry whose word matches handles the request.
using CommandTable = std::vector<Command>;

// The table of `server`'s handler members; a null member leaves the word unanswered. `server` is only
// remembered, so a server can bind its table while it is being constructed.
template <typename Server>
CommandTable BindCommands(Server& server,
                          std::initializer_list<std::pair<const char*, Reply (Server::*)(const Request&)>> entries) {
    CommandTable table;
    table.reserve(entries.size());
    for (const auto& entry : entries) {
        Command command{entry.first, {}};
        if (const auto member = entry.second) {
            command.handler = [&server, member](const Request& request) { return (server.*member)(request); };
        }
        table.push_back(std::move(command));
    }
    return table;
}

}  // namespace servers::frame
