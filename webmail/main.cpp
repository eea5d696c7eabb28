// tarnwick-webmail: parses the command line, prepares the store and serves until SIGINT or SIGTERM.
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <stdexcept>

#include "webmail/CommandLine.h"
#include "webmail/store/DemoMail.h"
#include "webmail/store/MaildirStore.h"
#include "webmail/dav/HttpServer.h"

int main(int argc, char** argv) {
    CommandLine line;
    try {
        line = CommandLine::parse(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const std::invalid_argument& e) {
        std::cerr << "tarnwick-webmail: " << e.what() << "\n";
        return 2;
    }
    if (line.help) {
        std::cout << CommandLine::usage();
        return 0;
    }
    try {
        std::filesystem::create_directories(line.store);
        MaildirStore store(line.store);
        if (line.addUser) {
            store.addUser(*line.addUser, line.addUserPassword);
            std::cout << "account " << *line.addUser << " ready in " << (store.root() / *line.addUser).string() << "\n";
            return 0;
        }
        if (line.demo && DemoMail::ensure(store, line.server.domain)) {
            std::cerr << "created demo account \"demo\" (password \"demo\")\n";
        }

        // The workers inherit this mask, so the two signals reach only the sigwait below.
        sigset_t stopSignals;
        sigemptyset(&stopSignals);
        sigaddset(&stopSignals, SIGINT);
        sigaddset(&stopSignals, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

        HttpServer server(store, line.server);
        server.start();
        std::cout << "listening on " << line.server.address << ":" << std::to_string(server.port()) << std::endl;
        int received = 0;
        sigwait(&stopSignals, &received);
        std::cerr << "stopping on signal " << std::to_string(received) << "\n";
        server.stop();
        return 0;
    } catch (const std::exception& e) {
        std::cerr << "tarnwick-webmail: " << e.what() << "\n";
        return 1;
    }
}
