// SPDX-License-Identifier: MIT
#pragma once

#include <csignal>
#include <glib-unix.h>
#include <memory>

namespace vexasim
{

/// The default main context, iterated until SIGINT, SIGTERM or `quit` ends it.
class MainLoop
{
public:
    MainLoop()
    {
        for (const int signal : {SIGINT, SIGTERM}) {
            g_unix_signal_add(signal, &MainLoop::onSignal, mLoop.get());
        }
    }

    void run() const { g_main_loop_run(mLoop.get()); }
    void quit() const { g_main_loop_quit(mLoop.get()); }

private:
    static gboolean onSignal(gpointer loop)
    {
        g_main_loop_quit(static_cast<GMainLoop*>(loop));
        return G_SOURCE_CONTINUE;
    }

    std::shared_ptr<GMainLoop> mLoop{g_main_loop_new(nullptr, FALSE), g_main_loop_unref};
};

} // namespace vexasim
