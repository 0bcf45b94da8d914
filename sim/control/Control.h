// SPDX-License-Identifier: MIT
#pragma once

#include "sim/bluez/Simulator.h"

#include <gio/gio.h>

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace vexasim
{

/// What of the box the program may touch.
struct BoxFiles {
    std::string adcFile;      ///< the button; "" for none
    std::string tmpDirectory; ///< where flags and the firmware link go; "" for none
};

/// The object /sim that plays with a Simulator by D-Bus. Lives on the thread of
/// the default main context, which must be iterated.
class Control
{
public:
    /// `quit` ends the program. Throws std::runtime_error.
    Control(Simulator& simulator, BoxFiles files, std::function<void()> quit);
    ~Control();
    Control(const Control&) = delete;
    Control& operator=(const Control&) = delete;

    /// Emits the signal Happened. Any thread.
    void tell(const std::string& what);

private:
    /// Takes the tuple of arguments, returns the tuple of results (or none);
    /// what it throws becomes a D-Bus error.
    using Method = std::function<Variant(GVariant*)>;

    static void onCall(GDBusConnection*, const char*, const char*, const char*, const char* member,
                       GVariant* parameters, GDBusMethodInvocation* invocation, gpointer self);
    void add(const std::string& member, std::function<void(GVariant*)> action);
    void addBoxMethods();
    void addRemoteMethods();
    void addUpdateMethods();
    void addAirMethods();
    void addBlueZMethods();
    void addObjectMethods();

    void pressButton(bool pressed);
    void holdButton(unsigned milliseconds);
    void setFlag(const std::string& flag);
    void offerImage(const std::string& file);
    Variant status();
    Variant packets();
    Variant calls();

    Simulator& mSimulator;
    BoxFiles mFiles;
    std::function<void()> mQuit;
    std::map<std::string, Method> mMethods;
    std::map<std::string, std::shared_ptr<Peripheral>> mOthers; ///< by address
    GDBusNodeInfo* mInfo = nullptr;
    GDBusConnection* mConnection = nullptr;
    unsigned mRelease = 0; ///< source that lets the button go
};

/// Reads a whole file. Throws std::runtime_error.
Bytes readFile(const std::string& path);

} // namespace vexasim
