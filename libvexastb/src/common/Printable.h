// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <string>

/**
 * Makes text from outside, such as a device name, safe to show on one line of a log or terminal: each control
 * character becomes a `?`. Control characters are the bytes 00 to 1F and 7F, U+0080 to U+009F, and the bytes
 * 80 to 9F where they aren't part of a valid UTF-8 sequence. Everything else stays as it is.
 *
 *     LOG_DEBUG("RC found %s", Printable(name).text());
 *
 * A text without control characters isn't copied and costs no memory: the object points to it, so the text
 * must outlive the object.
 */
class Printable
{
public:
    explicit Printable(const std::string& text);
    /// A null pointer is shown as an empty text.
    explicit Printable(const char* text);
    Printable(const Printable&) = delete;
    Printable& operator=(const Printable&) = delete;

    /// Valid as long as the object is.
    const char* text() const { return _text; }

private:
    Printable(const char* text, std::size_t length);

    std::string _replaced; ///< the text with its control characters replaced; empty if it has none
    const char* _text;
};
