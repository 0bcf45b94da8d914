// SPDX-License-Identifier: MIT
// Built for 32-bit ARM by its test: writes the stack of three functions to standard output.
#include <cstdio>

#include "STBBackTrace.h"

// Exported, so that the stack trace knows them.
extern "C" {
__attribute__((noinline)) int innerFunction();
__attribute__((noinline)) int outerFunction();
}

// The additions make each caller keep its frame.
int innerFunction()
{
    return static_cast<int>(_Unwind_Backtrace(STBBackTrace::backtrace_helper, stdout)) + 1;
}

int outerFunction()
{
    return innerFunction() + 1;
}

int main()
{
    return outerFunction() > 0 ? 0 : 1;
}
