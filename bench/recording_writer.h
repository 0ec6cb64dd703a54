// Writes recordings of any length as a tracked solver would leave them, much faster than one runs: four
// threads in nested phases; mostly small blocks that live shortly, some that live long, arrays that grow
// by realloc; a steady number of live blocks. The same arguments give the same files.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace bench {

class RecordingWriter {
public:
    RecordingWriter(std::string base, std::size_t live_blocks)
        : base_(std::move(base)), live_(live_blocks) {
        bytes_.reserve(4 + full_file * record_bytes);
    }

    void write(std::uint64_t events) {
        while (written_ < events) {
            step();
        }
        flush();
        write_phases();
    }

private:
    static constexpr std::size_t full_file = 131072, record_bytes = 40;
    static constexpr int phases = 9;
    enum : std::int32_t { malloc_ = 0, free_ = 1, realloc_ = 4, calloc_ = 5 };
    static constexpr std::uint64_t no_size = ~std::uint64_t{0};

    struct Held {
        std::uint64_t address = 0, size = 0;
    };

    std::uint64_t random() { // xorshift
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return state_;
    }

    // An address that is not held, from a heap's free list or its end.
    std::uint64_t address_for(std::uint64_t size) {
        const std::size_t bin = size <= 64 ? 0 : size <= 512 ? 1 : size <= 4096 ? 2 : 3;
        if (!free_addresses_[bin].empty() && random() % 16 != 0) {
            const std::uint64_t address = free_addresses_[bin].back();
            free_addresses_[bin].pop_back();
            return address;
        }
        end_ += (size + 31) / 16 * 16;
        return end_ - (size + 31) / 16 * 16;
    }
    void give_back(const Held& held) {
        const std::size_t bin = held.size <= 64     ? 0
                                : held.size <= 512  ? 1
                                : held.size <= 4096 ? 2
                                                    : 3;
        if (free_addresses_[bin].size() < 4096) {
            free_addresses_[bin].push_back(held.address);
        }
    }

    void step() {
        const std::uint64_t chance = random();
        const auto thread = static_cast<std::int32_t>((chance >> 8) % 4);
        if (written_ % 100'000 == 0) {
            phase_ = (phase_ + 1) % phases;
        }
        // Most picks are among a few hundred young places, as young blocks die first.
        const std::size_t young = 256;
        const bool old = chance % 8 == 0;
        Held& held = live_[old ? (chance >> 16) % live_.size()
                               : (written_ / 64 + (chance >> 16) % young) % live_.size()];
        if (held.address != 0 && chance % 64 == 1) {
            const Held before = held;
            held.size += held.size / 2 + 16;
            held.address = address_for(held.size);
            record(held.address, before.address, realloc_, held.size, thread);
            give_back(before);
        } else if (held.address != 0) {
            record(held.address, 0, free_, no_size, thread);
            give_back(held);
            held.address = 0;
        } else {
            const std::uint64_t kind = (chance >> 40) % 64;
            held.size = kind < 50   ? 16 + (chance >> 48) % 240
                        : kind < 62 ? 256 + (chance >> 48) % 8192
                                    : 65536 + (chance >> 46);
            held.address = address_for(held.size);
            record(held.address, 0, kind == 63 ? calloc_ : malloc_, held.size, thread);
        }
    }

    struct Record {
        std::uint64_t pointer, old;
        std::int32_t type, id;
        std::uint64_t size;
        std::int32_t thread, phase;
    };
    static_assert(sizeof(Record) == record_bytes);

    template <class Value> void put(const Value& value) {
        bytes_.append(reinterpret_cast<const char*>(&value), sizeof value);
    }

    void record(std::uint64_t pointer, std::uint64_t old, std::int32_t type, std::uint64_t size,
                std::int32_t thread) {
        if (bytes_.empty()) {
            put(std::int32_t{0}); // the count, set when the file is whole
        }
        const auto id = static_cast<std::int32_t>(written_++);
        put(Record{pointer, old, type, id, size, thread, phase_});
        if (bytes_.size() == 4 + full_file * record_bytes) {
            flush();
        }
    }

    void write_file(const std::string& name) {
        std::FILE* const file = std::fopen(name.c_str(), "wb");
        const bool good =
            file != nullptr && std::fwrite(bytes_.data(), 1, bytes_.size(), file) == bytes_.size();
        if (file == nullptr || std::fclose(file) != 0 || !good) {
            throw std::runtime_error(name + " cannot be written");
        }
        bytes_.clear();
    }

    void flush() {
        if (bytes_.empty()) {
            return;
        }
        const auto count = static_cast<std::int32_t>((bytes_.size() - 4) / record_bytes);
        std::memcpy(bytes_.data(), &count, sizeof count);
        write_file(base_ + ".memT" + std::to_string(files_++));
    }

    void write_phases() {
        static const char* const paths[phases] = {"ROOT",
                                                  "ROOT->read",
                                                  "ROOT->read->mesh",
                                                  "ROOT->assemble",
                                                  "ROOT->assemble->elements",
                                                  "ROOT->assemble->elements->stiffness",
                                                  "ROOT->solve",
                                                  "ROOT->solve->precondition",
                                                  "ROOT->results"};
        put(std::int32_t{phases});
        for (std::int32_t i = 0; i < phases; ++i) {
            put(i);
            bytes_ += paths[i];
            bytes_.append(131072 - std::strlen(paths[i]), '\0');
        }
        write_file(base_ + ".phaseStack");
    }

    std::string base_;
    std::string bytes_;
    std::vector<Held> live_;
    std::vector<std::uint64_t> free_addresses_[4];
    std::uint64_t state_ = 88172645463325252U, end_ = 0x7f0000000010U, written_ = 0;
    int phase_ = 0, files_ = 0;
};

} // namespace bench
