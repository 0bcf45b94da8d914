// SPDX-License-Identifier: MIT
#include "sim/air/VhciTransport.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <glib-unix.h>
#include <stdexcept>
#include <unistd.h>

#include "sim/air/Hci.h"

namespace vexasim::air
{

namespace
{

// The largest packet is a data packet: its type, its header and a full buffer.
constexpr size_t kLargestPacket = 2048;
// The vendor packet that requests a controller and announces it.
constexpr std::uint8_t kPrimaryController = 0x00;

std::string advice(int error)
{
    switch (error) {
    case ENOENT:
        return "; load the kernel's module hci_vhci (modprobe hci_vhci)";
    case ENODEV:
        return "; the kernel's module hci_vhci is missing (modprobe hci_vhci)";
    case EACCES:
    case EPERM:
        return "; run it as root";
    default:
        return "";
    }
}

gboolean onReadable(gint, GIOCondition, gpointer transport)
{
    static_cast<VhciTransport*>(transport)->readPackets();
    return G_SOURCE_CONTINUE;
}

} // namespace

int VhciTransport::open(const std::string& path)
{
    const int file = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (file < 0) {
        const int error = errno;
        throw std::runtime_error("can't open " + path + ": " + std::strerror(error) + advice(error));
    }
    return file;
}

VhciTransport::VhciTransport(int file, Receive receive, Closed closed)
    : mFile(file),
      mReceive(std::move(receive)),
      mClosed(std::move(closed)),
      mSource(g_unix_fd_source_new(file, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR)))
{
    g_source_set_callback(mSource, G_SOURCE_FUNC(onReadable), this, nullptr);
    g_source_attach(mSource, g_main_context_get_thread_default());
}

VhciTransport::~VhciTransport()
{
    g_source_destroy(mSource);
    g_source_unref(mSource);
    ::close(mFile);
}

void VhciTransport::createController()
{
    send(encode(hci::PacketType::Vendor, kPrimaryController));
}

void VhciTransport::send(const Bytes& packet)
{
    ssize_t written = 0;
    do {
        written = ::write(mFile, packet.data(), packet.size());
    } while (written < 0 && errno == EINTR);
    // The kernel has taken the controller down; what a real one then sends is lost too.
    if (written < 0 && errno == ENXIO) {
        return;
    }
    if (written != static_cast<ssize_t>(packet.size())) {
        close(std::string("can't hand a packet to the kernel: ") +
              (written < 0 ? std::strerror(errno) : "cut short"));
    }
}

void VhciTransport::readPackets()
{
    std::array<std::uint8_t, kLargestPacket> buffer{};
    while (g_source_is_destroyed(mSource) == FALSE) {
        const ssize_t size = ::read(mFile, buffer.data(), buffer.size());
        if (size < 0 && errno == EINTR) {
            continue;
        }
        if (size < 0 && errno == EAGAIN) {
            return;
        }
        if (size <= 0) {
            return close(std::string("the kernel closed the controller: ") +
                         (size < 0 ? std::strerror(errno) : "end of file"));
        }
        const Bytes packet(buffer.begin(), buffer.begin() + size);
        const auto announcement = decodeFields<hci::PacketType, std::uint8_t, std::uint16_t>(packet);
        if (announcement && std::get<0>(*announcement) == hci::PacketType::Vendor) {
            mIndex = std::get<2>(*announcement);
        } else {
            mReceive(packet);
        }
    }
}

void VhciTransport::close(const std::string& why)
{
    if (g_source_is_destroyed(mSource) != FALSE) {
        return;
    }
    g_source_destroy(mSource);
    mClosed(why);
}

} // namespace vexasim::air
