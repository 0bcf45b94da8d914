// SPDX-License-Identifier: MIT
#pragma once

#include <functional>
#include <glib.h>
#include <optional>
#include <string>

#include "sim/air/Bytes.h"

namespace vexasim::air
{

/// The transport to the host's kernel: a file on which each read and each write is one HCI packet. It is read
/// on the GLib main context that is the thread's default at construction; one thread.
class VhciTransport
{
public:
    using Receive = std::function<void(const Bytes&)>;
    /// The kernel's end is closed; nothing more arrives.
    using Closed = std::function<void(const std::string& why)>;

    /// Opens the kernel's virtual controller, usually "/dev/vhci". Throws std::runtime_error that says what
    /// is missing and what to do.
    static int open(const std::string& path);

    /// Owns `file`.
    VhciTransport(int file, Receive receive, Closed closed);
    VhciTransport(const VhciTransport&) = delete;
    VhciTransport& operator=(const VhciTransport&) = delete;
    ~VhciTransport();

    /// Asks the kernel to create the controller.
    void createController();

    /// The number in hciN, once the kernel has assigned it.
    std::optional<unsigned> index() const { return mIndex; }

    /// Passes a packet to the kernel. It is dropped if the kernel has taken the controller down; any other
    /// error ends the transport.
    void send(const Bytes& packet);

    /// Only for the GLib source.
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
