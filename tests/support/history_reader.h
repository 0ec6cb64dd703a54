// The bytes of a history, which say what operations it is made of; zeros when it has ended.
#pragma once

#include <cstddef>
#include <cstdint>

namespace test {

class HistoryReader {
public:
    HistoryReader(const std::uint8_t* data, std::size_t size) : at_(data), end_(data + size) {}
    bool done() const { return at_ == end_; }
    std::size_t byte() { return done() ? 0 : *at_++; }
    std::size_t word() { return byte() | byte() << 8; }

private:
    const std::uint8_t* at_;
    const std::uint8_t* end_;
};

} // namespace test
