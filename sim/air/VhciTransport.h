// SPDX-License-Identifier: MIT
#pragma once

#include <functional>
#include <glib.h>
#include <optional>
#include <string>

#include "sim/air/Bytes.h"

namespace vexasim::air
{

/// The way to the host's kernel: a file on which each read and each write is one HCI packet. Read on the GLib
/// main context that was the thread's default when it was made; one thread.
class VhciTransport
{
public:
    using Receive = std::function<void(const Bytes&)>;
    /// The kernel's end is gone; nothing more comes.
    using Closed = std::function<void(const std::string& why)>;

    /// Opens the kernel's virtual controller, usually "/dev/vhci". Throws std::runtime_error that says what
    /// is missing and what to do.
    static int open(const std::string& path);

    /// Owns `file`.
    VhciTransport(int file, Receive receive, Closed closed);
    VhciTransport(const VhciTransport&) = delete;
    VhciTransport& operator=(const VhciTransport&) = delete;
    ~VhciTransport();

    /// Asks the kernel to put up the controller.
    void createController();

    /// The number in hciN, once the kernel has told it.
    std::optional<unsigned> index() const { return mIndex; }

    /// Hands a packet to the kernel. One that comes as the kernel has taken the controller down is dropped;
    /// anything else that it refuses ends the transport.
    void send(const Bytes& packet);

    /// For the GLib source alone.
    void readPackets();

private:
    void close(const std::string& why);

    const int mFile;
    const Receive mReceive;
    const Closed mClosed;
    std::optional<unsigned> mIndex;
    GSource* mSource;
};

} // namespace vexasim::air
