// See symbol_name.h.
#include "platform/symbol_name.h"

#include <cstring>
#include <initializer_list>

namespace os {
namespace {

constexpr char operator_word[] = "operator";
constexpr std::size_t operator_length = sizeof operator_word - 1;

bool is_name_character(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

bool operator_at(const char* text, std::size_t at) {
    return std::strncmp(text + at, operator_word, operator_length) == 0 &&
           (at == 0 || !is_name_character(text[at - 1])) &&
           !is_name_character(text[at + operator_length]);
}

// Where an operator's own signs end, so that they are not taken for brackets.
std::size_t skip_operator(const char* text, std::size_t at) {
    at += operator_length;
    if (text[at] == '(' && text[at + 1] == ')') {
        return at + 2;
    }
    while (text[at] != '\0' && std::strchr("<>=-+*/%^&|~!,[]", text[at]) != nullptr) {
        // "operator< <int>": the blank ends the operator and opens its template arguments.
        ++at;
    }
    return at;
}

// What may follow a parameter list; anything else means that the list belonged to the return type.
bool is_suffix(const char* text) {
    for (const char* const suffix : {"const", "volatile", "&", "[", "requires"}) {
        if (std::strncmp(text, suffix, std::strlen(suffix)) == 0) {
            return true;
        }
    }
    return false;
}

} // namespace

void cut_to_name(char* text) {
    std::size_t start = 0, end = 0;
    int depth = 0;
    bool in_operator = false; // whose type may hold blanks: "operator unsigned long"
    for (std::size_t at = 0; text[at] != '\0';) {
        const char c = text[at];
        if (depth == 0 && operator_at(text, at)) {
            in_operator = true;
            at = skip_operator(text, at);
            continue;
        }
        if (c == '(' && depth == 0) {
            // A parameter list, unless a name goes on behind it: "(anonymous namespace)::f",
            // "f(int)::{lambda()#1}::operator()".
            if (end == 0) {
                end = at;
            }
        } else if (c == ' ' && depth == 0 && !in_operator &&
                   (end == 0 || !is_suffix(text + at + 1))) {
            start = at + 1;
            end = 0;
        } else if (c == ':' && depth == 0 && text[at + 1] == ':') {
            end = 0;
            in_operator = false;
        }
        depth += c == '(' || c == '<' || c == '[' || c == '{' ? 1 : 0;
        const bool arrow = c == '>' && at > 0 && text[at - 1] == '-';
        depth -= c == ')' || (c == '>' && !arrow) || c == ']' || c == '}' ? 1 : 0;
        ++at;
    }
    const std::size_t length = (end > start ? end : std::strlen(text)) - start;
    std::memmove(text, text + start, length);
    text[length] = '\0';
}

void copy_symbol(const char* symbol, char* target, std::size_t capacity) {
    std::size_t length = std::strlen(symbol);
    length = length < capacity ? length : capacity - 1;
    std::memmove(target, symbol, length);
    target[length] = '\0';
}

} // namespace os
