// SPDX-License-Identifier: MIT
#pragma once

#include <ostream>
#include <string>

namespace kit
{

/// The base of a row in a table of cases; `name` is part of the name of its test.
struct NamedCase {
    const char* name;

    friend std::ostream& operator<<(std::ostream& out, const NamedCase& row) { return out << row.name; }
};

/// Names the tests of a table, as the last argument of INSTANTIATE_TEST_SUITE_P.
inline constexpr auto named = [](const auto& given) { return std::string(given.param.name); };

} // namespace kit
