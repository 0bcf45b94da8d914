// SPDX-License-Identifier: MIT
#pragma once

#include <gio/gio.h>
#include <string>

/// The definitions of BlueZ's interfaces: members, signatures, access. Immutable, any thread.
namespace vexasim::introspection
{

/// Null for an interface that isn't BlueZ's.
GDBusInterfaceInfo* find(const std::string& interface);
/// Null if the interface has no such method.
const GDBusMethodInfo* findMethod(const std::string& interface, const std::string& member);
const GDBusPropertyInfo* findProperty(const std::string& interface, const std::string& property);
/// "sa{sv}" for a method that takes a string and a dictionary.
std::string inSignature(const GDBusMethodInfo* method);
/// "<interface ...>...</interface>", without members if it isn't BlueZ's.
std::string xml(const std::string& interface);
} // namespace vexasim::introspection
