// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "sim/bluez/Variant.h"

namespace vexasim
{

struct Call;

/// Changes how BlueZ answers a method. If several bends match a call, the newest applies. Make one by its
/// named functions:
///
///     sim.bend(Bend::error("Pair", "org.bluez.Error.AuthenticationFailed").on(path).times(2));
///     sim.bend(Bend::answer("ReadValue", g_variant_new("(s)", "no bytes")).on(characteristic));
///     sim.bend(Bend::silence("Get").property("Paired"));
struct Bend {
    enum class Kind {
        Error,    ///< an error reply, nothing is carried out
        Answer,   ///< a reply with given parameters, nothing is carried out
        Silence,  ///< no reply ever, nothing is carried out
        Late,     ///< the whole call is handled later
        LateReply ///< carried out at once, but the reply comes later
    };

    static Bend error(const std::string& member, const std::string& name,
                      const std::string& message = "bent");
    /// `parameters` is a tuple of any type, not necessarily the method's.
    static Bend answer(const std::string& member, Variant parameters);
    static Bend silence(const std::string& member);
    static Bend late(const std::string& member, std::chrono::milliseconds delay);
    static Bend lateReply(const std::string& member, std::chrono::milliseconds delay);

    Bend& on(const std::string& path) { return with(&Bend::objectPath, path); } ///< only calls on this object
    Bend& of(const std::string& name) { return with(&Bend::interfaceName, name); } ///< only of this interface
    /// Only calls of org.freedesktop.DBus.Properties about this property.
    Bend& property(const std::string& name) { return with(&Bend::propertyName, name); }
    /// Only this many calls; then the bend is removed.
    Bend& times(int times) { return with(&Bend::count, times); }
    bool matches(const Call& call) const;

    Kind kind = Kind::Error;
    std::string objectPath;    ///< "" for any
    std::string interfaceName; ///< "" for any
    std::string member;        ///< "" for any
    std::string propertyName;  ///< "" for any
    std::string errorName;
    std::string errorMessage;
    Variant parameters;
    std::chrono::milliseconds delay{0};
    int count = -1; ///< -1: until cleared

private:
    template <typename Value>
    Bend& with(Value Bend::*field, const Value& value)
    {
        this->*field = value;
        return *this;
    }
};

using BendId = std::uint64_t;

/// One method call that reached the simulator.
struct Call {
    std::int64_t timeUs = 0; ///< monotonic clock, when it was read from the socket
    std::string sender;      ///< unique name
    std::string path;
    std::string interface;
    std::string member;
    Variant parameters; ///< a tuple

    /// "/org/bluez/hci0 org.bluez.Adapter1.StartDiscovery ()".
    std::string text() const;
};

using CallPredicate = std::function<bool(const Call&)>;

} // namespace vexasim
