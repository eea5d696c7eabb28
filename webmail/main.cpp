// tarnwick-webmail: parses the command line, prepares the store and serves until SIGINT or SIGTERM.
#include <curl/curl.h>

#include <csignal>
#include <filesystem>
#include <iostream>
#include <memory>
#include <stdexcept>

#include "webmail/CommandLine.h"
#include "webmail/dav/HttpServer.h"
#include "webmail/relay/QueueRunner.h"
#include "webmail/store/DemoMail.h"
#include "webmail/store/MaildirStore.h"

int main(int argc, char** argv) {
    using webmail::CommandLine;
    CommandLine line;
    try {
        line = CommandLine::Parse(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const std::invalid_argument& e) {
        std::cerr << "tarnwick-webmail: " << e.what() << "\n";
        return 2;
    }
    if (line.help) {
        std::cout << CommandLine::Usage();
        return 0;
    }
    try {
        std::filesystem::create_directories(line.store);
        webmail::store::MaildirStore store(line.store);
        if (line.addUser) {
            store.AddUser(*line.addUser, line.addUserPassword);
            std::cout << "account " << *line.addUser << " ready in " << (store.Root() / *line.addUser).string() << "\n";
            return 0;
        }
        if (line.demo && webmail::store::DemoMail::Ensure(store, line.server.domain)) {
            std::cerr << "created demo account \"demo\" (password \"demo\")\n";
        }

        // The workers inherit this mask, so the two signals reach only the sigwait below.
        sigset_t stopSignals;
        sigemptyset(&stopSignals);
        sigaddset(&stopSignals, SIGINT);
        sigaddset(&stopSignals, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

        std::unique_ptr<webmail::relay::QueueRunner> queue;
        if (!line.relayUrl.empty()) {
            if (!line.relayAuthFile.empty()) {
                webmail::relay::SmtpRelay::ReadCredentials(line.relayAuthFile, line.relay.relay.user,
                                                           line.relay.relay.password);
            }
            curl_global_init(CURL_GLOBAL_DEFAULT);
            queue = std::make_unique<webmail::relay::QueueRunner>(store, line.relay);
        }

        webmail::dav::HttpServer server(store, line.server);
        server.Start();
        std::cout << "listening on " << line.server.address << ":" << std::to_string(server.Port()) << std::endl;
        if (queue) {
            std::cerr << "relaying mail for other domains via " << line.relayUrl << "\n";
            queue->Start();
        } else {
            std::cerr << "no --relay: mail for other domains waits in the sender's Outbox\n";
        }
        int received = 0;
        sigwait(&stopSignals, &received);
        std::cerr << "stopping on signal " << std::to_string(received) << "\n";
        server.Stop();
        if (queue) queue->Stop();
        return 0;
    } catch (const std::exception& e) {
        std::cerr << "tarnwick-webmail: " << e.what() << "\n";
        return 1;
    }
}
