// SPDX-License-Identifier: MIT
#pragma once

#include <memory>
#include <string>

namespace vexasim
{

/// A private dbus-daemon on a Unix socket, with a policy that lets every client do everything. It ends with
/// the process that started it. Works for root, for an ordinary user and in a user namespace.
class PrivateBus
{
public:
    /// The socket "bus" and the configuration are in `directory`, or, if that is empty, in a temporary one
    /// that the destructor removes. Throws std::runtime_error if dbus-daemon can't be started.
    explicit PrivateBus(const std::string& directory = "");
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    /// For DBUS_SYSTEM_BUS_ADDRESS; the same before and after a restart.
    std::string address() const;
    std::string socketPath() const;
    /// Ends dbus-daemon, which closes every connection. Returns when it has ended.
    void stop();
    /// Starts it again at the same address. Returns when it accepts clients.
    void start();
    bool running() const;

private:
    class Keeper;

    std::string mDirectory;
    bool mTemporary = false;
    std::unique_ptr<Keeper> mKeeper;
};

} // namespace vexasim
