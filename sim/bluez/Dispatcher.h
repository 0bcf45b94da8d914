// SPDX-License-Identifier: MIT
#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>

#include "sim/bluez/BusConnection.h"
#include "sim/bluez/Names.h"
#include "sim/bluez/ObjectTree.h"

namespace vexasim
{

/// Passes each method call to its handler and answers those without one. Used on the scheduler's thread.
///
/// It implements Properties, ObjectManager, Introspectable and Peer itself, because GDBus returns other
/// errors than BlueZ's D-Bus layer, supports only declared properties with their types, and answers before a
/// bend can.
class Dispatcher
{
public:
    using Handler = std::function<void(const RequestPtr&)>;
    using SetHandler = std::function<void(const RequestPtr&, const Variant&)>;

    explicit Dispatcher(ObjectTree& tree);

    void onMethod(const std::string& interface, const std::string& member, Handler handler);
    /// For properties whose change has consequences; others are stored and announced.
    void onSet(const std::string& interface, const std::string& property, SetHandler handler);
    void handle(const RequestPtr& request);

private:
    using Key = std::pair<std::string, std::string>;

    bool handlePeer(const RequestPtr& request);
    void introspect(const RequestPtr& request);
    void get(const RequestPtr& request);
    void getAll(const RequestPtr& request);
    void set(const RequestPtr& request);
    bool hasChildren(const std::string& path) const;

    ObjectTree& mTree;
    std::map<Key, Handler> mMethods;
    std::map<Key, SetHandler> mSetters;
};

/// Answers with one of BlueZ's errors.
void fail(const RequestPtr& request, const errors::Error& error);

} // namespace vexasim
