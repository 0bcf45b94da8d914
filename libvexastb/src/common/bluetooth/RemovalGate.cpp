// SPDX-License-Identifier: MIT
#include "RemovalGate.h"

RemovalGate::Removal::Removal(RemovalGate& gate, const std::string& path) : _gate(gate)
{
    const pthread_helper::scoped_lock lock(_gate._pathMutex);
    _gate._path = path;
    _gate._removing = true;
}

RemovalGate::Removal::~Removal()
{
    _gate._removing = false;
}

bool RemovalGate::isGoing(const std::string& path)
{
    if (!_removing) {
        return false;
    }
    const pthread_helper::scoped_lock lock(_pathMutex);
    return _removing && _path == path;
}
