// SPDX-License-Identifier: MIT
#pragma once

#include <unwind.h>

/// Reports fatal errors. Uses plain standard output and standard error, never the logger, which relies on the
/// very locks whose failed checks are reported here.
class STBBackTrace
{
public:
    /// Reports a failed check on standard output and the stack on standard error, then kills the process with
    /// signal 9. `expression` is the text of the check; `object` is the object whose call returned `result`.
    static void failedCheck(const char* expression, int result, const char* file, int line,
                            const void* object);

    /// Writes one stack frame to the FILE* `stream`; a callback for _Unwind_Backtrace. Always continues the
    /// walk.
    static _Unwind_Reason_Code backtrace_helper(_Unwind_Context* context, void* stream);
};
