// SPDX-License-Identifier: MIT
#pragma once

#include "sim/bluez/Variant.h"

#include <gio/gio.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

/// A plain client of the bus for the tests of the simulator: calls by name, and
/// the signals of org.bluez in the order in which they came. It shares no code
/// with the simulator but the owner of a GVariant.
class SimClient
{
public:
    using Variant = vexasim::Variant;

    struct Signal {
        std::string path;
        std::string member;
        std::string text; ///< the parameters as GVariant text, without types
        Variant parameters;
    };

    /// What a call came to: either the reply or the error.
    struct Answer {
        Variant reply;
        std::string error; ///< name of the D-Bus error, "" for a reply
        std::string message;
    };

    explicit SimClient(const std::string& address)
    {
        GError* error = nullptr;
        mConnection = g_dbus_connection_new_for_address_sync(
            address.c_str(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, &error);
        if (mConnection == nullptr)
            throw std::runtime_error(error->message);
        mFilter = g_dbus_connection_add_filter(mConnection, &SimClient::onMessage, this, nullptr);
        callOn("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.AddMatch",
               g_variant_new("(s)", "type='signal'"));
    }

    ~SimClient()
    {
        leave();
        // The filter's thread has closed the connection, so the filter runs no more; the thread sanitizer
        // doesn't see that by GDBus's locks, but by this one.
        const std::lock_guard lock(mMutex);
    }
    SimClient(const SimClient&) = delete;
    SimClient& operator=(const SimClient&) = delete;

    /// Leaves the bus.
    void leave()
    {
        if (mConnection == nullptr)
            return;
        g_dbus_connection_remove_filter(mConnection, mFilter);
        g_dbus_connection_close_sync(mConnection, nullptr, nullptr);
        g_clear_object(&mConnection);
    }

    std::string uniqueName() const { return g_dbus_connection_get_unique_name(mConnection); }

    /// `method` is interface and member, "org.bluez.Adapter1.StartDiscovery".
    Answer call(const std::string& path, const std::string& method, const Variant& parameters = {},
                int timeoutMs = 10000)
    {
        return callOn("org.bluez", path, method, parameters, timeoutMs);
    }

    Answer callOn(const std::string& name, const std::string& path, const std::string& method,
                  const Variant& parameters = {}, int timeoutMs = 10000)
    {
        const auto dot = method.rfind('.');
        GError* error = nullptr;
        GVariant* reply = g_dbus_connection_call_sync(
            mConnection, name.c_str(), path.c_str(), method.substr(0, dot).c_str(),
            method.substr(dot + 1).c_str(), parameters.get(), nullptr, G_DBUS_CALL_FLAGS_NONE, timeoutMs,
            nullptr, &error);
        if (reply != nullptr)
            return {Variant(reply), "", ""};
        return answerFrom(error);
    }

    /// The value of a property as text, or the error's name in brackets.
    std::string get(const std::string& path, const std::string& interface, const std::string& property)
    {
        const Answer answer = call(path, "org.freedesktop.DBus.Properties.Get",
                                   g_variant_new("(ss)", interface.c_str(), property.c_str()));
        if (!answer.error.empty())
            return "[" + answer.error + "]";
        return textOf(answer.reply);
    }

    Answer set(const std::string& path, const std::string& interface, const std::string& property,
               GVariant* value)
    {
        return call(path, "org.freedesktop.DBus.Properties.Set",
                    g_variant_new("(ssv)", interface.c_str(), property.c_str(), value));
    }

    /// The signals of org.bluez so far.
    std::vector<Signal> signals() const
    {
        std::lock_guard lock(mMutex);
        return mSignals;
    }

    void clearSignals()
    {
        std::lock_guard lock(mMutex);
        mSignals.clear();
    }

    /// Waits for a signal whose path, member and parameter text contain the words.
    bool await(const std::string& path, const std::string& member, const std::string& words)
    {
        std::unique_lock lock(mMutex);
        return mArrived.wait_for(lock, std::chrono::seconds{10}, [&] {
            return std::any_of(mSignals.begin(), mSignals.end(), [&](const Signal& signal) {
                return signal.path == path && signal.member == member &&
                       signal.text.find(words) != std::string::npos;
            });
        });
    }

    /// "member path-or-object words" lines, for comparing an order.
    std::vector<std::string> story() const
    {
        std::vector<std::string> lines;
        for (const Signal& signal : signals()) {
            const char* object = nullptr;
            if (signal.member.rfind("Interfaces", 0) == 0)
                g_variant_get_child(signal.parameters.get(), 0, "&o", &object);
            lines.push_back(signal.member + " " +
                            (object != nullptr ? object : signal.path + " " + signal.text));
        }
        return lines;
    }

    static std::string textOf(const Variant& value)
    {
        char* printed = g_variant_print(value.get(), FALSE);
        std::string text = printed;
        g_free(printed);
        return text;
    }

private:
    static Answer answerFrom(GError* error)
    {
        Answer answer;
        char* name = g_dbus_error_get_remote_error(error);
        answer.error = name != nullptr ? name : "local";
        g_free(name);
        g_dbus_error_strip_remote_error(error);
        answer.message = error->message;
        g_error_free(error);
        return answer;
    }

    /// On GDBus's thread.
    static GDBusMessage* onMessage(GDBusConnection*, GDBusMessage* message, gboolean incoming, gpointer data)
    {
        auto* self = static_cast<SimClient*>(data);
        const char* path = g_dbus_message_get_path(message);
        if (incoming == FALSE || g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_SIGNAL ||
            g_strcmp0(path, "/org/freedesktop/DBus") == 0)
            return message;
        GVariant* body = g_dbus_message_get_body(message);
        const Variant parameters(body != nullptr ? g_variant_ref(body) : g_variant_new_tuple(nullptr, 0));
        std::lock_guard lock(self->mMutex);
        self->mSignals.push_back({path, g_dbus_message_get_member(message), textOf(parameters), parameters});
        self->mArrived.notify_all();
        return message;
    }

    GDBusConnection* mConnection = nullptr;
    unsigned mFilter = 0;
    mutable std::mutex mMutex;
    std::condition_variable mArrived;
    std::vector<Signal> mSignals;
};
