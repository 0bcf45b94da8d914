// SPDX-License-Identifier: MIT
#include "NSRegExp.h"

#include <algorithm>
#include <alloca.h>
#include <cstddef>
#include <cstdio>

// NOLINTNEXTLINE(modernize-pass-by-value): callers pass literals and long-lived patterns alike
NSRegExp::NSRegExp(const std::string& pattern, int flags) : _pattern(pattern)
{
    if (regcomp(&_expression, _pattern.c_str(), flags) != 0) {
        std::fprintf(stderr, "NSRegExp: Error while compiling regexp: %s\n", _pattern.c_str());
        return;
    }
    _valid = true;
    _groupCount = static_cast<int>(_expression.re_nsub) + 1;
}

NSRegExp::~NSRegExp()
{
    regfree(&_expression); // also one that failed to compile
}

bool NSRegExp::match(const std::string& text, std::vector<std::string>& groups, int flags)
{
    if (!_valid) {
        std::fprintf(stderr, "NSRegExp: Error while matching (invalid regexp: %s)\n", _pattern.c_str());
        return false;
    }
    groups.clear();
    const auto count = static_cast<std::size_t>(_groupCount);
    // cppcheck-suppress allocaCalled ; a handful of groups, and a match allocates nothing
    auto* matches = static_cast<regmatch_t*>(alloca(count * sizeof(regmatch_t)));
    std::fill_n(matches, count, regmatch_t{-1, -1}); // with REG_NOSUB regexec leaves them alone
    if (regexec(&_expression, text.c_str(), count, matches, flags) != 0) {
        return false;
    }
    for (std::size_t i = 0; i < count; ++i) {
        const regmatch_t& group = matches[i];
        groups.push_back(group.rm_so < 0 ? std::string()
                                         : text.substr(static_cast<std::size_t>(group.rm_so),
                                                       static_cast<std::size_t>(group.rm_eo - group.rm_so)));
    }
    return true;
}
