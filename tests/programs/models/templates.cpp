// For the compiler: templates by the thousand, containers, algorithms, regular expressions and a parser at compile
// time. What comes out is the object file.
#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

template <int Order, int Dimension> struct Shape {
    static double value(const double* x) {
        if constexpr (Order == 0) {
            return 1.0;
        } else if constexpr (Dimension == 0) {
            return Shape<Order - 1, 3>::value(x) * 0.5;
        } else {
            return Shape<Order - 1, Dimension>::value(x) * x[Dimension - 1] +
                   Shape<Order, Dimension - 1>::value(x);
        }
    }
};

template <std::size_t N> struct Tag { std::array<double, N + 1> values; };

template <std::size_t... N> double all(std::index_sequence<N...>, const double* x) {
    auto tuple = std::make_tuple(Shape<static_cast<int>(N % 24), 3>::value(x)...);
    return std::apply([](auto... value) { return (value + ...); }, tuple);
}

template <std::size_t... N> std::size_t variants(std::index_sequence<N...>, std::size_t seed) {
    std::vector<std::variant<Tag<N>...>> list;
    std::map<std::string, std::function<std::size_t()>> calls;
    ((list.emplace_back(Tag<N>{}),
      calls.emplace(std::to_string(N + seed), [] { return sizeof(Tag<N>); })),
     ...);
    std::size_t bytes = 0;
    for (const auto& one : list) {
        bytes += std::visit([](const auto& tag) { return tag.values.size(); }, one);
    }
    for (const auto& [name, call] : calls) {
        bytes += call() + name.size();
    }
    return bytes;
}

constexpr int digits(const char* text) {
    int sum = 0;
    for (; *text != '\0'; ++text) {
        sum = sum * 31 + (*text >= '0' && *text <= '9' ? *text - '0' : 7);
    }
    return sum;
}

static_assert(digits("12x") == (1 * 31 + 2) * 31 + 7);

double everything(const std::string& text, const double* x) {
    std::unordered_map<std::string, std::shared_ptr<std::vector<std::string>>> words;
    const std::regex word("([a-z]+)=([0-9]+(\\.[0-9]*)?)");
    for (std::sregex_iterator i(text.begin(), text.end(), word), end; i != end; ++i) {
        auto& list = words[(*i)[1]];
        if (!list) {
            list = std::make_shared<std::vector<std::string>>();
        }
        list->push_back((*i)[2]);
        std::stable_sort(list->begin(), list->end());
    }
    return all(std::make_index_sequence<25>(), x) +
           static_cast<double>(variants(std::make_index_sequence<16>(), words.size()));
}
