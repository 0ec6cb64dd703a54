// A ready converter of file names for mem_ToOs: names are UTF-8. A client that tracks memory registers
// it once, before the tracker ends, and needs nothing else:
//
//   kxm::register_utf8_names();
//
// A name that does not fit comes back empty, so that no file appears under a name cut short. A byte
// that is no UTF-8 becomes 0xdc00 plus itself, which Linux turns back into the byte.
#pragma once

#include <cstring>

#include "mem_ToOs.h"

namespace kxm {

class Utf8Names final : public KXMToOsBase {
public:
    unsigned short const* ToUTF16(char const* source, unsigned short* buffer,
                                  int capacity) override {
        int at = 0;
        for (const char* next = source; *next != '\0';) {
            const unsigned long code = decode(next);
            const int units = code < 0x10000 ? 1 : 2;
            if (at + units >= capacity) {
                at = 0;
                break;
            }
            if (units == 2) {
                buffer[at++] = static_cast<unsigned short>(0xd800 + ((code - 0x10000) >> 10));
                buffer[at++] = static_cast<unsigned short>(0xdc00 + (code & 0x3ff));
            } else {
                buffer[at++] = static_cast<unsigned short>(code);
            }
        }
        if (capacity > 0) {
            buffer[at] = 0;
        }
        return buffer;
    }

    /// The text as it is: the systems' narrow file functions take it so.
    char const* ToLocale(char const* source, char* buffer, int capacity) override {
        const std::size_t bytes = std::strlen(source) + 1;
        if (capacity > 0 && bytes <= static_cast<std::size_t>(capacity)) {
            std::memcpy(buffer, source, bytes);
        } else if (capacity > 0) {
            buffer[0] = '\0';
        }
        return buffer;
    }

private:
    // The code at `next`, which moves behind it.
    static unsigned long decode(const char*& next) {
        const unsigned long first = static_cast<unsigned char>(*next);
        const int length = first < 0x80   ? 1
                           : first < 0xc2 ? 0
                           : first < 0xe0 ? 2
                           : first < 0xf0 ? 3
                           : first < 0xf5 ? 4
                                          : 0;
        unsigned long code = length < 2 ? first : first & (0x7fUL >> length);
        bool good = length != 0;
        for (int i = 1; good && i < length; ++i) {
            const unsigned long byte = static_cast<unsigned char>(next[i]);
            good = (byte & 0xc0) == 0x80;
            code = code << 6 | (byte & 0x3f);
        }
        const bool too_long = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
        if (!good || too_long || (code >= 0xd800 && code < 0xe000) || code > 0x10ffff) {
            ++next;
            return 0xdc00 + first;
        }
        next += length;
        return code;
    }
};

inline void register_utf8_names() {
    static Utf8Names names;
    mem_ToOs::Register(&names);
}

} // namespace kxm
