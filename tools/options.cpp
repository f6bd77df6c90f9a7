#include "options.h"

#include <algorithm>
#include <cctype>
#include <system_error>

#include "platform/file_replace.h"

namespace cli {

int wholeNumber(std::string_view option, std::string_view text, int low, int high) {
    const std::string range = std::to_string(low) + " to " + std::to_string(high);
    long long value = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            throw UsageError{std::string(option) + " wants a whole number from " + range + ", not '" + std::string(text) + "'"};
        value = std::min(value * 10 + (c - '0'), static_cast<long long>(high) + 1);
    }
    if (text.empty()) throw UsageError{std::string(option) + " wants a whole number from " + range};
    if (value < low || value > high)
        throw UsageError{std::string(option) + " must be between " + std::to_string(low) + " and " + std::to_string(high) +
                         ", not '" + std::string(text) + "'"};
    return static_cast<int>(value);
}

void checkInput(const std::filesystem::path& path) {
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(path, error);
    if (status.type() == std::filesystem::file_type::not_found)
        throw FileRefused{path.string() + ": no such file; check the name and the folder"};
    if (status.type() == std::filesystem::file_type::directory)
        throw FileRefused{path.string() + " is a folder, not a file: give the path of a file inside it"};
}

void checkOutput(const std::filesystem::path& path) {
    const platform::SaveTarget target = platform::resolveSaveTarget(path.string());
    if (target.kind == platform::SaveTarget::Kind::refused) throw FileRefused{target.error};
}

std::string extensionOf(const std::filesystem::path& path) {
    std::string text = path.filename().extension().string();
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

}  // namespace cli
