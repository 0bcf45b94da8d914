// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <string>

#include "pthread_helper.h"

/**
 * Separates the removal of objects from threads that look up their paths: a look-up after an object's proxy
 * is gone and before the listeners are notified would leave an empty entry for the path.
 *
 * Each Bluez owns one. Its event thread announces every removal; a caller blocks removals while it looks up
 * paths and makes calls on them, and lets a removal that is under way finish first.
 */
class RemovalGate
{
public:
    /// Announces the removal of `path` on the event thread, until the listeners have been notified.
    class Removal
    {
    public:
        Removal(RemovalGate& gate, const std::string& path);
        ~Removal();
        Removal(const Removal&) = delete;
        Removal& operator=(const Removal&) = delete;

    private:
        RemovalGate& _gate;
    };

    /// While it is held, removals can't erase anything: a removal holds it while it erases. It is locked
    /// before every other lock, and the event thread takes no listener's lock under it.
    pthread_helper::mutex& hold() { return _hold; }
    /// Whether a removal is announced. Any thread.
    bool removing() const { return _removing; }
    /// Whether the removal of `path` is announced. Any thread.
    bool isGoing(const std::string& path);

private:
    pthread_helper::mutex _hold;
    std::atomic<bool> _removing{false};
    pthread_helper::mutex _pathMutex; ///< guards _path; nothing is locked under it
    std::string _path;
};
