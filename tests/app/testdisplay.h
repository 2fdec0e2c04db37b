#pragma once

#include <QByteArray>

// The display of scripts/with-test-services.sh, set before the test's application object connects to one.
[[maybe_unused]] static const bool onTestDisplay = [] {
    const QByteArray display = qgetenv("TALLOWIND_TEST_DISPLAY");
    if (!display.isEmpty()) {
        qputenv("DISPLAY", display);
        qputenv("QT_QPA_PLATFORM", "xcb");
    }
    return !display.isEmpty();
}();
