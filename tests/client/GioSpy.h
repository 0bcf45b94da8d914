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
 * Intercepts calls from the code under test to GIO: records the arguments that aren't visible on the bus
 * (flags, timeouts, cancellables), and can answer a call with a reply that no bus would ever deliver. The
 * linker redirects the calls of the test program and its static libraries to it (--wrap), but not those
 * within GIO.
 */
class GioSpy
{
public:
    struct Call {
        std::string function;   ///< "g_dbus_proxy_call_sync"
        std::string path;       ///< the object
        std::string interface;  ///< the proxy's, or as passed
        std::string method;     ///< empty if the function has none
        std::string parameters; ///< as GVariant text, "null" for none
        int flags = 0;
        int timeoutMs = 0;
        bool cancellable = false; ///< whether one was passed
        bool error = false;       ///< whether an error pointer was passed
    };
    /// Replaces a synchronous method call: returns a reply of any type, or null.
    using Stand = std::function<GVariant*(GError**)>;

    /// Records calls to org.bluez from now on; only one spy may exist at a time.
    GioSpy();
    ~GioSpy();
    GioSpy(const GioSpy&) = delete;
    GioSpy& operator=(const GioSpy&) = delete;

    /// The recorded calls, in order.
    std::vector<Call> calls() const;
    /// The types of the objects to which this program's own code has dropped a reference, in that order.
    kit::Lines releases() const;
    /// Whether it has dropped a reference to this object.
    bool hasReleased(gconstpointer object) const;
    /// Answers every synchronous call of this method on a proxy without going to the bus.
    void answer(const std::string& method, Stand stand);
    /// Runs `hook` on the calling thread at the start of each call through a proxy, each access to its cache
    /// and each creation of a proxy.
    void onCall(std::function<void(const Call&)> hook);
    /// From now on no proxy can be created.
    void failNewProxies();
    /// Gives calls with the library's default timeout this one instead, so that no test has to wait for 25 s.
    void setDefaultTimeout(std::chrono::milliseconds timeout);
};
