// The gateway's command line: mode, the start-up texts of the port boxes, the service address and the
// listen address.
#pragma once

#include <optional>
#include <string>

#include "platform/http/HttpRequest.h"

class QCoreApplication;

namespace app {

struct GatewayOptions {
    // No window, no tray icon; the log goes to standard output.
    bool headless = false;
    // What start-up writes into the port boxes; passed on unvalidated, as if typed.
    std::string pop3Port = "110";
    std::string smtpPort = "25";
    // Replaces the service client's built-in entry address when given.
    std::optional<std::string> serviceUrl;
    // A PEM file of CA certificates trusted for an https service instead of the system's store.
    std::optional<std::string> serviceCa;
    // The address both servers listen on.
    std::string listenAddress = "127.0.0.1";
    // Time-outs and the reply size limit of every service request: --max-reply-size sets the size; the
    // time-outs keep their defaults except under the test-only TARNWICK_TEST_HTTP_TIMEOUT variable.
    platform::HttpLimits httpLimits;

    // Parses the application's arguments; --help and --version print and exit 0, a bad option exits 2.
    static GatewayOptions Parse(const QCoreApplication& application);
    // Whether the arguments ask for a mode that must run without a display (headless, help, version);
    // read before the application object exists, since that choice decides which one to create.
    static bool NeedsNoDisplay(int argc, char** argv);
};

}  // namespace app
