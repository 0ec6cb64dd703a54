// See utf16.h.
#include "platform/linux/utf16.h"

namespace os {
namespace {

constexpr unsigned escape = 0xdc00, escape_first = 0xdc80, escape_last = 0xdcff;

bool is_high(unsigned code) {
    return code >= 0xd800 && code < 0xdc00;
}

bool is_low(unsigned code) {
    return code >= 0xdc00 && code < 0xe000;
}

// Length and value of the sequence at `text`; length 0 when it is none.
unsigned decode(const unsigned char* text, unsigned& code) {
    const unsigned first = text[0];
    const unsigned length = first < 0x80   ? 1
                            : first < 0xc2 ? 0
                            : first < 0xe0 ? 2
                            : first < 0xf0 ? 3
                            : first < 0xf5 ? 4
                                           : 0;
    code = length < 2 ? first : first & (0x7fU >> length);
    for (unsigned i = 1; i < length; ++i) {
        if ((text[i] & 0xc0U) != 0x80) {
            return 0;
        }
        code = code << 6 | (text[i] & 0x3fU);
    }
    constexpr unsigned least[] = {0, 0, 0x80, 0x800, 0x10000};
    return code < least[length] || is_high(code) || is_low(code) || code > 0x10ffff ? 0 : length;
}

} // namespace

bool utf8_of(const unsigned short* wide, char* narrow, std::size_t capacity) {
    std::size_t at = 0;
    const auto put = [&](unsigned byte) {
        if (at + 1 < capacity) {
            narrow[at++] = static_cast<char>(static_cast<unsigned char>(byte));
            return true;
        }
        return false;
    };
    while (*wide != 0) {
        unsigned code = *wide++;
        bool fits = false;
        if (code >= escape_first && code <= escape_last) {
            if (!put(code - escape)) {
                return false;
            }
            continue;
        }
        if (is_high(code) || is_low(code)) {
            const unsigned low = *wide;
            if (!is_high(code) || !is_low(low)) {
                return false;
            }
            ++wide;
            code = 0x10000 + ((code - 0xd800) << 10) + (low - 0xdc00);
        }
        if (code < 0x80) {
            fits = put(code);
        } else if (code < 0x800) {
            fits = put(0xc0 | (code >> 6)) && put(0x80 | (code & 0x3f));
        } else if (code < 0x10000) {
            fits = put(0xe0 | (code >> 12)) && put(0x80 | ((code >> 6) & 0x3f)) &&
                   put(0x80 | (code & 0x3f));
        } else {
            fits = put(0xf0 | (code >> 18)) && put(0x80 | ((code >> 12) & 0x3f)) &&
                   put(0x80 | ((code >> 6) & 0x3f)) && put(0x80 | (code & 0x3f));
        }
        if (!fits) {
            return false;
        }
    }
    narrow[at] = '\0';
    return true;
}

std::size_t utf16_of(const char* narrow, unsigned short* wide, std::size_t capacity) {
    const auto* text = reinterpret_cast<const unsigned char*>(narrow);
    std::size_t at = 0;
    while (*text != 0 && at + 1 < capacity) {
        unsigned code = 0;
        const unsigned length = decode(text, code);
        if (length == 0) {
            wide[at++] = static_cast<unsigned short>(escape + *text++);
        } else if (code < 0x10000) {
            wide[at++] = static_cast<unsigned short>(code);
            text += length;
        } else if (at + 2 < capacity) {
            wide[at++] = static_cast<unsigned short>(0xd800 + ((code - 0x10000) >> 10));
            wide[at++] = static_cast<unsigned short>(0xdc00 + (code & 0x3ff));
            text += length;
        } else {
            break;
        }
    }
    wide[at] = 0;
    return at;
}

} // namespace os
