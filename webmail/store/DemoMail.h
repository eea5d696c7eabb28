// The demo account: "demo" with password "demo" and a handful of varied sample messages.
#pragma once

#include <string>
#include <vector>

#include "webmail/store/MaildirStore.h"

namespace webmail::store {

class DemoMail {
public:
    static constexpr const char* kName = "demo";
    static constexpr const char* kPassword = "demo";

    // One sample message and whether it starts out read.
    struct Sample {
        std::string text;
        bool read = false;
    };

    // The sample messages, oldest first: plain text, UTF-8 and Latin-1 8-bit text, a MIME attachment,
    // lines that begin with a dot, and one message already read.
    static std::vector<Sample> Samples(const std::string& domain);

    // Creates the demo account with its samples when the store has no account "demo"; returns whether
    // it did. An existing demo account is left as it is.
    static bool Ensure(MaildirStore& store, const std::string& domain);
};

}  // namespace webmail::store
