// SPDX-License-Identifier: MIT
#include "NSTime.h"
