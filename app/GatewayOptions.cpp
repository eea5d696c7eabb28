#include "app/GatewayOptions.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFileInfo>
#include <QHostAddress>

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace app {
namespace {

constexpr int kUsageError = 2;

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
    parser.addOptions({headless, pop3Port, smtpPort, serviceUrl, serviceCa, listenAddress});
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
