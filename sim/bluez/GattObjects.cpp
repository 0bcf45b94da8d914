// SPDX-License-Identifier: MIT
#include "sim/bluez/GattObjects.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

#include "sim/model/Remote.h"

namespace vexasim
{

namespace
{
constexpr const char* kNotConnectedText = "Not connected";
constexpr std::uint16_t kMtu = 23;

std::string child(const std::string& parent, const char* kind, std::uint16_t handle)
{
    std::array<char, 16> name{};
    std::snprintf(name.data(), name.size(), "/%s%04x", kind, unsigned{handle});
    return parent + name.data();
}

/// bluetoothd doesn't export Generic Access.
bool isHidden(const GattService& service)
{
    return service.uuid == uuid::kGenericAccess;
}

void failWith(const RequestPtr& request, std::uint8_t error)
{
    switch (error) {
    case att::kReadNotPermitted:
        return request->fail(errors::kNotPermitted, "Read not permitted");
    case att::kWriteNotPermitted:
        return request->fail(errors::kNotPermitted, "Write not permitted");
    case att::kInsufficientAuthentication:
        return request->fail(errors::kNotPermitted, "Not paired");
    case att::kInsufficientAuthorization:
        return fail(request, errors::kNotAuthorized);
    case att::kRequestNotSupported:
        return fail(request, errors::kNotSupported);
    default:
        break;
    }
    std::array<char, 48> text{};
    std::snprintf(text.data(), text.size(), "Operation failed with ATT error: 0x%02x", unsigned{error});
    request->fail(errors::kFailed, text.data());
}

std::string writeType(GVariant* options)
{
    const char* type = nullptr;
    g_variant_lookup(options, "type", "&s", &type);
    return type != nullptr ? type : "";
}
} // namespace

bool GattObjects::Attribute::has(const std::string& flag) const
{
    return std::find(flags.begin(), flags.end(), flag) != flags.end();
}

const char* GattObjects::Attribute::interface() const
{
    return descriptor ? names::kDescriptor : names::kCharacteristic;
}

GattObjects::GattObjects(Core& core) : mCore(core)
{
    for (const char* interface : {names::kCharacteristic, names::kDescriptor}) {
        onMethod(interface, "ReadValue", &GattObjects::read);
        onMethod(interface, "WriteValue", &GattObjects::write);
    }
    onMethod(names::kCharacteristic, "StartNotify", &GattObjects::startNotify);
    onMethod(names::kCharacteristic, "StopNotify", &GattObjects::stopNotify);
    for (const char* member : {"AcquireWrite", "AcquireNotify"}) {
        mCore.dispatcher.onMethod(names::kCharacteristic, member,
                                  [](const RequestPtr& request) { fail(request, errors::kNotSupported); });
    }
}

void GattObjects::onMethod(const char* interface, const std::string& member, Operation operation)
{
    mCore.dispatcher.onMethod(interface, member, [this, operation](const RequestPtr& request) {
        const auto found = mAttributes.find(request->call().path);
        const DevicePtr device = found != mAttributes.end() ? found->second.device.lock() : nullptr;
        if (device == nullptr) {
            return fail(request, errors::kNotAvailable); // an object added by a test
        }
        (this->*operation)(device, Attribute(found->second), request);
    });
}

std::string GattObjects::pathOf(const std::string& devicePath, const Peripheral& peripheral,
                                const std::string& uuid)
{
    for (const GattService& service : peripheral.services()) {
        const std::string servicePath = child(devicePath, "service", service.handle);
        if (service.uuid == uuid) {
            return servicePath;
        }
        for (const GattCharacteristic& characteristic : service.characteristics) {
            const std::string path = child(servicePath, "char", characteristic.handle);
            if (characteristic.uuid == uuid) {
                return path;
            }
            for (const GattDescriptor& descriptor : characteristic.descriptors) {
                if (descriptor.uuid == uuid) {
                    return child(path, "desc", descriptor.handle);
                }
            }
        }
    }
    return "";
}

// --- objects ---

void GattObjects::collect(const DevicePtr& device, const GattService& service, Objects& objects)
{
    const std::string servicePath = child(device->path, "service", service.handle);
    const Variant includes = g_variant_new_array(G_VARIANT_TYPE_OBJECT_PATH, nullptr, 0);
    objects.emplace_back(servicePath,
                         withStandardInterfaces(names::kService, {{"UUID", toVariant(service.uuid)},
                                                                  {"Device", toObjectPath(device->path)},
                                                                  {"Primary", toVariant(service.primary)},
                                                                  {"Includes", includes}}));
    for (const GattCharacteristic& characteristic : service.characteristics) {
        const std::string path = child(servicePath, "char", characteristic.handle);
        PropertyMap properties = {{"UUID", toVariant(characteristic.uuid)},
                                  {"Service", toObjectPath(servicePath)},
                                  {"Flags", Variant::strings(characteristic.flags)},
                                  {"MTU", g_variant_new_uint16(kMtu)}};
        if (characteristic.has("notify") || characteristic.has("indicate")) {
            properties["Notifying"] = properties["NotifyAcquired"] = toVariant(false);
        }
        if (characteristic.has("write-without-response")) {
            properties["WriteAcquired"] = toVariant(false);
        }
        objects.emplace_back(path, withStandardInterfaces(names::kCharacteristic, properties));
        mAttributes[path] = {device, characteristic.valueHandle, false, characteristic.uuid,
                             characteristic.flags};
        for (const GattDescriptor& descriptor : characteristic.descriptors) {
            const std::string descriptorPath = child(path, "desc", descriptor.handle);
            objects.emplace_back(
                descriptorPath,
                withStandardInterfaces(names::kDescriptor, {{"UUID", toVariant(descriptor.uuid)},
                                                            {"Characteristic", toObjectPath(path)}}));
            mAttributes[descriptorPath] = {device, descriptor.handle, true, descriptor.uuid,
                                           descriptor.flags};
        }
    }
}

void GattObjects::publish(const DevicePtr& device)
{
    if (!std::exchange(device->exported, true)) {
        Objects objects;
        for (const GattService& service : device->peripheral->services()) {
            if (!isHidden(service)) {
                collect(device, service, objects);
            }
        }
        if (mCore.tree.childrenFirst()) {
            std::reverse(objects.begin(), objects.end());
        }
        for (const auto& [path, interfaces] : objects) {
            mCore.tree.add(path, interfaces);
        }
    }
    for (const auto& [handle, clients] : device->notifyClients) {
        if (!clients.empty() && device->peripheral->subscribe(handle, true).error == att::kOk) {
            setNotifying(device, handle, true);
        }
    }
}

void GattObjects::withdraw(const DevicePtr& device)
{
    for (auto attribute = mAttributes.begin(); attribute != mAttributes.end();) {
        attribute =
            attribute->second.device.lock() == device ? mAttributes.erase(attribute) : std::next(attribute);
    }
    device->exported = false;
    device->notifyClients.clear();
}

void GattObjects::linkLost(const DevicePtr& device)
{
    for (const auto& [handle, waiting] : std::exchange(device->reads, {})) {
        for (const RequestPtr& request : waiting) {
            failWith(request, att::kUnlikelyError);
        }
    }
    for (const auto& [handle, request] : std::exchange(device->writes, {})) {
        failWith(request, att::kUnlikelyError);
    }
}

std::string GattObjects::pathOfValue(const DevicePtr& device, std::uint16_t handle) const
{
    for (const auto& [path, attribute] : mAttributes) {
        if (attribute.handle == handle && attribute.device.lock() == device) {
            return path;
        }
    }
    return "";
}

// --- reading and writing ---

void GattObjects::read(const DevicePtr& device, const Attribute& attribute, const RequestPtr& request)
{
    if (!device->resolved) {
        return request->fail(errors::kFailed, kNotConnectedText);
    }
    std::vector<RequestPtr>& waiting = device->reads[attribute.handle];
    waiting.push_back(request);
    if (waiting.size() > 1) {
        return; // shares the answer of the read that is under way
    }
    const AttReply reply = device->peripheral->read(attribute.handle);
    if (reply.kind == AttReply::Kind::NoAnswer) {
        return;
    }
    const auto finish = [this, path = request->call().path, handle = attribute.handle,
                         reply](const DevicePtr& same) { finishRead(same, path, handle, reply); };
    // At once if possible, so that a following notification comes after the answer.
    if (reply.delay.count() > 0) {
        mCore.later(device, reply.delay, finish);
    } else {
        finish(device);
    }
}

void GattObjects::finishRead(const DevicePtr& device, const std::string& path, std::uint16_t handle,
                             const AttReply& reply)
{
    const std::vector<RequestPtr> waiting = std::exchange(device->reads[handle], {});
    const auto attribute = mAttributes.find(path);
    if (reply.error == att::kOk && attribute != mAttributes.end()) {
        // BlueZ stores the value and announces it before it answers.
        mCore.tree.change(path, attribute->second.interface(), {{"Value", Variant::bytes(reply.value)}});
    }
    for (const RequestPtr& request : waiting) {
        if (reply.error == att::kOk) {
            request->reply(g_variant_new("(@ay)", Variant::bytes(reply.value).get()));
        } else {
            failWith(request, reply.error);
        }
    }
}

void GattObjects::write(const DevicePtr& device, const Attribute& attribute, const RequestPtr& request)
{
    if (!device->resolved) {
        return request->fail(errors::kFailed, kNotConnectedText);
    }
    if (device->writes.count(attribute.handle) != 0) {
        return fail(request, errors::kInProgress);
    }
    if (attribute.uuid == uuid::kClientConfiguration) {
        return request->fail(errors::kNotPermitted, "Write not permitted");
    }
    const Variant value = g_variant_get_child_value(request->parameters(), 0);
    const Variant options = g_variant_get_child_value(request->parameters(), 1);
    const std::string type = writeType(options.get());
    const bool command = type == "command" || (type.empty() && !attribute.has("write"));
    if (!attribute.has(command ? "write-without-response" : "write")) {
        return fail(request, errors::kNotSupported);
    }
    if (command) {
        device->peripheral->write(attribute.handle, toBytes(value.get()), Peripheral::WriteKind::Command);
        return request->reply();
    }
    // Stored first, since the write itself may end the link.
    device->writes[attribute.handle] = request;
    const unsigned link = device->link;
    const AttReply reply = device->peripheral->write(attribute.handle, toBytes(value.get()));
    // If the remote requires a more secure bond, BlueZ doesn't make one, and the caller gets no answer.
    if (reply.kind == AttReply::Kind::NoAnswer || reply.error == att::kInsufficientAuthentication ||
        device->link != link) {
        return;
    }
    mCore.later(device, reply.delay, [this, handle = attribute.handle, reply](const DevicePtr& same) {
        finishWrite(same, handle, reply);
    });
}

void GattObjects::finishWrite(const DevicePtr& device, std::uint16_t handle, const AttReply& reply)
{
    const auto waiting = device->writes.find(handle);
    if (waiting == device->writes.end()) {
        return;
    }
    const RequestPtr request = waiting->second;
    device->writes.erase(waiting);
    if (reply.error == att::kOk) {
        request->reply();
    } else {
        failWith(request, reply.error);
    }
}

// --- notifications ---

void GattObjects::startNotify(const DevicePtr& device, const Attribute& attribute, const RequestPtr& request)
{
    if (!attribute.has("notify") && !attribute.has("indicate")) {
        return fail(request, errors::kNotSupported);
    }
    std::set<std::string>& clients = device->notifyClients[attribute.handle];
    const bool first = clients.empty();
    if (!first || !device->resolved) {
        // Shared with another session, or enabled at the next connection.
        clients.insert(request->call().sender);
        return request->reply();
    }
    const AttReply reply = device->peripheral->subscribe(attribute.handle, true);
    if (reply.kind == AttReply::Kind::NoAnswer) {
        device->reads[attribute.handle].push_back(request); // answered when the link ends
        return;
    }
    if (reply.error != att::kOk) {
        return failWith(request, reply.error);
    }
    clients.insert(request->call().sender);
    setNotifying(device, attribute.handle, true);
    request->delayAnswer(reply.delay);
    request->reply();
}

void GattObjects::stopNotify(const DevicePtr& device, const Attribute& attribute, const RequestPtr& request)
{
    std::set<std::string>& clients = device->notifyClients[attribute.handle];
    if (clients.erase(request->call().sender) == 0) {
        return request->fail(errors::kFailed, "No notify session started");
    }
    if (clients.empty()) {
        endSession(device, attribute.handle);
    }
    request->reply();
}

void GattObjects::endSession(const DevicePtr& device, std::uint16_t handle)
{
    // BlueZ doesn't wait for the remote's answer here, and ignores it.
    if (device->ownNotifications.count(handle) == 0) {
        device->peripheral->subscribe(handle, false);
    }
    setNotifying(device, handle, false);
}

void GattObjects::setNotifying(const DevicePtr& device, std::uint16_t handle, bool notifying)
{
    const std::string path = pathOfValue(device, handle);
    const Variant known = mCore.tree.get(path, names::kCharacteristic, "Notifying");
    if (known.type() != "b" || (g_variant_get_boolean(known.get()) != FALSE) != notifying) {
        mCore.tree.change(path, names::kCharacteristic, {{"Notifying", toVariant(notifying)}});
    }
}

void GattObjects::notified(const DevicePtr& device, std::uint16_t handle, const Bytes& value)
{
    const auto clients = device->notifyClients.find(handle);
    if (clients == device->notifyClients.end() || clients->second.empty()) {
        return; // only bluetoothd itself subscribed
    }
    const std::string path = pathOfValue(device, handle);
    if (!path.empty()) {
        mCore.tree.change(path, names::kCharacteristic, {{"Value", Variant::bytes(value)}});
    }
}

void GattObjects::clientGone(const DevicePtr& device, const std::string& sender)
{
    for (auto& [handle, clients] : device->notifyClients) {
        if (clients.erase(sender) != 0 && clients.empty()) {
            endSession(device, handle);
        }
    }
}

} // namespace vexasim
