// See facts.h.
#include "facts.h"

#include "KXMBasMem.h"
#include "platform/system.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace kxmdiag {
namespace {

std::uint64_t whole(float megabytes) {
    return static_cast<std::uint64_t>(megabytes);
}

const char* drive_kind(unsigned type) {
    static constexpr const char* kinds[] = {"unknown", "not there", "removable", "fixed",
                                            "remote",  "optical",   "memory"};
    return kinds[type < std::size(kinds) ? type : 0];
}

// The guarded back end has no entry of its own to be known by, but its blocks lie 8 off a multiple
// of 16, as those of no other do.
const char* bound_back_end() {
    if (mem_usingDL() != 0) {
        return "heap";
    }
    if (mem_malloc == mem_malign) {
        return "aligned";
    }
    void* const block = mem_Malloc(1000);
    const bool guarded = reinterpret_cast<std::uintptr_t>(block) % 16 == 8;
    mem_Free(block);
    return guarded ? "guarded" : "C runtime";
}

/// Bytes of the UTF-8 character that begins at `at`; 0 when none does.
std::size_t utf8_length(const std::string& text, std::size_t at) {
    struct Form {
        std::uint32_t lead, mask, first; ///< of the lead byte; the lowest character of this length
    };
    constexpr Form forms[] = {
        {0, 0x80, 0}, {0xc0, 0xe0, 0x80}, {0xe0, 0xf0, 0x800}, {0xf0, 0xf8, 0x10000}};
    const auto byte = [&text](std::size_t i) {
        return std::uint32_t{static_cast<unsigned char>(i < text.size() ? text[i] : '\0')};
    };
    for (std::size_t more = 0; more < std::size(forms); ++more) {
        if ((byte(at) & forms[more].mask) != forms[more].lead) {
            continue;
        }
        std::uint32_t character = byte(at) & ~forms[more].mask;
        for (std::size_t i = 1; i <= more; ++i) {
            if ((byte(at + i) & 0xc0) != 0x80) {
                return 0;
            }
            character = character << 6 | (byte(at + i) & 0x3f);
        }
        const bool surrogate = character >= 0xd800 && character < 0xe000;
        return character < forms[more].first || character > 0x10ffff || surrogate ? 0 : more + 1;
    }
    return 0;
}

} // namespace

Section machine() {
    const mem_GetWindowsMemory memory;
    KXMBasMemInfo process;
    mem_GetWindowsDriveInfo drive(mem_String(working_folder_drive().c_str()));
    const unsigned kind = drive.GetType();
    Section section{"Machine",
                    {{"physical memory", mem_getPhysicalMemorySizeMB(), "MB"},
                     {"physical memory available", whole(memory.GetAvailPhysMemoryMbytes()), "MB"},
                     {"physical memory in use", std::uint64_t{memory.GetMemoryLoad()}, "percent"},
                     {"address space", mem_getVirtualMemorySizeMB(), "MB"},
                     {"address space available", whole(memory.GetAvailVirtMemoryMbytes()), "MB"},
                     {"accessible to one process", KXMBasMemInfo::Accessible(), "MB"},
                     {"this process, private", process.Current(), "MB"},
                     {"this process, resident", process.Resident(), "MB"},
                     {"working folder, drive", std::string(drive_kind(kind))},
                     {"working folder, size", drive.GetTotalSpaceMbytes(), "MB"},
                     {"working folder, free", drive.GetAvailableSpaceMbytes(), "MB"}}};
    // The library's figures are the machine's, and a process is ended at this limit long before them.
    const std::uint64_t limit = group_memory_limit();
    if (limit != UINT64_MAX) {
        section.facts.insert(section.facts.begin(),
                             {"limit of container or job", limit >> 20, "MB"});
    }
    return section;
}

Section back_end() {
    const mem_DLMallinfoType info = mem_DLMallinfo();
    Section section{"Back end",
                    {{"bound", std::string(bound_back_end())},
                     {"memory limit", std::uint64_t{mem_MemoryLimit()}, "bytes"},
                     {"footprint", std::uint64_t{mem_Footprint()}, "KiB"}}};
    if (mem_usingDL() != 0) {
        section.facts.push_back({"heap in use", info.uordblks, "bytes"});
        section.facts.push_back({"heap free", info.fordblks, "bytes"});
    }
    return section;
}

Section versions() {
    return {"Versions",
            {{"kxmdiag", std::string(KXMDIAG_VERSION)},
             {"library", library_file()},
             {"library version", std::string(KXMBasMemVersion())},
             {"system", system_name()},
#if defined(__VERSION__)
             {"compiler", std::string(__VERSION__)}
#endif
            }};
}

// Values of variables and names of files are bytes of any kind, but JSON is UTF-8: a byte that belongs
// to no character is written as the one of that number.
std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t length = utf8_length(text, i);
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte == '"' || byte == '\\') {
            result += {'\\', text[i]};
        } else if (byte < 0x20 || length == 0) {
            char code[8];
            std::snprintf(code, sizeof code, "\\u%04x", unsigned{byte});
            result += code;
        } else {
            result.append(text, i, length);
        }
        i += std::max<std::size_t>(length, 1);
    }
    return result + '"';
}

std::string json_name(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), ','), text.end());
    std::replace(text.begin(), text.end(), ' ', '_');
    return text;
}

void print(const Section& section) {
    std::printf("%s\n", section.title.c_str());
    for (const Fact& fact : section.facts) {
        if (const auto* const number = std::get_if<std::uint64_t>(&fact.value)) {
            std::printf("  %-28s %12" PRIu64 " %s\n", fact.name.c_str(), *number,
                        fact.unit.c_str());
        } else {
            std::printf("  %-28s %s\n", fact.name.c_str(),
                        std::get<std::string>(fact.value).c_str());
        }
    }
}

void print_json_members(const Section& section, int indent) {
    for (std::size_t i = 0; i < section.facts.size(); ++i) {
        const Fact& fact = section.facts[i];
        const std::string name = json_name(fact.name + (fact.unit.empty() ? "" : " " + fact.unit));
        const auto* const number = std::get_if<std::uint64_t>(&fact.value);
        std::printf("%s\n%*s%s: %s", i == 0 ? "" : ",", indent, "", quoted(name).c_str(),
                    number != nullptr ? std::to_string(*number).c_str()
                                      : quoted(std::get<std::string>(fact.value)).c_str());
    }
}

} // namespace kxmdiag
