// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "Firmware.h"

/// What the daemon would make of an image, found by streaming it as the update does.
struct Delivery {
    std::size_t announced = 0; ///< bytes of payload that the header announces
    std::size_t present = 0;   ///< bytes in the file behind the header
    std::size_t sent = 0;      ///< bytes that the daemon would send
    std::size_t blocks = 0;    ///< in so many writes
    std::size_t lastBlock = 0; ///< bytes of the last one
    std::size_t version = 0;   ///< of the header

    /// Streams `firmware`, which stands at its payload, to its end.
    static Delivery of(Firmware& firmware);

    /// The daemon would send exactly what the header says: the payload, whole and nothing more.
    bool isExact() const { return sent == announced && version != 0; }

    /// What its maker ought to know about the image, one sentence each; empty for a plain good one.
    std::vector<std::string> warnings() const;
};
