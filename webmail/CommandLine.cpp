#include "webmail/CommandLine.h"

#include <chrono>
#include <charconv>
#include <optional>
#include <stdexcept>

namespace webmail {

namespace {

// A decimal number of at most maxDigits ASCII digits (std::from_chars ignores the locale), or nullopt.
std::optional<std::uint64_t> Decimal(const std::string& text, std::size_t maxDigits) {
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || text.size() > maxDigits || error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

std::uint16_t ParsePort(const std::string& text) {
    const auto port = Decimal(text, 5);
    if (!port) throw std::invalid_argument("--listen: port must be a number from 0 to 65535, got \"" + text + "\"");
    if (*port > 65535) throw std::invalid_argument("--listen: port must be from 0 to 65535, got " + text);
    return static_cast<std::uint16_t>(*port);
}

std::size_t ParseSize(const std::string& text) {
    const auto size = Decimal(text, 12);
    if (!size) throw std::invalid_argument("--max-message-size: expected a number of bytes, got \"" + text + "\"");
    if (*size < 1024) throw std::invalid_argument("--max-message-size: at least 1024 bytes");
    return static_cast<std::size_t>(*size);
}

// A duration: a number of seconds, or a number followed by s, m, h or d; at least one second.
std::chrono::seconds ParseDuration(const std::string& option, const std::string& text) {
    std::string digits = text;
    std::uint64_t unit = 1;
    if (!digits.empty()) {
        switch (digits.back()) {
            case 's': unit = 1; break;
            case 'm': unit = 60; break;
            case 'h': unit = 3600; break;
            case 'd': unit = 86400; break;
            default: unit = 0; break;
        }
        if (unit != 0) digits.pop_back();
        if (unit == 0) unit = 1;
    }
    const auto count = Decimal(digits, 7);
    if (!count || *count == 0) {
        throw std::invalid_argument(option + ": expected a duration such as 90s, 30m, 12h or 5d, got \"" + text + "\"");
    }
    return std::chrono::seconds(static_cast<std::chrono::seconds::rep>(*count * unit));
}

// A count or a number of seconds for `option`, from 1 to `most`.
unsigned ParseCount(const std::string& option, const std::string& text, unsigned most) {
    const auto n = Decimal(text, 6);
    if (!n || *n < 1 || *n > most) {
        throw std::invalid_argument(option + ": expected a number from 1 to " + std::to_string(most) + ", got \"" +
                                    text + "\"");
    }
    return static_cast<unsigned>(*n);
}

}  // namespace

CommandLine CommandLine::Parse(const std::vector<std::string>& args) {
    CommandLine line;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        const auto value = [&](const char* what) -> const std::string& {
            if (i + 1 >= args.size()) throw std::invalid_argument(arg + " needs " + what);
            return args[++i];
        };
        if (arg == "--help" || arg == "-h") {
            line.help = true;
        } else if (arg == "--store") {
            line.store = value("a folder");
        } else if (arg == "--listen") {
            const std::string& listen = value("ADDRESS:PORT");
            const std::size_t colon = listen.rfind(':');
            if (colon == std::string::npos || colon == 0) {
                throw std::invalid_argument("--listen: expected ADDRESS:PORT, such as 127.0.0.1:8110 or [::1]:8110");
            }
            std::string address = listen.substr(0, colon);
            if (address.size() > 2 && address.front() == '[' && address.back() == ']') {
                address = address.substr(1, address.size() - 2);
            } else if (address.find(':') != std::string::npos) {
                throw std::invalid_argument("--listen: an IPv6 address goes in brackets, such as [::1]:8110");
            }
            if (address == "localhost") address = "127.0.0.1";
            if (dav::HttpServer::NormalAddress(address).empty()) {
                throw std::invalid_argument("--listen: not an IPv4 or IPv6 address: \"" + address + "\"");
            }
            line.server.address = address;
            line.server.port = ParsePort(listen.substr(colon + 1));
        } else if (arg == "--tls-cert") {
            line.tlsCertFile = value("a PEM certificate file");
        } else if (arg == "--tls-key") {
            line.tlsKeyFile = value("a PEM key file");
        } else if (arg == "--nonce-key-file") {
            line.nonceKeyFile = value("a key file");
        } else if (arg == "--trusted-proxy") {
            const std::string& proxy = value("an IP address");
            line.server.trustedProxy = dav::HttpServer::NormalAddress(proxy);
            if (line.server.trustedProxy.empty()) {
                throw std::invalid_argument("--trusted-proxy: not an IPv4 or IPv6 address: \"" + proxy + "\"");
            }
        } else if (arg == "--domain") {
            line.server.domain = value("a domain name");
            if (line.server.domain.empty() || line.server.domain.find_first_of(" @<>\t\r\n") != std::string::npos) {
                throw std::invalid_argument("--domain: not a domain name");
            }
        } else if (arg == "--auth") {
            const std::string& mode = value("basic, digest or any");
            if (mode == "basic") {
                line.server.auth = dav::HttpServer::AuthMode::Basic;
            } else if (mode == "digest") {
                line.server.auth = dav::HttpServer::AuthMode::Digest;
            } else if (mode == "any") {
                line.server.auth = dav::HttpServer::AuthMode::Any;
            } else {
                throw std::invalid_argument("--auth: expected basic, digest or any, got \"" + mode + "\"");
            }
        } else if (arg == "--add-user") {
            line.addUser = value("NAME PASSWORD");
            line.addUserPassword = value("NAME PASSWORD");
        } else if (arg == "--demo") {
            line.demo = true;
        } else if (arg == "--max-message-size") {
            line.server.maxBodySize = ParseSize(value("a number of bytes"));
        } else if (arg == "--relay") {
            line.relayUrl = value("a URL such as smtp://mail.example.org:587");
            std::string error;
            if (!relay::SmtpRelay::IsRelayUrl(line.relayUrl, error)) throw std::invalid_argument("--relay: " + error);
        } else if (arg == "--relay-auth") {
            line.relayAuthFile = value("a file holding USER:PASSWORD");
        } else if (arg == "--relay-ca") {
            line.relay.relay.caFile = value("a file of certificate authorities");
        } else if (arg == "--relay-give-up") {
            line.relay.giveUp = ParseDuration(arg, value("a duration"));
        } else if (arg == "--relay-retry") {
            const std::string& pauses = value("FIRST,LONGEST");
            const std::size_t comma = pauses.find(',');
            if (comma == std::string::npos) throw std::invalid_argument("--relay-retry: expected FIRST,LONGEST");
            line.relay.firstPause = ParseDuration(arg, pauses.substr(0, comma));
            line.relay.maxPause = ParseDuration(arg, pauses.substr(comma + 1));
            if (line.relay.maxPause < line.relay.firstPause) {
                throw std::invalid_argument("--relay-retry: the longest pause is shorter than the first");
            }
        } else if (arg == "--relay-trace") {
            line.relay.trace = true;
        } else if (arg == "--idle-timeout") {
            line.server.idleTimeoutSeconds = ParseCount(arg, value("a number of seconds"), 86400);
        } else if (arg == "--max-connections") {
            line.server.maxConnections = ParseCount(arg, value("a number"), 10000);
        } else if (arg == "--max-connections-per-address") {
            line.server.maxConnectionsPerAddress = ParseCount(arg, value("a number"), 10000);
        } else {
            throw std::invalid_argument("unknown option \"" + arg + "\" (see --help)");
        }
    }
    if (!line.help && line.store.empty()) throw std::invalid_argument("--store DIR is required (see --help)");
    if (line.tlsCertFile.empty() != line.tlsKeyFile.empty()) {
        throw std::invalid_argument("--tls-cert and --tls-key go together");
    }
    const bool relayOptions = !line.relayAuthFile.empty() || !line.relay.relay.caFile.empty() || line.relay.trace ||
                              line.relay.giveUp != relay::QueueRunner::Options().giveUp ||
                              line.relay.firstPause != relay::QueueRunner::Options().firstPause ||
                              line.relay.maxPause != relay::QueueRunner::Options().maxPause;
    if (line.relayUrl.empty() && relayOptions) throw std::invalid_argument("the --relay-* options need --relay URL");
    line.relay.relay.url = line.relayUrl;
    line.relay.relay.heloName = line.server.domain;
    line.relay.domain = line.server.domain;
    return line;
}

std::string CommandLine::Usage() {
    return R"(Usage: tarnwick-webmail --store DIR [options]

A small local web mail service over a Maildir store, speaking the WebDAV mail
interface of Tarnwick Gateway. The entry address is
  http://ADDRESS:PORT/svcs/hotmail/tarnwick.asp (https:// with --tls-cert)

Options:
  --store DIR               store folder: the password file "passwd" and one
                            Maildir++ tree per account (created if missing)
  --listen ADDRESS:PORT     address and port (default 127.0.0.1:8110); an IPv6
                            address in brackets ([::1]:8110); port 0 picks a
                            free port. Once listening, prints
                            "listening on ADDRESS:PORT" on standard output
  --tls-cert FILE           serve HTTPS (TLS 1.2 or newer) with this PEM
                            certificate chain (server certificate first)
  --tls-key FILE            and this PEM private key (both or neither)
  --nonce-key-file FILE     key of the Digest nonces (at least 16 bytes,
                            readable by its owner only): instances reading the
                            same file accept each other's nonces (default: a
                            random key per process)
  --trusted-proxy ADDRESS   the reverse proxy in front: only requests from this
                            address have their X-Forwarded-For (client address
                            in the Received: line) and X-Forwarded-Proto believed
  --domain NAME             mail domain of the store's accounts
                            (default tarnwick.local)
  --auth basic|digest|any   HTTP authentication offered (default any: both)
  --max-message-size BYTES  largest request body accepted (default 67108864,
                            64 MiB: room for a 25 MB attachment in base64)
  --idle-timeout SECONDS    close a connection on which nothing arrives or
                            leaves for this long, mid-request or between
                            requests (default 60)
  --max-connections N       connections served at once; more wait until one
                            ends (default 256)
  --max-connections-per-address N
                            connections served at once from one client
                            address; more are closed at once (default 64)
  --add-user NAME PASSWORD  create the account (or set its password) and exit
  --demo                    create account "demo", password "demo", with a few
                            sample messages, if it does not exist yet
  --help                    show this text

Sending to other domains (without --relay such mail waits in the sender's
Outbox folder):
  --relay URL               hand it to this mail server: smtp://HOST:PORT
                            (STARTTLS when offered) or smtps://HOST:PORT
  --relay-auth FILE         log in with USER:PASSWORD from the first line of
                            FILE (not readable by others); TLS is then required
  --relay-ca FILE           certificate authorities for the relay's TLS
                            (default: the system's)
  --relay-give-up DURATION  return undelivered mail to its sender after this
                            long (default 5d; units s, m, h, d)
  --relay-retry FIRST,MAX   pauses between attempts: FIRST, doubling up to MAX
                            (default 1m,1h; shorter ones are for tests)
  --relay-trace             log every SMTP conversation with the relay

Every request is logged on standard error: method, path, status, bytes, user;
a failure the client gets a short reason for is logged there in full, and so is
every attempt to relay a message and its outcome.
Listening on an address other than the loopback without TLS, it warns that
passwords and mail would cross the network in clear.
SIGINT or SIGTERM stops the service.
)";
}

}  // namespace webmail
