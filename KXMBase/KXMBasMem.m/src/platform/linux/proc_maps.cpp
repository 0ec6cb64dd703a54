// See proc_maps.h. A mapping of a file is told as an image when it is private, as libraries and
// programs are mapped, and as mapped when it is shared; everything else is private memory. A
// mapping without any access is address space in reserve.
#include "platform/linux/proc_maps.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace os {
namespace {

constexpr std::uintptr_t page = 4096;
constexpr std::uintptr_t user_space_end = 0x7fff'ffff'f000;

std::uintptr_t parse_hex(const char*& text) {
    std::uintptr_t value = 0;
    for (;; ++text) {
        const char c = *text;
        if (c >= '0' && c <= '9') {
            value = value * 16 + static_cast<std::uintptr_t>(c - '0');
        } else if (c >= 'a' && c <= 'f') {
            value = value * 16 + static_cast<std::uintptr_t>(c - 'a' + 10);
        } else {
            return value;
        }
    }
}

} // namespace

// cppcheck-suppress uninitMemberVar ; buffers, filled before they are read
LineReader::LineReader(const char* name) : file_(open(name, O_RDONLY | O_CLOEXEC)) {}

LineReader::~LineReader() {
    if (file_ >= 0) {
        close(file_);
    }
}

const char* LineReader::next() {
    std::size_t length = 0;
    for (;;) {
        if (at_ == filled_) {
            ssize_t got = 0;
            do {
                got = read(file_, buffer_, sizeof buffer_);
            } while (got < 0 && errno == EINTR);
            if (got <= 0) {
                failed_ = got < 0;
                break;
            }
            at_ = 0;
            filled_ = static_cast<std::size_t>(got);
        }
        const char character = buffer_[at_++];
        if (character == '\n') {
            line_[length] = '\0';
            return line_;
        }
        if (length + 1 < sizeof line_) {
            line_[length++] = character;
        }
    }
    line_[length] = '\0';
    return length != 0 ? line_ : nullptr;
}

// "start-end perms offset device inode name"
ProcessMap::Mapping ProcessMap::parse(const char* line) {
    Mapping mapping{};
    mapping.start = parse_hex(line);
    if (*line == '-') {
        ++line;
    }
    mapping.end = parse_hex(line);
    if (std::strlen(line) >= 5) {
        mapping.accessible = line[1] != '-' || line[2] != '-' || line[3] != '-';
        mapping.is_private = line[4] == 'p';
    }
    const char* const name = std::strpbrk(line, "/["); // a bracket: one that the program gave
    mapping.of_file = name != nullptr && *name == '/';
    return mapping;
}

Region ProcessMap::region_of(const Mapping& mapping, std::uintptr_t address) {
    Region region{};
    region.base = address & ~(page - 1);
    region.allocation_base = mapping.start;
    region.size = mapping.end - region.base;
    region.state = mapping.accessible ? state_commit : state_reserve;
    region.type = !mapping.of_file ? type_private : mapping.is_private ? type_image : type_mapped;
    return region;
}

bool ProcessMap::query(std::uintptr_t address, Region& region) {
    if (address >= user_space_end || !reader_.is_open()) {
        return false;
    }
    while (next_.end <= address) {
        const char* const line = reader_.next();
        if (reader_.has_failed()) {
            return false; // what would look free is not known
        }
        next_ = line != nullptr ? parse(line) : Mapping{user_space_end, UINTPTR_MAX, {}, {}, {}};
    }
    if (address >= next_.start) {
        region = region_of(next_, address);
        return true;
    }
    const std::uintptr_t base = address & ~(page - 1);
    const std::uintptr_t gap_end = next_.start < user_space_end ? next_.start : user_space_end;
    region = {base, 0, gap_end - base, state_free, 0};
    return true;
}

} // namespace os
