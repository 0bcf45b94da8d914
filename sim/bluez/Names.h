// SPDX-License-Identifier: MIT
#pragma once

/// Names of buses, interfaces and errors, as BlueZ spells them.
namespace vexasim::names
{
constexpr const char* kBlueZ = "org.bluez";
constexpr const char* kBlueZPath = "/org/bluez";

constexpr const char* kAdapter = "org.bluez.Adapter1";
constexpr const char* kAgentManager = "org.bluez.AgentManager1";
constexpr const char* kBattery = "org.bluez.Battery1";
constexpr const char* kProfileManager = "org.bluez.ProfileManager1";
constexpr const char* kDevice = "org.bluez.Device1";
constexpr const char* kService = "org.bluez.GattService1";
constexpr const char* kCharacteristic = "org.bluez.GattCharacteristic1";
constexpr const char* kDescriptor = "org.bluez.GattDescriptor1";

constexpr const char* kIntrospectable = "org.freedesktop.DBus.Introspectable";
constexpr const char* kObjectManager = "org.freedesktop.DBus.ObjectManager";
constexpr const char* kPeer = "org.freedesktop.DBus.Peer";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
} // namespace vexasim::names

/// BlueZ's errors with the texts that bluetoothd gives them.
namespace vexasim::errors
{
struct Error {
    const char* name;
    const char* message;
};

constexpr Error kAlreadyExists{"org.bluez.Error.AlreadyExists", "Already Exists"};
constexpr Error kAuthenticationCanceled{"org.bluez.Error.AuthenticationCanceled", "Authentication Canceled"};
constexpr Error kAuthenticationFailed{"org.bluez.Error.AuthenticationFailed", "Authentication Failed"};
constexpr Error kBusy{"org.bluez.Error.InProgress", "Operation already in progress"};
constexpr Error kConnectionAttemptFailed{"org.bluez.Error.ConnectionAttemptFailed", "Page Timeout"};
constexpr Error kDoesNotExist{"org.bluez.Error.DoesNotExist", "Does Not Exist"};
constexpr Error kInProgress{"org.bluez.Error.InProgress", "In Progress"};
constexpr Error kInvalidArguments{"org.bluez.Error.InvalidArguments", "Invalid arguments in method call"};
constexpr Error kNotAuthorized{"org.bluez.Error.NotAuthorized", "Operation Not Authorized"};
constexpr Error kNotAvailable{"org.bluez.Error.NotAvailable", "Operation currently not available"};
constexpr Error kNotConnected{"org.bluez.Error.NotConnected", "Not Connected"};
constexpr Error kNotReady{"org.bluez.Error.NotReady", "Resource Not Ready"};
constexpr Error kNotSupported{"org.bluez.Error.NotSupported", "Operation is not supported"};

constexpr const char* kFailed = "org.bluez.Error.Failed";
constexpr const char* kNotPermitted = "org.bluez.Error.NotPermitted";
constexpr const char* kInvalidArgumentsName = "org.bluez.Error.InvalidArguments";

constexpr const char* kDBusInvalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr const char* kDBusInvalidSignature = "org.freedesktop.DBus.Error.InvalidSignature";
constexpr const char* kDBusReadOnly = "org.freedesktop.DBus.Error.PropertyReadOnly";
constexpr const char* kDBusUnknownMethod = "org.freedesktop.DBus.Error.UnknownMethod";
constexpr const char* kDBusUnknownObject = "org.freedesktop.DBus.Error.UnknownObject";
constexpr const char* kDBusUnknownProperty = "org.freedesktop.DBus.Error.UnknownProperty";
} // namespace vexasim::errors
