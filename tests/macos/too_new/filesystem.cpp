#include <filesystem>

bool f() {
    return std::filesystem::exists("/");
}
