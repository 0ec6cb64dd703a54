// memtrack block: the history of one address, of every block that it lay in.
#include "event_lines.h"
#include "ranges.h"

#include <cinttypes>

namespace memtrack {

namespace {

struct BlockOptions : CommonOptions {
    std::string address;
};

bool contains(const Block* block, std::uint64_t address) {
    return block != nullptr && address >= block->address &&
           address - block->address < std::max<std::uint64_t>(block->size, 1);
}

// An event has to do with the block that it named or made, that went by it, or whose resize it refused.
bool concerns(const EventLine& line, const History& history, std::uint64_t address) {
    const Transaction& record = line.event.record;
    return record.pointer == address || record.old_pointer == address ||
           contains(line.gone, address) || contains(history.held().find(record.pointer), address) ||
           (line.refused && contains(history.held().find(record.old_pointer), address));
}

int block(const BlockOptions& options) {
    const std::uint64_t address = parse_number(options.address);
    if (address == 0) {
        throw UsageError("the null pointer is no block");
    }
    Output output(options.output, options.force);
    Problems problems;
    Json json(output);
    if (options.json) {
        json.object().member("address", address_text(address)).key("events").array();
    }
    const PhaseTable table(options.bases[0], problems);
    History history;
    Block last; // of the blocks that the address lay in
    std::size_t found = 0, written = 0;
    {
        Progress progress(transaction_bytes(options.bases[0]), options.quiet);
        EventReader reader(options.bases[0], problems, &progress);
        LineWriter writer(output, options.json ? &json : nullptr, history, table);
        for_each_line(reader, history, [&](const EventLine& line) {
            if (concerns(line, history, address)) {
                ++found;
                if (const Block* const at = history.held().find(line.event.record.pointer);
                    contains(at, address)) {
                    last = *at;
                }
                if (options.rows == 0 || written < options.rows) {
                    writer.write(line);
                    ++written;
                }
            }
            return true;
        });
        history.tell(reader, problems);
    }
    const Block* const held = last.address == 0 ? nullptr : history.held().find(last.address);
    const bool is_held = held != nullptr && held->number == last.number;
    if (options.json) {
        json.end().member("held", is_held);
        write_problems(json, problems);
        json.end();
    } else {
        write_rest(output, written, found);
        if (found == 0) {
            output.print("No block of this run was ever at %s.\n", address_text(address).c_str());
        } else if (is_held) {
            output.print("Not released: %s at %s, made by event %" PRIu64 ".\n",
                         human_bytes(held->size).c_str(), address_text(held->address).c_str(),
                         held->number);
        } else {
            output.write("No block is held there at the end.\n");
        }
        write_incomplete(output, problems);
    }
    return end_report(output, options, problems);
}

} // namespace

void add_block(CLI::App& parent, Run& run) {
    Command command(parent, "block",
                    "The history of an address: the events of every block that it lay in");
    const auto options = std::make_shared<BlockOptions>();
    command
        .option("ADDRESS", options->address, "Of a block or of something in it; 0x... or decimal")
        .required();
    options->add_bases(command, 1, 1);
    options->add_rows(command, 0);
    options->add_json(command);
    options->add_output(command);
    command.runs(run, [options] { return block(*options); });
}

} // namespace memtrack
