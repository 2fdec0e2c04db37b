#include "hotkeybackend.h"
#include "shortcuts.h"

#include <QAbstractNativeEventFilter>
#include <QByteArray>
#include <QCoreApplication>
#include <QGuiApplication>
#include <QHash>
#include <QList>
#include <QSet>

// Xlib's macros (None, Bool, KeyPress…) stay inside this file.
#include <X11/Xlib.h>
#include <X11/keysym.h>
#include <xcb/xcb.h>

namespace {

// The only modifiers ever registered: Control and Alt, which X11 maps to Mod1.
constexpr unsigned shortcutModifiers = ControlMask | Mod1Mask;
// The eight core modifier bits; the rest of an event's state is pointer buttons and the keyboard group.
constexpr unsigned coreModifiers = 0xFF;

// Xlib reports a refused grab (another client already holds the combination) as an error, later and to a
// process-wide handler. grabKey() swaps this one in around a round trip to see it.
bool grabFailed = false;
int noteGrabError(Display*, XErrorEvent*) {
    grabFailed = true;
    return 0;
}

// The modifier bit that NumLock sets. Servers differ (Mod2 is only the usual choice), so it is read from
// the modifier mapping; 0 when the keyboard has no NumLock.
unsigned numLockMask(Display* display) {
    const KeyCode numLock = XKeysymToKeycode(display, XK_Num_Lock);
    XModifierKeymap* map = XGetModifierMapping(display);
    unsigned mask = 0;
    for (int modifier = 0; map && numLock != 0 && modifier < 8; ++modifier) {
        for (int i = 0; i < map->max_keypermod; ++i) {
            if (map->modifiermap[modifier * map->max_keypermod + i] == numLock) {
                mask = 1u << modifier;
            }
        }
    }
    if (map) {
        XFreeModifiermap(map);
    }
    return mask;
}

class X11HotKeyBackend final : public HotKeyBackend, public QAbstractNativeEventFilter {
public:
    explicit X11HotKeyBackend(Display* display)
        : display_(display), root_(DefaultRootWindow(display)), numLock_(numLockMask(display)) {
        // A grab is exact about modifiers, so each combination is grabbed once more for every state of
        // the locking modifiers; otherwise NumLock or CapsLock being on would silence the shortcuts.
        for (const unsigned locks : {0u, unsigned(LockMask), numLock_, numLock_ | LockMask}) {
            if (!lockVariants_.contains(locks)) {
                lockVariants_.append(locks);
            }
        }
        setAvailable(true);
        QCoreApplication::instance()->installNativeEventFilter(this);
    }

    void grab(quint32 id, const Shortcuts::Shortcut& shortcut) override {
        for (const auto& name : shortcut.keysyms) {
            const KeySym keysym = XStringToKeysym(name.toLatin1().constData());
            const KeyCode keycode = keysym == NoSymbol ? 0 : XKeysymToKeycode(display_, keysym);
            if (keycode != 0 && !ids_.contains(keycode) && grabKey(keycode)) {
                ids_.insert(keycode, id);
            }
        }
    }

    bool nativeEventFilter(const QByteArray& eventType, void* message, qintptr*) override {
        if (eventType != "xcb_generic_event_t") {
            return false;
        }
        const auto type = static_cast<const xcb_generic_event_t*>(message)->response_type & ~0x80;
        if (type != XCB_KEY_PRESS && type != XCB_KEY_RELEASE) {
            return false;
        }
        // Presses of our grabs are reported on the root window, whichever window has the focus.
        const auto* key = static_cast<const xcb_key_press_event_t*>(message);
        const auto id = ids_.constFind(key->detail);
        if (key->event != root_ || id == ids_.cend()) {
            return false;
        }
        // The grab lasts until the key goes up, so its release comes here too, whatever the user let go
        // of first.
        if (type == XCB_KEY_RELEASE) {
            held_.remove(key->detail);
            releasedAt_.insert(key->detail, key->time);
            return true;
        }
        if ((key->state & coreModifiers & ~(numLock_ | LockMask)) != shortcutModifiers) {
            return false;
        }
        // A held key repeats: as further presses, or, unless the connection asked for detectable
        // autorepeat, as a release and a press with the same time. The actions are toggles, so only the
        // first press of a hold counts.
        const auto released = releasedAt_.constFind(key->detail);
        const bool repeat =
            held_.contains(key->detail) || (released != releasedAt_.cend() && *released == key->time);
        held_.insert(key->detail);
        if (!repeat) {
            emit pressed(*id);
        }
        return true;
    }

private:
    bool grabKey(KeyCode keycode) {
        // Errors of earlier requests must not count against this grab.
        XSync(display_, False);
        grabFailed = false;
        const auto previous = XSetErrorHandler(noteGrabError);
        for (const unsigned locks : lockVariants_) {
            XGrabKey(display_, keycode, shortcutModifiers | locks, root_, False, GrabModeAsync,
                     GrabModeAsync);
        }
        XSync(display_, False);
        XSetErrorHandler(previous);
        if (grabFailed) {
            // Keep nothing of a half-granted combination: the shortcut is inert, not working only with
            // NumLock on. Ungrabbing releases our own grabs only, never the other client's.
            for (const unsigned locks : lockVariants_) {
                XUngrabKey(display_, keycode, shortcutModifiers | locks, root_);
            }
            XFlush(display_);
        }
        return !grabFailed;
    }

    Display* display_;
    Window root_;
    unsigned numLock_;
    QList<unsigned> lockVariants_;
    QHash<KeyCode, quint32> ids_;
    QSet<KeyCode> held_;
    QHash<KeyCode, xcb_timestamp_t> releasedAt_;
};

}  // namespace

std::unique_ptr<HotKeyBackend> makeX11HotKeyBackend() {
    const auto* x11 = qGuiApp ? qGuiApp->nativeInterface<QNativeInterface::QX11Application>() : nullptr;
    // The offscreen platform offers the interface too, without a display behind it.
    Display* display = x11 ? x11->display() : nullptr;
    if (!display) {
        return nullptr;
    }
    return std::make_unique<X11HotKeyBackend>(display);
}
