// The profile format of pprof: a protocol buffer in a gzip frame. A sample for each phase and thread, the
// thread as a label. The frame holds the bytes as they are: profiles by phase are small, and so nothing is linked
// for it.
#include "formats.h"

#include <algorithm>
#include <array>

namespace memtrack::exporting {
namespace {

// A message as its fields are added. Varints and texts are all that a profile needs.
class Message {
public:
    void number(unsigned field, std::uint64_t value) {
        varint(field << 3);
        varint(value);
    }
    void text(unsigned field, std::string_view value) {
        varint(field << 3 | 2);
        varint(value.size());
        bytes_ += value;
    }
    void message(unsigned field, const Message& value) { text(field, value.bytes_); }
    void numbers(unsigned field, const std::vector<std::uint64_t>& values) {
        Message packed;
        for (const std::uint64_t value : values) {
            packed.varint(value);
        }
        message(field, packed);
    }
    const std::string& bytes() const { return bytes_; }

private:
    void varint(std::uint64_t value) {
        for (; value >= 0x80; value >>= 7) {
            bytes_ += static_cast<char>(value | 0x80);
        }
        bytes_ += static_cast<char>(value);
    }
    std::string bytes_;
};

std::uint32_t crc32(std::string_view data) {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t i = 0; i < table.size(); ++i) {
        table[i] = i;
        for (int bit = 0; bit < 8; ++bit) {
            table[i] = table[i] >> 1 ^ ((table[i] & 1) != 0 ? 0xEDB88320 : 0);
        }
    }
    std::uint32_t crc = ~std::uint32_t{0};
    for (const char c : data) {
        crc = crc >> 8 ^ table[(crc ^ static_cast<unsigned char>(c)) & 0xFF];
    }
    return ~crc;
}

std::string little_endian(std::uint64_t value, int bytes) {
    std::string text;
    for (int i = 0; i < bytes; ++i) {
        text += static_cast<char>(value >> 8 * i);
    }
    return text;
}

void write_gzip(Output& output, std::string_view data) {
    constexpr std::size_t most = 65535; // in a block that is stored
    output.write(std::string_view("\x1F\x8B\x08\0\0\0\0\0\0\xFF", 10));
    for (std::size_t at = 0; at < data.size(); at += most) {
        const std::string_view block = data.substr(at, most);
        const bool last = at + block.size() == data.size();
        output.write(little_endian(last ? 1 : 0, 1) + little_endian(block.size(), 2) +
                     little_endian(~block.size(), 2));
        output.write(block);
    }
    output.write(little_endian(crc32(data), 4) + little_endian(data.size(), 4));
}

// Fields of a Profile.
enum : unsigned {
    sample_type = 1,
    sample,
    mapping,
    location,
    function,
    string_table,
    comment = 13,
    default_type
};

class Profile {
public:
    Profile() { strings_(""); }

    void value_type(const char* type, const char* unit) {
        Message message;
        message.number(1, strings_(type));
        message.number(2, strings_(unit));
        profile_.message(sample_type, message);
    }
    void add(const std::vector<std::string>& frames, const Share& share, std::int32_t thread) {
        std::vector<std::uint64_t> stack;
        for (auto frame = frames.rbegin(); frame != frames.rend(); ++frame) {
            stack.push_back(functions_(line_text(*frame)) + 1);
        }
        Message label;
        label.number(1, strings_("thread"));
        label.number(3, static_cast<std::uint64_t>(thread));
        Message message;
        message.numbers(1, stack);
        message.numbers(2, {share.allocated.blocks, share.allocated.bytes, share.held.blocks,
                            share.held.bytes, share.at_peak.blocks, share.at_peak.bytes});
        message.message(3, label);
        profile_.message(sample, message);
    }
    std::string finish(const std::string& remark) {
        for (std::size_t i = 0; i < functions_.texts().size(); ++i) {
            Message line;
            line.number(1, i + 1);
            Message place;
            place.number(1, i + 1);
            place.message(4, line);
            profile_.message(location, place);
            Message named;
            named.number(1, i + 1);
            named.number(2, strings_(functions_.texts()[i]));
            profile_.message(function, named);
        }
        profile_.number(comment, strings_(line_text(remark)));
        profile_.number(default_type, strings_("peak_space"));
        for (const std::string& text : strings_.texts()) {
            profile_.text(string_table, text);
        }
        return profile_.bytes();
    }

private:
    Message profile_;
    Numbering strings_, functions_;
};

} // namespace

void write_pprof(Output& output, const Ranks& ranks) {
    Profile profile;
    for (const char* const name : {"alloc", "inuse", "peak"}) {
        profile.value_type((std::string(name) + "_objects").c_str(), "count");
        profile.value_type((std::string(name) + "_space").c_str(), "bytes");
    }
    std::string remark = "memtrack, by phase; inuse is what was not released:";
    for (std::size_t rank = 0; rank < ranks.size(); ++rank) {
        for (const Share& share : ranks[rank].by_phase_thread) {
            profile.add(frames_of(ranks, rank, share), share, ranks[rank].threads[share.thread]);
        }
        remark += " " + ranks[rank].base;
    }
    write_gzip(output, profile.finish(remark));
}

} // namespace memtrack::exporting
