#include <optional>

int f(const std::optional<int>& value) {
    return value.value();
}
