#include "app/TaskList.h"

#include <QtGui/qguiapplication_platform.h>
#include <QGuiApplication>
#include <QWidget>

#include <xcb/xcb.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace app::TaskList {
namespace {

xcb_atom_t Atom(xcb_connection_t* connection, const char* name) {
    const xcb_intern_atom_cookie_t cookie =
        xcb_intern_atom(connection, 0, static_cast<uint16_t>(std::strlen(name)), name);
    xcb_intern_atom_reply_t* reply = xcb_intern_atom_reply(connection, cookie, nullptr);
    if (!reply) return XCB_ATOM_NONE;
    const xcb_atom_t atom = reply->atom;
    std::free(reply);
    return atom;
}

// Whether the window manager manages the window (it has set WM_STATE, Normal or Iconic); a window that is
// withdrawn, or not yet mapped, has none.
bool IsManaged(xcb_connection_t* connection, xcb_window_t window) {
    const xcb_atom_t wmState = Atom(connection, "WM_STATE");
    const xcb_get_property_cookie_t cookie = xcb_get_property(connection, 0, window, wmState, wmState, 0, 2);
    xcb_get_property_reply_t* reply = xcb_get_property_reply(connection, cookie, nullptr);
    if (!reply) return false;
    const bool managed = xcb_get_property_value_length(reply) > 0;
    std::free(reply);
    return managed;
}

// A window that is not mapped carries its own state, read by the window manager when it is mapped.
void SetOnUnmapped(xcb_connection_t* connection, xcb_window_t window, xcb_atom_t state,
                   const std::vector<xcb_atom_t>& skips, bool listed) {
    std::vector<xcb_atom_t> atoms;
    const xcb_get_property_cookie_t cookie = xcb_get_property(connection, 0, window, state, XCB_ATOM_ATOM, 0, 1024);
    if (xcb_get_property_reply_t* reply = xcb_get_property_reply(connection, cookie, nullptr)) {
        if (reply->format == 32 && reply->type == XCB_ATOM_ATOM) {
            const auto* values = static_cast<const xcb_atom_t*>(xcb_get_property_value(reply));
            atoms.assign(values, values + xcb_get_property_value_length(reply) / 4);
        }
        std::free(reply);
    }
    for (xcb_atom_t skip : skips) {
        atoms.erase(std::remove(atoms.begin(), atoms.end(), skip), atoms.end());
        if (!listed) atoms.push_back(skip);
    }
    xcb_change_property(connection, XCB_PROP_MODE_REPLACE, window, state, XCB_ATOM_ATOM, 32,
                        static_cast<uint32_t>(atoms.size()), atoms.data());
}

// A managed window's state belongs to the window manager: ask it (the EWMH client message).
void SetOnManaged(xcb_connection_t* connection, xcb_window_t window, xcb_atom_t state,
                  const std::vector<xcb_atom_t>& skips, bool listed) {
    constexpr uint32_t kRemove = 0;
    constexpr uint32_t kAdd = 1;
    constexpr uint32_t kFromApplication = 1;
    xcb_client_message_event_t event{};
    event.response_type = XCB_CLIENT_MESSAGE;
    event.format = 32;
    event.window = window;
    event.type = state;
    event.data.data32[0] = listed ? kRemove : kAdd;
    event.data.data32[1] = skips[0];
    event.data.data32[2] = skips[1];
    event.data.data32[3] = kFromApplication;
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(connection)).data->root;
    xcb_send_event(connection, 0, root, XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY,
                   reinterpret_cast<const char*>(&event));
}

}  // namespace

void SetListed(QWidget& window, bool listed) {
    // Other platforms (the offscreen one of the tests among them) have no task list to leave.
    if (QGuiApplication::platformName() != QLatin1String("xcb")) return;
    auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    xcb_connection_t* connection = x11 ? x11->connection() : nullptr;
    if (!connection) return;
    const auto id = static_cast<xcb_window_t>(window.winId());
    const xcb_atom_t state = Atom(connection, "_NET_WM_STATE");
    const std::vector<xcb_atom_t> skips = {Atom(connection, "_NET_WM_STATE_SKIP_TASKBAR"),
                                           Atom(connection, "_NET_WM_STATE_SKIP_PAGER")};
    if (IsManaged(connection, id)) {
        SetOnManaged(connection, id, state, skips, listed);
    } else {
        SetOnUnmapped(connection, id, state, skips, listed);
    }
    xcb_flush(connection);
}

}  // namespace app::TaskList
