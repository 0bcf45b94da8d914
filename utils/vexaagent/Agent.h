// SPDX-License-Identifier: MIT
#pragma once

#include <gio/gio.h>
#include <string>

#include "NSRegExp.h"

/// The pairing agent of a box without keys or display. bluetoothd pairs nothing unless some program has
/// registered an agent, and asks the agent when a device itself requests pairing. This one registers as the
/// default agent whenever bluetoothd appears, lets devices with the remote's name pair without a passkey, and
/// refuses everything else.
///
/// Sources: org.bluez.AgentManager1 and org.bluez.Agent1. All of it runs on the thread of the default main
/// context.
class Agent
{
public:
    Agent();
    ~Agent();
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    /// Connects to the system bus, and reconnects whenever the connection is lost; until it succeeds, it
    /// tries once a second.
    void start();

private:
    struct Question;

    static gboolean onRetry(gpointer self);
    static void onBusClosed(GDBusConnection*, gboolean, GError*, gpointer self);
    static void onStackAppeared(GDBusConnection*, const char*, const char*, gpointer self);
    static void onStackVanished(GDBusConnection*, const char*, gpointer self);
    static void onRegistered(GObject* connection, GAsyncResult* result, gpointer self);
    static void onMadeDefault(GObject* connection, GAsyncResult* result, gpointer self);
    static void onCall(GDBusConnection*, const char*, const char*, const char*, const char* method,
                       GVariant* parameters, GDBusMethodInvocation* invocation, gpointer self);
    static void onName(GObject* connection, GAsyncResult* result, gpointer data);

    bool connect();
    void leave();
    void retryLater();
    void callManager(const char* method, GVariant* parameters, GAsyncReadyCallback done);
    void askForName(const char* device, GDBusMethodInvocation* invocation);
    bool isRemote(const std::string& name);

    GDBusConnection* mConnection = nullptr;
    GDBusNodeInfo* mInterfaces;
    GCancellable* mCancellable = nullptr; ///< for the calls in progress
    NSRegExp mName;
    guint mObject = 0;
    guint mWatch = 0;
    guint mRetry = 0;
    bool mWaiting = false; ///< the missing bus has been logged
};
