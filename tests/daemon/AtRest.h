// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "tests/kit/Box.h"
#include "tests/kit/Objects.h"

namespace kit
{

// The simulated remote, and another device.
inline const std::string kRemoteAddress = "C0:FF:EE:00:00:01";
inline const std::string kRemote = "/org/bluez/hci0/dev_C0_FF_EE_00_00_01";
inline const std::string kOtherAddress = "C0:FF:EE:00:00:0A";
inline const std::string kOther = "/org/bluez/hci0/dev_C0_FF_EE_00_00_0A";
inline const std::string kDeviceInterface = "org.bluez.Device1";
// Their calls, as Box::busCalls() shows them.
inline const std::string kConnect = "hci0/dev_C0_FF_EE_00_00_01 Device1.Connect ()";

/// BlueZ reports the remote as paired but never signals the change, so the daemon waits for the signal.
inline void claimPaired(Box& box)
{
    using vexasim::Bend;
    box.sim().bend(Bend::answer("Get", g_variant_new("(v)", g_variant_new_boolean(TRUE))).property("Paired"));
    box.sim().bend(Bend::silence("Pair"));
}

/// A box whose daemon makes a pass only when the case asks for one. The case starts it with one of InABox's
/// methods.
class AtRest : public InABox
{
protected:
    using InABox::InABox;

    /// Lets the daemon handle everything that BlueZ has reported, then make a pass.
    void settle(std::chrono::microseconds step = std::chrono::milliseconds{500})
    {
        ASSERT_TRUE(box.awaitEvents());
        ASSERT_TRUE(box.pass(step));
    }

    /// Has a characteristic with nothing behind it answer reads with `value`.
    void answerReads(const std::string& path, std::uint8_t value)
    {
        const vexasim::Variant bytes = vexasim::Variant::bytes({value});
        box.sim().bend(vexasim::Bend::answer("ReadValue", g_variant_new("(@ay)", bytes.get())).on(path));
    }

    /// Adds a device other than the remote; on return BlueZ and the daemon know it.
    void announceOther(const std::string& name, bool paired = false, bool connected = false)
    {
        box.sim().addObject(kOther, deviceObject(name, kOtherAddress, paired, connected));
        ASSERT_LOG(box, DEBUG, "main", "Device: + " + kOther);
        ASSERT_TRUE(box.awaitEvents());
    }

    /// Ends the remote's link; on return the daemon has noticed.
    void loseLink()
    {
        box.remote().loseLink();
        ASSERT_LOG(box, DEBUG, "main", "VEXA RC connection status changed: disconnected");
        ASSERT_TRUE(box.awaitEvents());
    }
};

} // namespace kit
