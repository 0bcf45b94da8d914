// SPDX-License-Identifier: MIT
#include "tests/kit/Bus.h"

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace kit
{

namespace
{

constexpr const char* kBusName = "org.freedesktop.DBus";
constexpr const char* kBusPath = "/org/freedesktop/DBus";

std::string orEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

Answer answerFrom(GError* error)
{
    const std::unique_ptr<char, decltype(&g_free)> name(g_dbus_error_get_remote_error(error), &g_free);
    g_dbus_error_strip_remote_error(error);
    Answer answer{{}, name != nullptr ? name.get() : "local", error->message};
    g_error_free(error);
    return answer;
}

} // namespace

std::string textOf(const vexasim::Variant& value)
{
    const std::unique_ptr<char, decltype(&g_free)> text(g_variant_print(value.get(), FALSE), &g_free);
    return text.get();
}

// --- a connection ---

BusConnection::BusConnection(const std::string& address)
{
    GError* error = nullptr;
    mConnection = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (mConnection == nullptr) {
        throw std::runtime_error("no connection to the bus: " + answerFrom(error).message);
    }
}

void BusConnection::leave()
{
    if (mConnection == nullptr) {
        return;
    }
    if (mFilter != 0) {
        g_dbus_connection_remove_filter(mConnection, mFilter);
    }
    g_dbus_connection_close_sync(mConnection, nullptr, nullptr);
    g_clear_object(&mConnection);
    const std::lock_guard lock(mFiltering);
}

void BusConnection::setFilter(const Filter& filter)
{
    struct Hold {
        Filter filter;
        std::mutex& filtering;
    };
    mFilter = g_dbus_connection_add_filter(
        mConnection,
        [](GDBusConnection*, GDBusMessage* message, gboolean incoming, gpointer data) -> GDBusMessage* {
            auto& hold = *static_cast<Hold*>(data);
            const std::lock_guard lock(hold.filtering);
            if (incoming == FALSE || hold.filter(message)) {
                return message;
            }
            g_object_unref(message);
            return nullptr;
        },
        new Hold{filter, mFiltering}, [](gpointer data) { delete static_cast<Hold*>(data); });
}

Answer BusConnection::callOn(const std::string& name, const std::string& path, const std::string& method,
                             const vexasim::Variant& parameters, std::chrono::milliseconds limit) const
{
    const auto dot = method.rfind('.');
    GError* error = nullptr;
    GVariant* reply =
        g_dbus_connection_call_sync(mConnection, name.c_str(), path.c_str(), method.substr(0, dot).c_str(),
                                    method.substr(dot + 1).c_str(), parameters.get(), nullptr,
                                    G_DBUS_CALL_FLAGS_NONE, static_cast<int>(limit.count()), nullptr, &error);
    return reply != nullptr ? Answer{reply, "", ""} : answerFrom(error);
}

// --- a client ---

BusClient::BusClient(const std::string& address) : BusConnection(address)
{
    setFilter([this](GDBusMessage* message) {
        if (g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_SIGNAL &&
            orEmpty(g_dbus_message_get_path(message)) != kBusPath) {
            note(message);
        }
        return true;
    });
    callOn(kBusName, kBusPath, "org.freedesktop.DBus.AddMatch", g_variant_new("(s)", "type='signal'"));
}

void BusClient::note(GDBusMessage* message)
{
    GVariant* body = g_dbus_message_get_body(message);
    const vexasim::Variant parameters(body != nullptr ? g_variant_ref(body)
                                                      : g_variant_new_tuple(nullptr, 0));
    const std::lock_guard lock(mMutex);
    mSignals.push_back({g_dbus_message_get_path(message), g_dbus_message_get_member(message),
                        textOf(parameters), parameters});
    mArrived.notify_all();
}

std::string BusClient::get(const std::string& path, const std::string& interface, const std::string& property)
{
    const Answer answer = call(path, "org.freedesktop.DBus.Properties.Get",
                               g_variant_new("(ss)", interface.c_str(), property.c_str()));
    return answer.error.empty() ? textOf(answer.reply) : "[" + answer.error + "]";
}

Answer BusClient::set(const std::string& path, const std::string& interface, const std::string& property,
                      GVariant* value)
{
    return call(path, "org.freedesktop.DBus.Properties.Set",
                g_variant_new("(ssv)", interface.c_str(), property.c_str(), value));
}

std::vector<BusClient::Signal> BusClient::signals() const
{
    const std::lock_guard lock(mMutex);
    return mSignals;
}

void BusClient::clearSignals()
{
    const std::lock_guard lock(mMutex);
    mSignals.clear();
}

bool BusClient::await(const std::string& path, const std::string& member, const std::string& words)
{
    std::unique_lock lock(mMutex);
    return mArrived.wait_for(lock, kPatience, [&] {
        return std::any_of(mSignals.begin(), mSignals.end(), [&](const Signal& signal) {
            return signal.path == path && signal.member == member &&
                   signal.text.find(words) != std::string::npos;
        });
    });
}

std::vector<std::string> BusClient::story() const
{
    std::vector<std::string> lines;
    for (const Signal& signal : signals()) {
        const char* object = nullptr;
        if (signal.member.rfind("Interfaces", 0) == 0) {
            g_variant_get_child(signal.parameters.get(), 0, "&o", &object);
        }
        lines.push_back(signal.member + " " + (object != nullptr ? object : signal.path + " " + signal.text));
    }
    return lines;
}

// --- a monitor ---

BusMonitor::BusMonitor(const std::string& address) : BusConnection(address)
{
    setFilter([this, own = uniqueName()](GDBusMessage* message) {
        // Drops the messages that it sees: a monitor must not answer, and GDBus would answer calls to unknown
        // objects.
        const bool isForThis = orEmpty(g_dbus_message_get_destination(message)) == own;
        if (!isForThis) {
            note(message);
        }
        return isForThis;
    });
    const char* noRules[] = {nullptr};
    const Answer answer = callOn(kBusName, kBusPath, "org.freedesktop.DBus.Monitoring.BecomeMonitor",
                                 g_variant_new("(^asu)", noRules, 0U));
    if (!answer.error.empty()) {
        throw std::runtime_error("the monitor of the bus: " + answer.message);
    }
}

void BusMonitor::note(GDBusMessage* message)
{
    const Seen seen{orEmpty(g_dbus_message_get_sender(message)),
                    orEmpty(g_dbus_message_get_destination(message)) + " " +
                        orEmpty(g_dbus_message_get_path(message)) + " " +
                        orEmpty(g_dbus_message_get_interface(message)) + "." +
                        orEmpty(g_dbus_message_get_member(message))};
    const std::lock_guard lock(mMutex);
    mSeen.push_back(seen);
}

std::vector<std::string> BusMonitor::messagesOf(const std::string& sender) const
{
    const std::lock_guard lock(mMutex);
    std::vector<std::string> texts;
    for (const Seen& seen : mSeen) {
        if (seen.sender == sender) {
            texts.push_back(seen.text);
        }
    }
    return texts;
}

std::size_t BusMonitor::count() const
{
    const std::lock_guard lock(mMutex);
    return mSeen.size();
}

} // namespace kit
