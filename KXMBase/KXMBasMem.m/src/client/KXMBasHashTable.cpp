// What the hash table needs outside its template: C strings as keys, and its assertions.
#include "KXMBasHashTable.h"

#include <cstdint>
#include <cstring>

#include "platform/os.h"

void kxm::hash_table_failed(const char* condition, unsigned int line) {
    os::assertion_failed(condition, "KXMBasHashTable", line);
}

template <> unsigned int HashValue<const char*>(const char* const& key, unsigned int size) {
    constexpr std::size_t common = 28; // of paths below one root
    std::size_t length = std::strlen(key);
    const char* text = key;
    if (length > common) {
        text += common;
        length -= common;
    }
    std::uint32_t sum = 0, factor = 1;
    // The walk starts one place before the last character, on purpose. Both figures wrap.
    for (std::size_t i = length; i-- > 1;) {
        const auto place = static_cast<std::uint32_t>(i - 1);
        // Signed on every compiler, so that both systems agree.
        // NOLINTNEXTLINE(bugprone-signed-char-misuse,cert-str34-c): letters above 127 count as negative, which is meant
        const auto character = static_cast<std::int32_t>(static_cast<signed char>(text[place]));
        sum += static_cast<std::uint32_t>(character) * factor;
        factor += place;
    }
    return sum % size;
}
