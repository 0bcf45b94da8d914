// SPDX-License-Identifier: MIT
#include <csignal>
#include <glib-unix.h>
#include <memory>

#include "Agent.h"

namespace
{

gboolean onSignal(gpointer loop)
{
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_CONTINUE;
}

} // namespace

int main()
{
    const std::shared_ptr<GMainLoop> loop(g_main_loop_new(nullptr, FALSE), g_main_loop_unref);
    g_unix_signal_add(SIGINT, onSignal, loop.get());
    g_unix_signal_add(SIGTERM, onSignal, loop.get());
    Agent agent;
    agent.start();
    g_main_loop_run(loop.get());
    return 0;
}
