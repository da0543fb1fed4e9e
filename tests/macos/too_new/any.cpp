#include <any>

int f(const std::any& value) {
    return std::any_cast<int>(value);
}
