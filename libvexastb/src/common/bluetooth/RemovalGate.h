// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <string>

#include "pthread_helper.h"

/**
 * Keeps the removal of objects apart from a thread that looks up their paths: a look-up that comes between
 * the end of an object's proxy and the listeners' hearing of it would leave an empty entry for the path.
 *
 * Each Bluez owns one. Its event thread announces every removal; a caller holds removals off while it looks
 * paths up and calls on them, and lets one that is under way go first.
 */
class RemovalGate
{
public:
    /// Announces the removal of `path` on the event thread, until the listeners have heard of it.
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

    /// Whoever holds it keeps removals from erasing anything: a removal takes it for as long as it erases.
    /// Comes before every other lock, and the event thread takes no lock of a listener under it.
    pthread_helper::mutex& hold() { return _hold; }
    /// Whether a removal is announced. Any thread.
    bool removing() const { return _removing; }
    /// Whether it is `path` whose removal is announced. Any thread.
    bool isGoing(const std::string& path);

private:
    pthread_helper::mutex _hold;
    std::atomic<bool> _removing{false};
    pthread_helper::mutex _pathMutex; ///< guards _path; nothing is locked under it
    std::string _path;
};
