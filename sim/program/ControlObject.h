// SPDX-License-Identifier: MIT
#pragma once

#include "sim/bluez/Variant.h"

#include <gio/gio.h>

#include <functional>
#include <map>
#include <string>

namespace vexasim
{

/// The object /sim on a bus, by which a person or a script plays with the
/// program: the same interface for every face of the remote, of which each does
/// what it can. Lives on the thread of the default main context, which must be
/// iterated.
class ControlObject
{
public:
    /// Takes the tuple of arguments, returns the tuple of results (or none);
    /// what it throws becomes a D-Bus error.
    using Method = std::function<Variant(GVariant*)>;
    using Action = std::function<void(GVariant*)>;

    ControlObject() = default;
    ~ControlObject();
    ControlObject(const ControlObject&) = delete;
    ControlObject& operator=(const ControlObject&) = delete;

    /// Before publish. A method that nobody adds answers that this face can't do it.
    void method(const std::string& member, Method method);
    /// A method without results.
    void action(const std::string& member, Action action);

    /// Joins the bus, takes the name and serves. Throws std::runtime_error.
    void publish(const std::string& busAddress);

    /// Emits the signal Happened. Any thread; nothing happens before publish.
    void tell(const std::string& what);

private:
    static void onCall(GDBusConnection*, const char*, const char*, const char*, const char* member,
                       GVariant* parameters, GDBusMethodInvocation* invocation, gpointer self);

    std::map<std::string, Method> mMethods;
    GDBusNodeInfo* mInfo = nullptr;
    GDBusConnection* mConnection = nullptr;
};

} // namespace vexasim
