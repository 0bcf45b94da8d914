// SPDX-License-Identifier: MIT
// Must not compile: the argument doesn't fit its format.
#include "STBLogger.h"

void logWrongArgument(const char* text)
{
    LOG_INFO("%d", text);
}
