// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <functional>
#include <gio/gio.h>
#include <memory>
#include <string>

#include "sim/bluez/Bend.h"
#include "sim/bluez/Variant.h"

namespace vexasim
{

class Scheduler;

/// Joins a bus. Throws std::runtime_error.
GDBusConnection* connectToBus(const std::string& address);
/// Calls a method of the bus itself. Throws std::runtime_error.
Variant callBus(GDBusConnection* connection, const char* method, const Variant& parameters = {});
/// Returns the error's text and frees the error.
std::string takeMessage(GError* error);

/// One method call that waits for its answer. It is answered at most once; further answers are dropped, and
/// so is one to a closed connection.
class Request
{
public:
    Request(Scheduler& scheduler, GDBusConnection* connection, GDBusMessage* message, Call call);
    ~Request();
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    const Call& call() const { return mCall; }
    GVariant* parameters() const { return mCall.parameters.get(); }
    std::string signature() const;
    bool answered() const { return mAnswered; }

    /// An empty variant answers with no values.
    void reply(const Variant& parameters = {});
    void fail(const std::string& name, const std::string& message);
    /// Sends the answer this much later; several delays add up.
    void delayAnswer(std::chrono::milliseconds delay) { mDelay += delay; }

private:
    void send(GDBusMessage* answer);

    Scheduler& mScheduler;
    GDBusConnection* mConnection;
    GDBusMessage* mMessage;
    Call mCall;
    std::chrono::milliseconds mDelay{0};
    bool mAnswered = false;
};

using RequestPtr = std::shared_ptr<Request>;

/// The simulator's connection to the bus and its well-known name. Used on the scheduler's thread, except the
/// handlers, which GDBus calls on its own thread.
///
/// Calls arrive through a message filter, not through objects registered with GDBus: a bend may answer a call
/// with any type, late or never, objects may have any interface and property, and the errors are BlueZ's.
class BusConnection
{
public:
    using MessageHandler = std::function<void(GDBusConnection*, GDBusMessage*)>;
    using NameHandler = std::function<void(const std::string&)>;

    BusConnection() = default;
    ~BusConnection();
    BusConnection(const BusConnection&) = delete;
    BusConnection& operator=(const BusConnection&) = delete;

    /// Throws std::runtime_error. Both handlers are called on GDBus's thread: with each method call, and with
    /// each name that lost its owner.
    void open(const std::string& address, MessageHandler onCall, NameHandler onNameGone);
    void close();
    bool isOpen() const { return mConnection != nullptr; }
    /// Throws std::runtime_error if it has another owner.
    void requestName(const std::string& name);
    void releaseName(const std::string& name);
    void emit(const std::string& path, const std::string& interface, const std::string& member,
              const Variant& parameters);
    /// Returns when the bus has routed everything sent so far.
    void roundTrip();

private:
    struct Handlers;
    static GDBusMessage* filter(GDBusConnection* connection, GDBusMessage* message, gboolean incoming,
                                gpointer data);

    GDBusConnection* mConnection = nullptr;
    unsigned mFilter = 0;
};

} // namespace vexasim
