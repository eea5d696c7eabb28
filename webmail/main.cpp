// tarnwick-webmail: parses the command line, prepares the store and serves until SIGINT or SIGTERM.
#include <curl/curl.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <stdexcept>

#include "webmail/CommandLine.h"
#include "webmail/dav/HttpServer.h"
#include "webmail/relay/QueueRunner.h"
#include "webmail/store/DemoMail.h"
#include "webmail/store/MaildirStore.h"

namespace {

std::string ReadFile(const std::string& path, const char* option) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error(std::string(option) + ": cannot read " + path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// The shared Digest key: whoever can read it can forge nonces, so it must be its owner's alone.
std::string ReadNonceKey(const std::string& path) {
    struct stat facts {};
    if (::stat(path.c_str(), &facts) != 0) throw std::runtime_error("--nonce-key-file: cannot read " + path);
    if ((facts.st_mode & 077) != 0) {
        throw std::runtime_error("--nonce-key-file: " + path + " must be readable by its owner only (chmod 600)");
    }
    std::string key = ReadFile(path, "--nonce-key-file");
    if (key.size() < 16) throw std::runtime_error("--nonce-key-file: " + path + " holds fewer than 16 bytes");
    return key;
}

}  // namespace

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

        if (!line.tlsCertFile.empty()) {
            line.server.tlsCertificate = ReadFile(line.tlsCertFile, "--tls-cert");
            line.server.tlsKey = ReadFile(line.tlsKeyFile, "--tls-key");
        }
        if (!line.nonceKeyFile.empty()) line.server.nonceKey = ReadNonceKey(line.nonceKeyFile);
        const bool v6 = line.server.address.find(':') != std::string::npos;
        const std::string address = v6 ? "[" + line.server.address + "]" : line.server.address;
        if (line.server.tlsCertificate.empty() && !webmail::dav::HttpServer::IsLoopback(line.server.address)) {
            std::cerr << "tarnwick-webmail: warning: " << address << " is not a loopback address and there is no TLS:"
                      << " passwords and mail would cross the network in clear (see --tls-cert and --tls-key)\n";
        }

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
        std::cout << "listening on " << address << ":" << std::to_string(server.Port()) << std::endl;
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
