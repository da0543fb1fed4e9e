#include <variant>

int f(const std::variant<int, char>& value) {
    return std::visit([](auto held) { return int{held}; }, value);
}
