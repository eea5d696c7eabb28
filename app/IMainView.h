// What the application controller needs of its window: the port boxes, the log box, the controls' state
// and messages. The widget window and the headless mode each provide one.
#pragma once

#include <string>

namespace app {

class IMainView {
public:
    virtual ~IMainView() = default;

    // The texts of the port boxes txtListenPortPOP3 and txtListenPortSMTP, exactly as typed.
    virtual std::string ListenPortPOP3Text() const = 0;
    virtual void SetListenPortPOP3Text(const std::string& text) = 0;
    virtual std::string ListenPortSMTPText() const = 0;
    virtual void SetListenPortSMTPText(const std::string& text) = 0;

    // Appends `entry` (a message and its CR LF) to the log box txtData and shows the newest line.
    virtual void AppendLog(const std::string& entry) = 0;
    // Empties the log box.
    virtual void ClearLog() = 0;

    // Puts the controls and the status text in the stopped (true) or running (false) state.
    virtual void Toggle(bool stopped) = 0;

    // Shows a message with an OK button and returns when it is closed.
    virtual void ShowMessage(const std::string& text) = 0;
    // Shows the message that precedes the end of the program.
    virtual void ShowFatalMessage(const std::string& text) = 0;
};

}  // namespace app
