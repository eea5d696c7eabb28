// What the application controller needs of its window: the port boxes, the log box, the controls' state,
// the placement and the notification-area icon, the About box and messages. The widget window and the
// headless mode each provide one.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "core/ITextPieces.h"

namespace app {

class IMainView {
public:
    virtual ~IMainView() = default;

    // The texts of the port boxes txtListenPortPOP3 and txtListenPortSMTP, exactly as typed.
    virtual std::string ListenPortPOP3Text() const = 0;
    virtual void SetListenPortPOP3Text(const std::string& text) = 0;
    virtual std::string ListenPortSMTPText() const = 0;
    virtual void SetListenPortSMTPText(const std::string& text) = 0;

    // Appends `entry` (one or more messages, each with its CR LF) at the end of the log box txtData and shows
    // the newest line; the text already there is left alone.
    virtual void AppendLog(const std::string& entry) = 0;
    // Appends the text the parts make up in order (one or more whole entries), as AppendLog of that text does.
    virtual void AppendLogParts(std::span<const std::string_view> parts) {
        std::string text;
        for (std::string_view part : parts) text.append(part);
        AppendLog(text);
    }
    // Appends the entry `head` + the text `text` reads + CR LF. By default the text is read whole first; a
    // view that keeps nothing (headless) writes it a piece at a time.
    virtual void AppendLogPieces(std::string_view head, core::ITextPieces& text) {
        AppendLog(std::string(head).append(core::ReadAllPieces(text)).append("\r\n"));
    }
    // Whether the entries written while the event loop is busy should come in one append at its next turn
    // (a window, which lays out and repaints for every append) rather than each at once.
    virtual bool BatchesLog() const { return false; }
    // Empties the log box.
    virtual void ClearLog() = 0;

    // The four steps of switching between the stopped (true) and the running (false) state, in the order
    // they run: the port boxes, the Stop and Start buttons, the status panel's text, the Stop and Start items.
    virtual void ToggleInputs(bool stopped) = 0;
    virtual void ToggleButtons(bool stopped) = 0;
    virtual void ToggleStatusBar(bool stopped) = 0;
    virtual void ToggleMenus(bool stopped) = 0;

    // Puts the window's bottom-right corner on the work area's bottom-right corner.
    virtual void PlaceAtWorkAreaCorner() = 0;
    // Adds the notification-area icon (start-up) and removes it (unload).
    virtual void AddTrayIcon() = 0;
    virtual void RemoveTrayIcon() = 0;
    // Leaves the window out of the task list while it can be reached through the notification area.
    virtual void HideFromTaskList() = 0;
    // Shows the modal About box with `applicationName` and `applicationVersion`; returns when it is closed.
    virtual void ShowAbout(const std::string& applicationName, const std::string& applicationVersion) = 0;

    // Shows a message with an OK button and returns when it is closed.
    virtual void ShowMessage(const std::string& text) = 0;
    // Shows the message that precedes the end of the program.
    virtual void ShowFatalMessage(const std::string& text) = 0;
};

}  // namespace app
