#include "core/string.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>
#include <string>
#include <utility>

namespace {

char* copyBlock(const char* text, size_t length) {
    char* block = new char[length + 1];
    std::memcpy(block, text, length);
    block[length] = '\0';
    return block;
}

constexpr bool isTrimmed(char c) { return c == ' ' || c == '\r' || c == '\n'; }

constexpr bool isSeparator(char c) { return c == '/' || c == '\\'; }

// Index of the last path separator, or -1. The first character is never examined, so a path that
// only starts with a separator counts as having none.
int32_t lastSeparator(const CString& path) {
    const char* text = path.c_str();
    for (int32_t i = path.length() - 1; i >= 1; --i) {
        if (isSeparator(text[i])) return i;
    }
    return -1;
}

int32_t firstEquals(const CString& line) {
    const char* found = std::strchr(line.c_str(), '=');
    return found ? static_cast<int32_t>(found - line.c_str()) : -1;
}

}  // namespace

CString::CString() : block_(copyBlock("", 0)) {}

CString::CString(const char* text) : CString(text, -1) {}

CString::CString(const char* text, int32_t length) {
    if (!text) text = "";
    // The text need not be terminated within length (bytes read from a stream are not), so the scan
    // for a NUL stays inside it.
    const void* nul = length < 0 ? nullptr : std::memchr(text, '\0', static_cast<size_t>(length));
    const size_t take = length < 0 ? std::strlen(text)
                        : nul      ? static_cast<size_t>(static_cast<const char*>(nul) - text)
                                   : static_cast<size_t>(length);
    block_ = copyBlock(text, take);
}

CString::CString(const CString& other) : CString(other.c_str()) {}

CString::CString(CString&& other) noexcept : block_(std::exchange(other.block_, nullptr)) {}

CString& CString::operator=(const CString& other) {
    assign(other);
    return *this;
}

CString& CString::operator=(CString&& other) noexcept {
    if (this != &other) {
        delete[] block_;
        block_ = std::exchange(other.block_, nullptr);
    }
    return *this;
}

CString::~CString() { delete[] block_; }

void CString::assign(const CString& source) {
    if (this == &source) return;
    const size_t sourceLength = std::strlen(source.c_str());
    if (block_ && sourceLength <= std::strlen(block_)) {
        std::memcpy(block_, source.c_str(), sourceLength + 1);
        return;
    }
    char* block = copyBlock(source.c_str(), sourceLength);
    delete[] block_;
    block_ = block;
}

int32_t CString::length() const { return block_ ? static_cast<int32_t>(std::strlen(block_)) : -1; }

CString CString::mid(int32_t start, int32_t count) const {
    const int32_t total = std::max(length(), 0);
    start = std::clamp(start, 0, total);
    const int32_t left = total - start;
    if (count < 0 || count > left) count = left;
    return CString(c_str() + start, count);
}

int32_t CString::compare(const CString& other) const {
    // strcmp compares as unsigned char, which is the order the program sorts by.
    return std::strcmp(c_str(), other.c_str());
}

CString concat(CString left, CString right) {
    std::string joined(left.c_str());
    joined += right.c_str();
    return CString(joined.c_str());
}

CString intToString(int32_t value) {
    char text[16];
    const auto result = std::to_chars(text, text + sizeof text, value);
    return CString(text, static_cast<int32_t>(result.ptr - text));
}

CString floatToString(float value) {
    // to_chars never looks at the locale, so the decimal mark is a period even under a German locale.
    // The largest float needs 39 digits before the point.
    char text[64];
    const auto result = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, 6);
    return CString(text, static_cast<int32_t>(result.ptr - text));
}

int32_t stringToInt(CString text, int32_t fallback) {
    const char* chars = text.c_str();
    if (*chars == '\0') return fallback;

    int32_t separators = 0;
    int32_t signs = 0;
    for (const char* c = chars; *c; ++c) {
        if (*c == ',' || *c == '.') {
            ++separators;
        } else if (*c == '-') {
            ++signs;
        } else if (*c < '0' || *c > '9') {
            return fallback;
        }
    }
    if (separators >= 2 || signs >= 2) return fallback;

    const bool negative = *chars == '-';
    if (negative) ++chars;
    // Accumulated in 64 bits and clamped, so an absurdly long number saturates instead of wrapping.
    constexpr int64_t limit = int64_t{std::numeric_limits<int32_t>::max()} + 1;
    int64_t value = 0;
    for (; *chars >= '0' && *chars <= '9'; ++chars) value = std::min(value * 10 + (*chars - '0'), limit);
    if (negative) value = -value;
    return static_cast<int32_t>(std::clamp<int64_t>(value, std::numeric_limits<int32_t>::min(),
                                                    std::numeric_limits<int32_t>::max()));
}

CString upperCase(CString text) {
    std::string upper(text.c_str());
    for (char& c : upper) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return CString(upper.c_str());
}

CString trim(CString text) {
    const char* chars = text.c_str();
    int32_t start = 0;
    int32_t end = text.length();
    while (start < end && isTrimmed(chars[start])) ++start;
    while (end > start && isTrimmed(chars[end - 1])) --end;
    return text.mid(start, end - start);
}

CString keyOf(CString line) {
    const int32_t equals = firstEquals(line);
    if (equals < 0) return CString();
    return trim(line.mid(0, equals));
}

CString valueOf(CString line) {
    const int32_t equals = firstEquals(line);
    if (equals < 0) return CString();
    return trim(line.mid(equals + 1));
}

CString fileExtension(CString path) {
    const char* dot = std::strrchr(path.c_str(), '.');
    if (!dot) return CString();
    return CString(dot);
}

CString fileName(CString path) {
    const int32_t separator = lastSeparator(path);
    if (separator < 0) return path;
    return path.mid(separator + 1);
}

CString filePath(CString path) {
    const int32_t separator = lastSeparator(path);
    if (separator < 0) return CString();
    return path.mid(0, separator + 1);
}

CString withExtension(CString path, CString extension) {
    const char* text = path.c_str();
    for (int32_t i = path.length() - 1; i >= 1; --i) {
        if (text[i] == '.') return concat(path.mid(0, i), std::move(extension));
    }
    return concat(std::move(path), std::move(extension));
}

CString withTrailingSeparator(CString path) {
    const int32_t length = path.length();
    if (length <= 0 || isSeparator(path.c_str()[length - 1])) return path;
    return concat(std::move(path), "/");
}
