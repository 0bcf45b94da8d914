// SPDX-License-Identifier: MIT
#include "STBBackTrace.h"

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <dlfcn.h>
#include <unistd.h>

namespace
{

constexpr const char* kBanner =
    "========================================================================================";

std::uintptr_t programCounter(_Unwind_Context* context)
{
#if defined(__arm__)
    constexpr std::uint32_t kProgramCounter = 15;
    std::uint32_t value = 0;
    _Unwind_VRS_Get(context, _UVRSC_CORE, kProgramCounter, _UVRSD_UINT32, &value);
    const std::uintptr_t address = value;
#else
    const std::uintptr_t address = _Unwind_GetIP(context);
#endif
    return address & ~static_cast<std::uintptr_t>(1); // the lowest bit marks Thumb code
}

void printSymbol(std::FILE* stream, void* address)
{
    Dl_info info{};
    if (dladdr(address, &info) == 0) {
        std::fprintf(stream, " - error resolving address");
    } else if (info.dli_saddr == nullptr) {
        std::fprintf(stream, " - no matching symbol");
    } else {
        const auto distance =
            reinterpret_cast<std::uintptr_t>(address) - reinterpret_cast<std::uintptr_t>(info.dli_saddr);
        std::fprintf(stream, " %s (+0x%x) (%s at %p) ", info.dli_sname, static_cast<unsigned int>(distance),
                     info.dli_fname, info.dli_fbase);
    }
}

} // namespace

void STBBackTrace::failedCheck(const char* expression, int result, const char* file, int line,
                               const void* object)
{
    std::puts(kBanner);
    std::printf(" ASSERT (%s) ret=%d on %s:%d, this:%p\n", expression, result, file, line, object);
    std::puts(kBanner);
    _Unwind_Backtrace(backtrace_helper, stderr);
    std::puts(kBanner);
    kill(getpid(), SIGKILL);
    std::puts(kBanner); // not reached
}

_Unwind_Reason_Code STBBackTrace::backtrace_helper(_Unwind_Context* context, void* stream)
{
    auto* file = static_cast<std::FILE*>(stream);
    const std::uintptr_t counter = programCounter(context);
    if (counter == 0) {
        std::fprintf(file, "Unknown address");
    } else {
        auto* address = reinterpret_cast<void*>(counter); // NOLINT(performance-no-int-to-ptr)
        std::fprintf(file, "%p", address);
        printSymbol(file, address);
    }
    std::fprintf(file, "\n");
    std::fflush(file);
    return _URC_NO_REASON;
}
