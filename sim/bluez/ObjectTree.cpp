// SPDX-License-Identifier: MIT
#include "sim/bluez/ObjectTree.h"

#include <algorithm>
#include <utility>

#include "sim/bluez/Names.h"

namespace vexasim
{

InterfaceMap withStandardInterfaces(const std::string& interface, const PropertyMap& properties)
{
    return {{names::kIntrospectable, {}}, {interface, properties}, {names::kProperties, {}}};
}

ObjectTree::ObjectTree(Emit emit) : mEmit(std::move(emit)) {}

void ObjectTree::add(const std::string& path, const InterfaceMap& interfaces, bool announce)
{
    if (mObjects.count(path) == 0) {
        mOrder.push_back(path);
    }
    InterfaceMap& object = mObjects[path];
    for (const auto& [name, properties] : interfaces) {
        object[name] = properties;
    }
    if (announce) {
        mEmit("/", names::kObjectManager, "InterfacesAdded",
              g_variant_new("(o@a{sa{sv}})", path.c_str(), toVariant(interfaces).get()));
    }
}

void ObjectTree::announceRemoval(const std::string& path, const std::vector<std::string>& interfaces)
{
    mEmit("/", names::kObjectManager, "InterfacesRemoved",
          g_variant_new("(o@as)", path.c_str(), Variant::strings(interfaces).get()));
}

void ObjectTree::erase(const std::string& path)
{
    mObjects.erase(path);
    mOrder.erase(std::remove(mOrder.begin(), mOrder.end(), path), mOrder.end());
}

void ObjectTree::remove(const std::string& path, bool announce)
{
    for (const std::string& gone : removalOrder(path)) {
        std::vector<std::string> interfaces;
        for (const auto& [name, properties] : mObjects[gone]) {
            interfaces.push_back(name);
        }
        erase(gone);
        if (announce) {
            announceRemoval(gone, interfaces);
        }
    }
}

void ObjectTree::removeInterface(const std::string& path, const std::string& interface, bool announce)
{
    const auto object = mObjects.find(path);
    if (object == mObjects.end() || object->second.erase(interface) == 0) {
        return;
    }
    if (object->second.empty()) {
        erase(path);
    }
    if (announce) {
        announceRemoval(path, {interface});
    }
}

void ObjectTree::clear()
{
    mObjects.clear();
    mOrder.clear();
}

bool ObjectTree::set(const std::string& path, const std::string& interface, const std::string& property,
                     const Variant& value)
{
    if (!has(path, interface)) {
        return false;
    }
    mObjects[path][interface][property] = value;
    return true;
}

void ObjectTree::drop(const std::string& path, const std::string& interface, const std::string& property)
{
    if (has(path, interface)) {
        mObjects[path][interface].erase(property);
    }
}

void ObjectTree::change(const std::string& path, const std::string& interface, const PropertyMap& changed)
{
    for (const auto& [name, value] : changed) {
        if (!set(path, interface, name, value)) {
            return;
        }
    }
    emitChanged(path, interface, changed);
}

void ObjectTree::emitChanged(const std::string& path, const std::string& interface,
                             const PropertyMap& changed, const std::vector<std::string>& invalidated)
{
    mEmit(path, names::kProperties, "PropertiesChanged",
          g_variant_new("(s@a{sv}@as)", interface.c_str(), toVariant(changed).get(),
                        Variant::strings(invalidated).get()));
}

bool ObjectTree::has(const std::string& path, const std::string& interface) const
{
    return properties(path, interface) != nullptr;
}

const InterfaceMap* ObjectTree::interfaces(const std::string& path) const
{
    const auto object = mObjects.find(path);
    return object != mObjects.end() ? &object->second : nullptr;
}

const PropertyMap* ObjectTree::properties(const std::string& path, const std::string& interface) const
{
    const InterfaceMap* object = interfaces(path);
    if (object == nullptr) {
        return nullptr;
    }
    const auto found = object->find(interface);
    return found != object->end() ? &found->second : nullptr;
}

Variant ObjectTree::get(const std::string& path, const std::string& interface,
                        const std::string& property) const
{
    const PropertyMap* known = properties(path, interface);
    if (known == nullptr) {
        return {};
    }
    const auto found = known->find(property);
    return found != known->end() ? found->second : Variant{};
}

std::string ObjectTree::ancestor(const std::string& path) const
{
    std::string candidate = path;
    for (auto slash = candidate.rfind('/'); slash != std::string::npos && slash != 0;
         slash = candidate.rfind('/')) {
        candidate.resize(slash);
        if (exists(candidate)) {
            return candidate;
        }
    }
    return "/";
}

void ObjectTree::collect(const std::string& path, std::vector<std::string>& order) const
{
    if (mChildrenFirst && exists(path)) {
        order.push_back(path);
    }
    for (const std::string& other : mOrder) {
        if (other != path && ancestor(other) == path) {
            collect(other, order);
        }
    }
    if (!mChildrenFirst && exists(path)) {
        order.push_back(path);
    }
}

std::vector<std::string> ObjectTree::removalOrder(const std::string& path) const
{
    std::vector<std::string> order;
    collect(path, order);
    return order;
}

Variant ObjectTree::managedObjects() const
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a{oa{sa{sv}}}"));
    for (const std::string& path : mOrder) {
        if (path != "/") {
            g_variant_builder_add(&builder, "{o@a{sa{sv}}}", path.c_str(),
                                  toVariant(mObjects.at(path)).get());
        }
    }
    return {g_variant_new("(@a{oa{sa{sv}}})", g_variant_builder_end(&builder))};
}

} // namespace vexasim
