// SPDX-License-Identifier: MIT
#include "Printable.h"

#include <cstring>
#include <glib.h>

namespace
{

constexpr char kReplacement = '?';
constexpr unsigned int kFirstPrintable = 0x20;
constexpr unsigned int kDelete = 0x7F;
constexpr unsigned int kLastControl = 0x9F;     // of the second range, which starts at kDelete
constexpr unsigned int kLastUnicode = 0x10FFFF; // GLib returns more for an invalid sequence

bool isControl(unsigned int code)
{
    return code < kFirstPrintable || (code >= kDelete && code <= kLastControl);
}

// One character, or one byte that isn't part of any.
struct Piece {
    std::size_t length;
    bool control;
};

Piece firstPiece(const char* text, std::size_t length)
{
    const auto byte = static_cast<unsigned char>(*text);
    if (byte > kDelete) {
        const gunichar code = g_utf8_get_char_validated(text, static_cast<gssize>(length));
        if (code <= kLastUnicode) {
            return {static_cast<std::size_t>(g_utf8_next_char(text) - text), isControl(code)};
        }
    }
    return {1, isControl(byte)};
}

// Up to the first control character.
std::size_t printableLength(const char* text, std::size_t length)
{
    std::size_t at = 0;
    while (at < length) {
        const Piece piece = firstPiece(text + at, length - at);
        if (piece.control) {
            return at;
        }
        at += piece.length;
    }
    return length;
}

std::string withoutControls(const char* text, std::size_t length)
{
    std::string result;
    for (std::size_t at = 0; at < length;) {
        const Piece piece = firstPiece(text + at, length - at);
        piece.control ? result.append(1, kReplacement) : result.append(text + at, piece.length);
        at += piece.length;
    }
    return result;
}

} // namespace

Printable::Printable(const std::string& text) : Printable(text.data(), text.size()) {}

Printable::Printable(const char* text)
    : Printable(text != nullptr ? text : "", text != nullptr ? std::strlen(text) : 0)
{
}

Printable::Printable(const char* text, std::size_t length) : _text(text)
{
    if (printableLength(text, length) < length) {
        _replaced = withoutControls(text, length);
        _text = _replaced.c_str();
    }
}
