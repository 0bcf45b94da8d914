// SPDX-License-Identifier: MIT
#pragma once

#include <regex.h>
#include <string>
#include <vector>

/// A POSIX regular expression (regcomp, regexec), compiled once and matched often. Not thread-safe.
class NSRegExp
{
public:
    /// Compiles `pattern`; `flags` go to regcomp. A pattern that doesn't compile is reported on standard
    /// error and matches nothing.
    NSRegExp(const std::string& pattern, int flags);
    ~NSRegExp();
    NSRegExp(const NSRegExp&) = delete;
    NSRegExp& operator=(const NSRegExp&) = delete;

    /// Searches `text`; `flags` go to regexec. On a match `groups` holds the whole match and then each group,
    /// empty for a group that didn't take part; without a match it is cleared. An invalid expression is
    /// reported on standard error and leaves `groups` unchanged.
    bool match(const std::string& text, std::vector<std::string>& groups, int flags);

private:
    std::string _pattern;
    regex_t _expression{};
    bool _valid = false;
    int _groupCount = 0; ///< groups and one for the whole match; 0 while invalid
};
