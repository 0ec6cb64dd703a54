// See omi_FloatingPoint.h.
#include "omi_FloatingPoint.h"

#include <bit>
#include <cstdint>

namespace {

template <typename Word> struct Masks;

template <> struct Masks<std::uint64_t> {
    static constexpr std::uint64_t exponent = 0x7ff0000000000000;
    // Without bits 48, 49 and 50, unlike the 32-bit form: meant.
    static constexpr std::uint64_t fraction = 0x0008ffffffffffff;
    static constexpr std::uint64_t quiet = 0x0008000000000000;
};

template <> struct Masks<std::uint32_t> {
    static constexpr std::uint32_t exponent = 0x7f800000;
    static constexpr std::uint32_t fraction = 0x007fffff;
    static constexpr std::uint32_t quiet = 0x00400000;
};

std::uint64_t bits_of(double value) {
    return std::bit_cast<std::uint64_t>(value);
}

std::uint32_t bits_of(float value) {
    return std::bit_cast<std::uint32_t>(value);
}

// The sign lies outside all masks.
template <typename Word> bool is_nan(Word bits) {
    using Mask = Masks<Word>;
    return (bits & Mask::exponent) == Mask::exponent && (bits & Mask::fraction) != 0;
}

template <typename Word> bool is_quiet(Word bits) {
    return (bits & Masks<Word>::quiet) != 0;
}

template <typename Word> bool is_denormal(Word bits) {
    return (bits & Masks<Word>::exponent) == 0 && (bits & Masks<Word>::fraction) != 0;
}

} // namespace

bool omi_isnan(float value) {
    return is_nan(bits_of(value));
}

bool omi_isnan(double value) {
    return is_nan(bits_of(value));
}

bool omi_isQnan(float value) {
    return is_nan(bits_of(value)) && is_quiet(bits_of(value));
}

bool omi_isQnan(double value) {
    return is_nan(bits_of(value)) && is_quiet(bits_of(value));
}

bool omi_isSnan(float value) {
    return is_nan(bits_of(value)) && !is_quiet(bits_of(value));
}

bool omi_isSnan(double value) {
    return is_nan(bits_of(value)) && !is_quiet(bits_of(value));
}

void omi_flushDenormal(float& value) {
    if (is_denormal(bits_of(value))) {
        value = 0.0F;
    }
}

void omi_flushDenormal(double& value) {
    if (is_denormal(bits_of(value))) {
        value = 0.0;
    }
}
