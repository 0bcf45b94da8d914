// SPDX-License-Identifier: MIT
#pragma once

#include "sim/model/UpdateReceiver.h"

#include <string>

/// The key that this build shares with its remotes.
inline vexasim::UpdateKey sharedKey()
{
    constexpr char kKeyFile[] = VEXA_OTA_KEY_FILE; // no name if the build has no key of its own
    const std::string file(kKeyFile);
    return file.empty() ? vexasim::developmentKey() : vexasim::readKeyFile(file);
}
