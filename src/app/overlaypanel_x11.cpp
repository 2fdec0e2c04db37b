#include "overlaypanel.h"

#include <QGuiApplication>

#include <xcb/xcb.h>

#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

xcb_connection_t* connection() {
    // Null on other platforms, and under the offscreen platform, which has the interface but no server.
    auto* x11 = qGuiApp ? qGuiApp->nativeInterface<QNativeInterface::QX11Application>() : nullptr;
    return x11 ? x11->connection() : nullptr;
}

template <typename T>
using Reply = std::unique_ptr<T, decltype(&std::free)>;

xcb_atom_t atom(xcb_connection_t* c, const char* name) {
    const Reply<xcb_intern_atom_reply_t> reply(
        xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, static_cast<uint16_t>(std::strlen(name)), name),
                              nullptr),
        &std::free);
    return reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
}

}  // namespace

void OverlayPanel::applyWindowHints() {
    xcb_connection_t* c = connection();
    if (!c) {
        return;
    }
    const auto window = static_cast<xcb_window_t>(winId());
    // Set while the window is unmapped, where a client may write them itself; the window manager drops
    // them when the window is withdrawn, so this runs before every show. Qt adds "above" on mapping,
    // merging with what is already there.
    const xcb_atom_t states[] = {atom(c, "_NET_WM_STATE_STICKY"), atom(c, "_NET_WM_STATE_SKIP_TASKBAR"),
                                 atom(c, "_NET_WM_STATE_SKIP_PAGER")};
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, atom(c, "_NET_WM_STATE"), XCB_ATOM_ATOM, 32,
                        std::size(states), states);
    const uint32_t everyDesktop = 0xFFFFFFFF;
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, atom(c, "_NET_WM_DESKTOP"), XCB_ATOM_CARDINAL, 32,
                        1, &everyDesktop);
    xcb_flush(c);
}

bool OverlayPanel::hasCompositor() {
    xcb_connection_t* c = connection();
    if (!c) {
        // Other platforms compose every window.
        return true;
    }
    // A compositing manager owns this selection for the screen it composes; desktops run one X screen.
    const Reply<xcb_get_selection_owner_reply_t> owner(
        xcb_get_selection_owner_reply(c, xcb_get_selection_owner(c, atom(c, "_NET_WM_CM_S0")), nullptr),
        &std::free);
    return owner && owner->owner != XCB_NONE;
}

// X11 and the Wayland compositors give every client that may capture the screen all of its pixels, and
// offer a window no way to keep itself out of screenshots, recordings or screen casts. The panel says so
// (the settings window words it for the user); a port to a platform that has such a flag sets it here.
bool OverlayPanel::excludeFromCapture(QWidget&) {
    return false;
}
