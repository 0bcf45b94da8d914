// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <functional>
#include <gio/gio.h>
#include <string>
#include <vector>

#include "Bluez.h"
#include "tests/kit/LogRecorder.h"

/**
 * Stands between the code under test and GIO: notes the arguments of the calls that don't show on the bus
 * (flags, timeouts, cancellables), and can answer a call with what no bus would ever deliver. The linker
 * leads the calls of the test program and its static libraries to it (--wrap); those within GIO stay as they
 * are.
 */
class GioSpy
{
public:
    struct Call {
        std::string function;   ///< "g_dbus_proxy_call_sync"
        std::string path;       ///< the object
        std::string interface;  ///< of a proxy, or as given
        std::string method;     ///< empty where the function has none
        std::string parameters; ///< as GVariant text, "null" for none
        int flags = 0;
        int timeoutMs = 0;
        bool cancellable = false; ///< whether one was given
        bool error = false;       ///< whether a place for the error was given
    };
    /// Takes the place of a synchronous method call: a reply of any type, or null.
    using Stand = std::function<GVariant*(GError**)>;

    /// From here on calls to org.bluez are noted; a spy at a time.
    GioSpy();
    ~GioSpy();
    GioSpy(const GioSpy&) = delete;
    GioSpy& operator=(const GioSpy&) = delete;

    /// In the order in which they were made.
    std::vector<Call> calls() const;
    /// The types of what this program's own code has given a reference back to, in that order.
    kit::Lines releases() const;
    /// Whether it has given a reference to this object back.
    bool hasReleased(gconstpointer object) const;
    /// Answers every synchronous call of this method on a proxy without going to the bus.
    void answer(const std::string& method, Stand stand);
    /// Runs on the calling thread at the beginning of each call through a proxy, of each access to its cache
    /// and of the making of each new one.
    void onCall(std::function<void(const Call&)> hook);
    /// From here on no proxy can be made.
    void failNewProxies();
    /// Calls with the library's default timeout get this one, so that nobody has to wait for 25 s.
    void setDefaultTimeout(std::chrono::milliseconds timeout);
};
