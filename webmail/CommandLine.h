// The command line of tarnwick-webmail.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "webmail/dav/HttpServer.h"
#include "webmail/relay/QueueRunner.h"

namespace webmail {

struct CommandLine {
    std::string store;                   // --store DIR (required)
    dav::HttpServer::Options server;     // --listen, --domain, --auth, --max-message-size, --idle-timeout,
                                         // --max-connections, --max-connections-per-address, --trusted-proxy
    std::string tlsCertFile, tlsKeyFile; // --tls-cert FILE, --tls-key FILE (both or neither)
    std::string nonceKeyFile;            // --nonce-key-file FILE
    std::optional<std::string> addUser;  // --add-user NAME PASSWORD: name
    std::string addUserPassword;         //                           password
    bool demo = false;                   // --demo
    std::string relayUrl;                // --relay URL (empty: mail to other domains stays queued)
    std::string relayAuthFile;           // --relay-auth FILE
    relay::QueueRunner::Options relay;   // --relay-ca, --relay-give-up, --relay-retry, --relay-trace
    bool help = false;                   // --help

    // Reads the arguments (without the program name); throws std::invalid_argument with a message
    // fit for the user on anything wrong.
    static CommandLine Parse(const std::vector<std::string>& args);
    // The --help text.
    static std::string Usage();
};

}  // namespace webmail
