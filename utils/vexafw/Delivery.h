// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "Firmware.h"

/// What the daemon would send of an image, determined by streaming it as an update does.
struct Delivery {
    std::size_t announced = 0; ///< bytes of payload that the header announces
    std::size_t present = 0;   ///< bytes in the file after the header
    std::size_t sent = 0;      ///< bytes that the daemon would send
    std::size_t blocks = 0;    ///< number of writes
    std::size_t lastBlock = 0; ///< bytes in the last write
    std::size_t version = 0;   ///< of the header

    /// Streams `firmware`, which must be positioned at its payload, to its end.
    static Delivery of(Firmware& firmware);

    /// Whether the daemon would send exactly what the header says: the whole payload and nothing more.
    bool isExact() const { return sent == announced && version != 0; }

    /// What the image's creator should know, one sentence each; empty if all is well.
    std::vector<std::string> warnings() const;
};
