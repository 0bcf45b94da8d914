// SPDX-License-Identifier: MIT
#pragma once

#include <unwind.h>

/// The report of the fatal path. It uses plain standard output and standard error, never the logger, which
/// stands on the very locks whose checks come here.
class STBBackTrace
{
public:
    /// Reports a failed check on standard output and the stack on standard error, then kills the process with
    /// signal 9. `expression` is the check's text, `object` the one whose call gave `result`.
    static void failedCheck(const char* expression, int result, const char* file, int line,
                            const void* object);

    /// Writes one stack frame to the FILE* `stream`; for _Unwind_Backtrace. Always lets the walk go on.
    static _Unwind_Reason_Code backtrace_helper(_Unwind_Context* context, void* stream);
};
