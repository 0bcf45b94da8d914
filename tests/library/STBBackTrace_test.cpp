// SPDX-License-Identifier: MIT
#include "STBBackTrace.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/mman.h>

#include "tests/kit/ChildProcess.h"
#include "tests/kit/Handle.h"

// The linker sends the library's calls of this function here (--wrap).
_Unwind_Ptr realGetIp(_Unwind_Context*) __asm__("__real__Unwind_GetIP");
_Unwind_Ptr wrappedGetIp(_Unwind_Context*) __asm__("__wrap__Unwind_GetIP");

// At an even address, since the trace leaves out the lowest bit of an address.
#define TRACED_FUNCTION __attribute__((noinline, aligned(16)))

// Exported, so that the stack trace knows them.
extern "C" {
TRACED_FUNCTION int innerFunction(std::FILE* stream);
TRACED_FUNCTION int outerFunction(std::FILE* stream);
}

namespace
{

const std::uintptr_t* frameAddress = nullptr;

} // namespace

_Unwind_Ptr wrappedGetIp(_Unwind_Context* context)
{
    return frameAddress != nullptr ? *frameAddress : realGetIp(context);
}

int innerFunction(std::FILE* stream)
{
    return static_cast<int>(_Unwind_Backtrace(STBBackTrace::backtrace_helper, stream)) + 1;
}

int outerFunction(std::FILE* stream)
{
    return innerFunction(stream) + 1;
}

namespace
{

// Not exported, so dladdr doesn't know it.
TRACED_FUNCTION int hiddenFunction()
{
    return std::rand();
}

// What the helper writes for a frame at this address. Read from the file itself: what isn't flushed is
// missing.
std::string traced(std::uintptr_t address)
{
    const kit::Handle file(memfd_create("trace", 0));
    std::FILE* stream = fdopen(dup(file.get()), "w");
    std::setvbuf(stream, nullptr, _IOFBF, BUFSIZ);
    frameAddress = &address;
    EXPECT_EQ(0, STBBackTrace::backtrace_helper(nullptr, stream)); // the walk goes on
    frameAddress = nullptr;
    const std::string text = kit::contentOf(file.get());
    std::fclose(stream);
    return text;
}

std::string asPointer(std::uintptr_t address)
{
    char text[32];
    std::snprintf(text, sizeof text, "%p",
                  reinterpret_cast<void*>(address)); // NOLINT(performance-no-int-to-ptr)
    return text;
}

TEST(AFrame, WithoutAnAddressIsUnknown)
{
    EXPECT_EQ("Unknown address\n", traced(0));
    EXPECT_EQ("Unknown address\n", traced(1)); // the lowest bit doesn't count
}

TEST(AFrame, OutsideOfEveryObjectCantBeResolved)
{
    EXPECT_EQ("0x10 - error resolving address\n", traced(0x10));
    EXPECT_EQ("0x10 - error resolving address\n", traced(0x11));
}

TEST(AFrame, OfAFunctionThatIsntExportedHasNoSymbol)
{
    const auto address = reinterpret_cast<std::uintptr_t>(&hiddenFunction);

    EXPECT_EQ(asPointer(address) + " - no matching symbol\n", traced(address));
}

TEST(AFrame, OfAnExportedFunctionHasItsNameItsDistanceAndItsObject)
{
    const auto address = reinterpret_cast<std::uintptr_t>(&innerFunction);
    Dl_info info{};
    ASSERT_NE(0, dladdr(reinterpret_cast<void*>(&innerFunction), &info));
    const std::string object = std::string(" (") + info.dli_fname + " at " +
                               asPointer(reinterpret_cast<std::uintptr_t>(info.dli_fbase)) + ") \n";

    EXPECT_EQ(asPointer(address) + " innerFunction (+0x0)" + object, traced(address));
    EXPECT_EQ(asPointer(address) + " innerFunction (+0x0)" + object, traced(address + 1)); // Thumb's bit
    EXPECT_EQ(asPointer(address + 10) + " innerFunction (+0xa)" + object, traced(address + 10));
}

TEST(AWalk, TracesEachFrameFromTheInnermostOutward)
{
    const kit::Handle file(memfd_create("trace", 0));
    std::FILE* stream = fdopen(dup(file.get()), "w");
    EXPECT_GT(outerFunction(stream), 0);
    std::fclose(stream);
    const std::string text = kit::contentOf(file.get());

    const auto inner = text.find(" innerFunction (+0x");
    const auto outer = text.find(" outerFunction (+0x");
    EXPECT_NE(std::string::npos, inner) << text;
    EXPECT_NE(std::string::npos, outer) << text;
    EXPECT_LT(inner, outer) << text;
    EXPECT_THAT(kit::linesOf(text).size(), testing::Ge(3U)); // and goes on to main
}

} // namespace
