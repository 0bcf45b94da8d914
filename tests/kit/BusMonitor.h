// SPDX-License-Identifier: MIT
#pragma once

#include <gio/gio.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

namespace vexabox
{

/// Sees every message on a bus, as dbus-monitor does.
class BusMonitor
{
public:
    explicit BusMonitor(const std::string& address);
    ~BusMonitor();
    BusMonitor(const BusMonitor&) = delete;
    BusMonitor& operator=(const BusMonitor&) = delete;

    /// One line for each message that `sender`, a unique name, has sent so far.
    std::vector<std::string> messagesOf(const std::string& sender) const;
    /// Of any sender.
    std::size_t count() const;

private:
    static GDBusMessage* filter(GDBusConnection* connection, GDBusMessage* message, gboolean incoming,
                                gpointer self);

    struct Seen {
        std::string sender;
        std::string text;
    };

    GDBusConnection* mConnection = nullptr;
    unsigned mFilter = 0;
    mutable std::mutex mMutex;
    std::vector<Seen> mSeen;
};

} // namespace vexabox
