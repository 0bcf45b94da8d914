// SPDX-License-Identifier: MIT
#include "sim/bluez/Dispatcher.h"

#include <algorithm>
#include <set>
#include <utility>

#include "sim/bluez/Introspection.h"

namespace vexasim
{

namespace
{
constexpr const char* kMachineId = "00000000000000000000000000000000";
constexpr const char* kIntrospectionHead =
    "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
    "\"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n<node>\n";

std::string quoted(const std::string& before, const std::string& name, const std::string& after = "'")
{
    return before + " '" + name + after;
}

void failUnknown(const RequestPtr& request, const char* error)
{
    const Call& call = request->call();
    request->fail(error, "Method \"" + call.member + "\" with signature \"" + request->signature() +
                             "\" on interface \"" + call.interface + "\" doesn't exist\n");
}

/// The first component below `path` of `other`, "" if it isn't below.
std::string childName(const std::string& path, const std::string& other)
{
    const std::string prefix = path == "/" ? path : path + "/";
    if (other.size() <= prefix.size() || other.compare(0, prefix.size(), prefix) != 0) {
        return "";
    }
    return other.substr(prefix.size(), other.find('/', prefix.size()) - prefix.size());
}
} // namespace

void fail(const RequestPtr& request, const errors::Error& error)
{
    request->fail(error.name, error.message);
}

Dispatcher::Dispatcher(ObjectTree& tree) : mTree(tree)
{
    onMethod(names::kProperties, "Get", [this](const RequestPtr& request) { get(request); });
    onMethod(names::kProperties, "GetAll", [this](const RequestPtr& request) { getAll(request); });
    onMethod(names::kProperties, "Set", [this](const RequestPtr& request) { set(request); });
    onMethod(names::kObjectManager, "GetManagedObjects",
             [this](const RequestPtr& request) { request->reply(mTree.managedObjects()); });
}

void Dispatcher::onMethod(const std::string& interface, const std::string& member, Handler handler)
{
    mMethods[{interface, member}] = std::move(handler);
}

void Dispatcher::onSet(const std::string& interface, const std::string& property, SetHandler handler)
{
    mSetters[{interface, property}] = std::move(handler);
}

bool Dispatcher::handlePeer(const RequestPtr& request)
{
    const Call& call = request->call();
    if (call.interface != names::kPeer) {
        return false;
    }
    if (call.member == "Ping") {
        request->reply();
    } else if (call.member == "GetMachineId") {
        request->reply(g_variant_new("(s)", kMachineId));
    } else {
        failUnknown(request, errors::kDBusUnknownMethod);
    }
    return true;
}

bool Dispatcher::hasChildren(const std::string& path) const
{
    return std::any_of(mTree.paths().begin(), mTree.paths().end(),
                       [&path](const std::string& other) { return !childName(path, other).empty(); });
}

void Dispatcher::handle(const RequestPtr& request)
{
    const Call& call = request->call();
    if (handlePeer(request)) {
        return;
    }
    if (call.interface == names::kIntrospectable && call.member == "Introspect" &&
        (mTree.exists(call.path) || hasChildren(call.path))) {
        return introspect(request);
    }
    if (!mTree.exists(call.path)) {
        return failUnknown(request, errors::kDBusUnknownObject);
    }
    const auto handler = mMethods.find({call.interface, call.member});
    const GDBusMethodInfo* method = introspection::findMethod(call.interface, call.member);
    // Properties is also served on objects added by a test, which don't list the interface.
    const bool offered = call.interface == names::kProperties || mTree.has(call.path, call.interface);
    if (!offered || handler == mMethods.end() || method == nullptr ||
        introspection::inSignature(method) != request->signature()) {
        return failUnknown(request, errors::kDBusUnknownMethod);
    }
    handler->second(request);
}

void Dispatcher::introspect(const RequestPtr& request)
{
    const std::string& path = request->call().path;
    std::string text = kIntrospectionHead;
    if (const InterfaceMap* interfaces = mTree.interfaces(path)) {
        for (const auto& [name, properties] : *interfaces) {
            text += introspection::xml(name);
        }
    }
    std::set<std::string> children;
    for (const std::string& other : mTree.paths()) {
        children.insert(childName(path, other));
    }
    children.erase("");
    for (const std::string& child : children) {
        text += "  <node name=\"" + child + "\"/>\n";
    }
    request->reply(g_variant_new("(s)", (text + "</node>\n").c_str()));
}

void Dispatcher::get(const RequestPtr& request)
{
    const char* interface = nullptr;
    const char* name = nullptr;
    g_variant_get(request->parameters(), "(&s&s)", &interface, &name);
    if (!mTree.has(request->call().path, interface)) {
        return request->fail(errors::kDBusInvalidArgs, quoted("No such interface", interface));
    }
    const Variant value = mTree.get(request->call().path, interface, name);
    if (!value) {
        return request->fail(errors::kDBusInvalidArgs, quoted("No such property", name));
    }
    request->reply(g_variant_new("(v)", value.get()));
}

void Dispatcher::getAll(const RequestPtr& request)
{
    const char* interface = nullptr;
    g_variant_get(request->parameters(), "(&s)", &interface);
    const PropertyMap* properties = mTree.properties(request->call().path, interface);
    if (properties == nullptr) {
        return request->fail(errors::kDBusInvalidArgs, quoted("No such interface", interface));
    }
    request->reply(g_variant_new("(@a{sv})", toVariant(*properties).get()));
}

void Dispatcher::set(const RequestPtr& request)
{
    const char* interface = nullptr;
    const char* name = nullptr;
    GVariant* boxed = nullptr;
    g_variant_get(request->parameters(), "(&s&sv)", &interface, &name, &boxed);
    const Variant value(boxed);
    const std::string& path = request->call().path;
    if (!mTree.has(path, interface)) {
        return request->fail(errors::kDBusInvalidArgs, quoted("No such interface", interface));
    }
    const GDBusPropertyInfo* known = introspection::findProperty(interface, name);
    if (known == nullptr || !mTree.get(path, interface, name)) {
        return request->fail(errors::kDBusUnknownProperty, quoted("No such property", name));
    }
    if ((known->flags & G_DBUS_PROPERTY_INFO_FLAGS_WRITABLE) == 0) {
        return request->fail(errors::kDBusReadOnly, quoted("Property", name, "' is not writable"));
    }
    if (value.type() != known->signature) {
        return request->fail(errors::kDBusInvalidSignature, quoted("Invalid signature for", name));
    }
    const auto setter = mSetters.find({interface, name});
    if (setter != mSetters.end()) {
        return setter->second(request, value);
    }
    // The signal precedes the reply, since BlueZ flushes pending signals first.
    mTree.change(path, interface, {{name, value}});
    request->reply();
}

} // namespace vexasim
