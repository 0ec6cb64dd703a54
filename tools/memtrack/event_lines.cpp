// See event_lines.h.
#include "event_lines.h"

#include <cinttypes>

namespace memtrack {

const std::string& LineWriter::path(std::uint32_t phase) {
    static const std::string none = "-";
    if (phase == no_phase) {
        return none;
    }
    while (phase >= paths_.size()) {
        paths_.push_back(
            table_.path(history_.phases().id(static_cast<std::uint32_t>(paths_.size()))));
    }
    return paths_[phase];
}

void LineWriter::write(const EventLine& line) {
    if (json_ != nullptr) {
        write_json(line);
    } else {
        write_text(line);
    }
}

void LineWriter::write_text(const EventLine& line) {
    const Transaction& record = line.event.record;
    output_.print("%10" PRIu64 "  thread %-3" PRId32 " %-7s  %s", line.event.number, record.thread,
                  type_name(record.type), address_text(record.pointer).c_str());
    if (record.type == Type::realloc_) {
        output_.print(" from %s", address_text(record.old_pointer).c_str());
    }
    if (record.size != no_size) {
        output_.print("  %" PRIu64 " byte%s", record.size, plural(record.size));
    }
    if (line.gone != nullptr && record.type != Type::realloc_) {
        output_.print("  %" PRIu64 " byte%s of event %" PRIu64, line.gone->size,
                      plural(line.gone->size), line.gone->number);
    } else if (line.gone != nullptr) {
        output_.print(", before %" PRIu64 " of event %" PRIu64, line.gone->size, line.gone->number);
    } else if (is_release(record.type) && record.pointer != 0) {
        output_.write("  not held");
    }
    if (line.refused) {
        output_.write("  refused");
    }
    output_.print("  %s\n", path(line.phase).c_str());
}

void LineWriter::write_json(const EventLine& line) {
    const Transaction& record = line.event.record;
    json_->compact().object().member("event", line.event.number);
    json_->member("type", type_name(record.type)).member("thread", record.thread);
    json_->member("address", address_text(record.pointer));
    if (record.type == Type::realloc_) {
        json_->member("old_address", address_text(record.old_pointer));
    }
    if (record.size != no_size) {
        json_->member("bytes", record.size);
    }
    if (line.phase != no_phase) {
        json_->member("phase", path(line.phase));
    }
    if (line.refused) {
        json_->member("refused", true);
    }
    if (line.gone != nullptr) {
        json_->key("gone").object().member("bytes", line.gone->size);
        json_->member("event", line.gone->number).end();
    }
    json_->end();
}

} // namespace memtrack
