#include "app/GatewayOptions.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFileInfo>
#include <QHostAddress>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string_view>

namespace app {
namespace {

constexpr int kUsageError = 2;
// Test suites only: seconds for both the connect and the idle time-out of service requests, so that a test of
// a stalled service does not wait the full defaults. Not a user setting.
constexpr const char* kTestTimeoutVariable = "TARNWICK_TEST_HTTP_TIMEOUT";

// A whole number from `low` up, ASCII digits only; nullopt for anything else or a value beyond 2^62.
std::optional<std::uint64_t> WholeNumber(std::string_view text, std::uint64_t low) {
    if (text.empty() || text.size() > 18) return std::nullopt;
    std::uint64_t value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + static_cast<std::uint64_t>(c - '0');
    }
    if (value < low) return std::nullopt;
    return value;
}

[[noreturn]] void FailUsage(QCommandLineParser& parser, const QString& message) {
    std::fprintf(stderr, "tarnwick-gateway: %s\n\n%s", qPrintable(message), qPrintable(parser.helpText()));
    std::exit(kUsageError);
}

}  // namespace

GatewayOptions GatewayOptions::Parse(const QCoreApplication& application) {
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Tarnwick Gateway: local POP3 and SMTP servers that carry out every command of a mail reader against "
        "a web mail service's WebDAV interface over HTTP.\n"
        "Point the mail reader's incoming server at the POP3 port and its outgoing server at the SMTP port of "
        "the listen address; give the service account's name and password to the POP3 server.");
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption headless("headless",
                                      "Run without a window or tray icon; write the log to standard "
                                      "output and error messages to standard error.");
    const QCommandLineOption pop3Port("pop3-port", "Port text the POP3 port box starts with (default 110).", "TEXT");
    const QCommandLineOption smtpPort("smtp-port", "Port text the SMTP port box starts with (default 25).", "TEXT");
    const QCommandLineOption serviceUrl(
        "service-url",
        "Entry address of the web mail service (default http://127.0.0.1:8110/svcs/hotmail/tarnwick.asp).", "URL");
    const QCommandLineOption listenAddress("listen-address", "Address both servers listen on (default 127.0.0.1).",
                                           "ADDR");
    const QCommandLineOption serviceCa(
        "service-ca",
        "PEM file of the CA certificates to trust for an https service address instead of the system's "
        "(default: the system's CA store). The certificate and its host name are always verified.",
        "FILE");
    const QCommandLineOption maxReplySize(
        "max-reply-size",
        "Largest reply body, in bytes, the gateway accepts from the service (default 1073741824, 1 GiB); a larger "
        "reply ends the request with an error and nothing of it is kept.",
        "BYTES");
    parser.addOptions({headless, pop3Port, smtpPort, serviceUrl, serviceCa, listenAddress, maxReplySize});
    if (!parser.parse(application.arguments())) FailUsage(parser, parser.errorText());
    if (parser.isSet("help")) parser.showHelp(0);
    if (parser.isSet("version")) parser.showVersion();
    if (!parser.positionalArguments().isEmpty()) {
        FailUsage(parser, "unexpected argument " + parser.positionalArguments().first());
    }

    GatewayOptions options;
    options.headless = parser.isSet(headless);
    if (parser.isSet(pop3Port)) options.pop3Port = parser.value(pop3Port).toStdString();
    if (parser.isSet(smtpPort)) options.smtpPort = parser.value(smtpPort).toStdString();
    if (parser.isSet(serviceUrl)) options.serviceUrl = parser.value(serviceUrl).toStdString();
    if (parser.isSet(serviceCa)) {
        const QString file = parser.value(serviceCa);
        if (!QFileInfo(file).isFile() || !QFileInfo(file).isReadable()) {
            FailUsage(parser, "--service-ca: cannot read " + file);
        }
        options.serviceCa = QFileInfo(file).absoluteFilePath().toStdString();
    }
    if (parser.isSet(listenAddress)) {
        if (QHostAddress(parser.value(listenAddress)).isNull()) {
            FailUsage(parser, "not an IP address: " + parser.value(listenAddress));
        }
        options.listenAddress = parser.value(listenAddress).toStdString();
    }
    if (parser.isSet(maxReplySize)) {
        const auto bytes = WholeNumber(parser.value(maxReplySize).toStdString(), 1);
        if (!bytes) FailUsage(parser, "not a positive whole number of bytes: " + parser.value(maxReplySize));
        options.httpLimits.maxReplyBytes = *bytes;
    }
    if (const char* test = std::getenv(kTestTimeoutVariable); test != nullptr && *test != '\0') {
        const auto seconds = WholeNumber(test, 1);
        if (!seconds || *seconds > 3600) {
            FailUsage(parser, QString::fromLatin1(kTestTimeoutVariable) + " is not a number of seconds from 1 to 3600");
        }
        options.httpLimits.connectSeconds = static_cast<long>(*seconds);
        options.httpLimits.idleSeconds = static_cast<long>(*seconds);
    }
    return options;
}

bool GatewayOptions::NeedsNoDisplay(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg(argv[i]);
        if (arg == "--headless" || arg == "--help" || arg == "-h" || arg == "--version" || arg == "-v") return true;
    }
    return false;
}

}  // namespace app
