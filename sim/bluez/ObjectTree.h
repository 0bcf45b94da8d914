// SPDX-License-Identifier: MIT
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "sim/bluez/Variant.h"

namespace vexasim
{

/// The objects on the bus: paths, interfaces and properties as plain data, with the signals of the object
/// manager and of Properties. For tests it allows what BlueZ wouldn't do. Used on the scheduler's thread.
class ObjectTree
{
public:
    /// Path, interface, member, parameters.
    using Emit =
        std::function<void(const std::string&, const std::string&, const std::string&, const Variant&)>;

    explicit ObjectTree(Emit emit);

    /// Adds the interfaces to an object, new or not, and announces them.
    void add(const std::string& path, const InterfaceMap& interfaces, bool announce = true);
    /// Removes it with everything below it, children first, object by object.
    void remove(const std::string& path, bool announce = true);
    /// Removes one interface, and the object with its last one.
    void removeInterface(const std::string& path, const std::string& interface, bool announce = true);
    void clear();

    /// False if there is no such interface. Emits nothing.
    bool set(const std::string& path, const std::string& interface, const std::string& property,
             const Variant& value);
    void drop(const std::string& path, const std::string& interface, const std::string& property);
    /// Sets the properties and announces them in one PropertiesChanged.
    void change(const std::string& path, const std::string& interface, const PropertyMap& changed);
    void emitChanged(const std::string& path, const std::string& interface, const PropertyMap& changed,
                     const std::vector<std::string>& invalidated = {});

    bool exists(const std::string& path) const { return mObjects.count(path) != 0; }
    bool has(const std::string& path, const std::string& interface) const;
    /// Null if there is no such object or interface.
    const PropertyMap* properties(const std::string& path, const std::string& interface) const;
    const InterfaceMap* interfaces(const std::string& path) const;
    Variant get(const std::string& path, const std::string& interface, const std::string& property) const;
    /// In the order in which they were added.
    const std::vector<std::string>& paths() const { return mOrder; }
    /// The object and all below it in the order of their removal.
    std::vector<std::string> removalOrder(const std::string& path) const;
    /// "a{oa{sa{sv}}}", without the object at "/", as in BlueZ.
    Variant managedObjects() const;

    void setChildrenFirst(bool childrenFirst) { mChildrenFirst = childrenFirst; }
    bool childrenFirst() const { return mChildrenFirst; }

private:
    void erase(const std::string& path);
    std::string ancestor(const std::string& path) const;
    void collect(const std::string& path, std::vector<std::string>& order) const;
    void announceRemoval(const std::string& path, const std::vector<std::string>& interfaces);

    Emit mEmit;
    std::map<std::string, InterfaceMap> mObjects;
    std::vector<std::string> mOrder;
    bool mChildrenFirst = false;
};

/// The interfaces that every BlueZ object has besides its own.
InterfaceMap withStandardInterfaces(const std::string& interface, const PropertyMap& properties);

} // namespace vexasim
