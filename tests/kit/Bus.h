// SPDX-License-Identifier: MIT
#pragma once

#include <condition_variable>
#include <functional>
#include <gio/gio.h>
#include <mutex>
#include <string>
#include <vector>

#include "sim/bluez/Variant.h"
#include "tests/kit/Limits.h"

namespace kit
{

// A test's own connections to a bus. The only code they share with the simulator is the owner of a GVariant.

/// The result of a call: either the reply or the error.
struct Answer {
    vexasim::Variant reply;
    std::string error; ///< name of the D-Bus error, "" for a reply
    std::string message;
};

/// As GVariant text, without types.
std::string textOf(const vexasim::Variant& value);

/// A connection of its own to a bus, for calls by name.
class BusConnection
{
public:
    /// Throws std::runtime_error if there is no bus.
    explicit BusConnection(const std::string& address);
    ~BusConnection() { leave(); }
    BusConnection(const BusConnection&) = delete;
    BusConnection& operator=(const BusConnection&) = delete;

    /// Leaves the bus. No filter runs from then on.
    void leave();
    std::string uniqueName() const { return g_dbus_connection_get_unique_name(mConnection); }

    /// `method` is interface and member, "org.bluez.Adapter1.StartDiscovery".
    Answer call(const std::string& path, const std::string& method, const vexasim::Variant& parameters = {},
                std::chrono::milliseconds limit = kPatience) const
    {
        return callOn("org.bluez", path, method, parameters, limit);
    }
    Answer callOn(const std::string& name, const std::string& path, const std::string& method,
                  const vexasim::Variant& parameters = {}, std::chrono::milliseconds limit = kPatience) const;

protected:
    /// Gets each incoming message, on GDBus's thread; returns whether GDBus should also process it.
    using Filter = std::function<bool(GDBusMessage*)>;
    void setFilter(const Filter& filter);

private:
    GDBusConnection* mConnection = nullptr;
    unsigned mFilter = 0;
    std::mutex mFiltering; ///< held by the filter: the thread sanitizer doesn't see GDBus's own locks
};

/// A plain client of org.bluez, which also records its signals in the order of arrival.
class BusClient : public BusConnection
{
public:
    struct Signal {
        std::string path;
        std::string member;
        std::string text; ///< the parameters as GVariant text, without types
        vexasim::Variant parameters;
    };

    explicit BusClient(const std::string& address);
    ~BusClient() { leave(); }
    BusClient(const BusClient&) = delete;
    BusClient& operator=(const BusClient&) = delete;

    /// The value of a property as text, or the error's name in brackets.
    std::string get(const std::string& path, const std::string& interface, const std::string& property);
    Answer set(const std::string& path, const std::string& interface, const std::string& property,
               GVariant* value);

    /// The signals of org.bluez so far.
    std::vector<Signal> signals() const;
    void clearSignals();
    /// Waits for a signal whose path, member and parameter text contain the words.
    bool await(const std::string& path, const std::string& member, const std::string& words);
    /// One line "member path-or-object words" for each signal, for comparing their order.
    std::vector<std::string> story() const;

private:
    void note(GDBusMessage* message);

    mutable std::mutex mMutex;
    std::condition_variable mArrived;
    std::vector<Signal> mSignals;
};

/// Sees every message on a bus, as dbus-monitor does.
class BusMonitor : private BusConnection
{
public:
    explicit BusMonitor(const std::string& address);
    ~BusMonitor() { leave(); }
    BusMonitor(const BusMonitor&) = delete;
    BusMonitor& operator=(const BusMonitor&) = delete;

    /// One line for each message sent so far by `sender`, a unique name.
    std::vector<std::string> messagesOf(const std::string& sender) const;
    /// Messages of any sender.
    std::size_t count() const;

private:
    struct Seen {
        std::string sender;
        std::string text;
    };

    void note(GDBusMessage* message);

    mutable std::mutex mMutex;
    std::vector<Seen> mSeen;
};

} // namespace kit
