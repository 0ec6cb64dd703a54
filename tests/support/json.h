// Reads JSON as strictly as its grammar, for tests of what programs write.
#pragma once

#include <cstdlib>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace test {

struct JsonValue {
    enum class Kind { null, boolean, number, string, array, object } kind = Kind::null;
    bool flag = false;
    double number = 0;
    std::string text; ///< of a string, with its escapes as they stand; of a number as written
    std::vector<JsonValue> items;
    std::map<std::string, JsonValue> members;

    const JsonValue& operator[](const std::string& name) const {
        const auto found = members.find(name);
        if (found == members.end()) {
            throw std::runtime_error("no member " + name);
        }
        return found->second;
    }
    const JsonValue& operator[](std::size_t index) const { return items.at(index); }
};

class JsonReader {
public:
    explicit JsonReader(std::string_view text) : text_(text) {}

    /// The whole text as one value; throws std::runtime_error where it is none.
    JsonValue read() {
        JsonValue value = read_value();
        skip_blanks();
        expect(at_ == text_.size(), "the end");
        return value;
    }

private:
    void expect(bool good, const char* what) const {
        if (!good) {
            throw std::runtime_error("JSON: no " + std::string(what) + " at byte " +
                                     std::to_string(at_));
        }
    }
    void skip_blanks() { at_ = std::min(text_.find_first_not_of(" \t\r\n", at_), text_.size()); }
    char peek() const { return at_ < text_.size() ? text_[at_] : '\0'; }
    bool take(std::string_view word) {
        const bool there = text_.substr(at_).starts_with(word);
        at_ += there ? word.size() : 0;
        return there;
    }

    JsonValue read_value() {
        skip_blanks();
        JsonValue value;
        if (peek() == '{') {
            value.kind = JsonValue::Kind::object;
            read_list('}', [&] {
                skip_blanks();
                const std::string name = read_string();
                skip_blanks();
                expect(take(":"), "colon");
                expect(value.members.emplace(name, read_value()).second, "new name");
            });
        } else if (peek() == '[') {
            value.kind = JsonValue::Kind::array;
            read_list(']', [&] { value.items.push_back(read_value()); });
        } else if (peek() == '"') {
            value.kind = JsonValue::Kind::string;
            value.text = read_string();
        } else if (take("null")) {
        } else if (take("true") || take("false")) {
            value.kind = JsonValue::Kind::boolean;
            value.flag = text_[at_ - 2] == 'u';
        } else {
            value.kind = JsonValue::Kind::number;
            value.text = read_number();
            value.number = std::strtod(value.text.c_str(), nullptr);
        }
        return value;
    }

    template <class Item> void read_list(char closing, const Item& item) {
        ++at_;
        skip_blanks();
        if (take({&closing, 1})) {
            return;
        }
        do {
            item();
            skip_blanks();
        } while (take(","));
        expect(take({&closing, 1}), "closing bracket");
    }

    std::string read_string() {
        expect(take("\""), "string");
        const std::size_t begin = at_;
        for (; peek() != '"'; ++at_) {
            expect(at_ < text_.size() && static_cast<unsigned char>(peek()) >= 0x20, "character");
            if (peek() == '\\') {
                ++at_;
                expect(std::string_view("\"\\/bfnrtu").find(peek()) != std::string_view::npos,
                       "escape");
            }
        }
        return std::string(text_.substr(begin, at_++ - begin));
    }

    std::string read_number() {
        const std::size_t begin = at_;
        const auto digits = [this] {
            const std::size_t first = at_;
            at_ = std::min(text_.find_first_not_of("0123456789", at_), text_.size());
            expect(at_ != first, "digit");
            return text_.substr(first, at_ - first);
        };
        take("-");
        const std::string_view whole = digits();
        expect(whole.size() == 1 || whole[0] != '0', "number without a leading zero");
        if (take(".")) {
            digits();
        }
        if (take("e") || take("E")) {
            take("-") || take("+");
            digits();
        }
        return std::string(text_.substr(begin, at_ - begin));
    }

    std::string_view text_;
    std::size_t at_ = 0;
};

inline JsonValue read_json(std::string_view text) {
    return JsonReader(text).read();
}

} // namespace test
