// What the servers reach in the application that hosts them: the activity log, the shared credential
// store, the application's name and version, the two socket controls and one pass of the event loop.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "core/ITextPieces.h"

namespace core {

// A text shared by whoever holds it, such as a response on its way to the client and its log entry.
using SharedText = std::shared_ptr<const std::string>;

class ISocketControl;

class IGatewayHost {
public:
    virtual ~IGatewayHost() = default;

    // Appends one entry (the message, then CR LF) to the activity log; never fails.
    virtual void WriteLog(const std::string& message) = 0;
    // Appends the entry `prefix` + `text` (then CR LF), the very entry WriteLog(prefix + text) appends, without
    // joining the two: `text` lies inside `owner`, which the host may keep until the entry is shown.
    virtual void WriteLogParts(std::string_view prefix, std::string_view text, const SharedText& owner) {
        (void)owner;
        WriteLog(std::string(prefix).append(text));
    }
    // Appends the entry `prefix` + the text `text` reads (then CR LF), reading it a piece at a time where the
    // log need not keep it (a retrieved message of any size).
    virtual void WriteLogPieces(std::string_view prefix, ITextPieces& text) {
        WriteLog(std::string(prefix).append(ReadAllPieces(text)));
    }
    // Empties the activity log; never fails.
    virtual void ClearLog() = 0;

    // The credential store the POP3 server writes and the SMTP server reads.
    virtual std::string UserName() const = 0;
    virtual void SetUserName(const std::string& value) = 0;
    virtual std::string Password() const = 0;
    virtual void SetPassword(const std::string& value) = 0;

    // "Tarnwick Gateway" and "major.minor.revision".
    virtual std::string ApplicationName() const = 0;
    virtual std::string ApplicationVersion() const = 0;

    // The socket controls the POP3 and the SMTP server attach to.
    virtual ISocketControl& WinsockPOP3() = 0;
    virtual ISocketControl& WinsockSMTP() = 0;

    // Lets pending events run once.
    virtual void DoEvents() = 0;
};

}  // namespace core
