#include "files/file_bytes.h"

#include <algorithm>

#include "core/stream.h"

namespace files {

namespace {

// Small enough that a file much shorter than its claim costs little, large enough that a big one takes
// few reads.
constexpr int32_t pieceBytes = 1 << 20;

}  // namespace

std::vector<uint8_t> readFileBytes(const CString& path, std::string_view opening) {
    CFileStream file(path, CFileStream::openRead);
    if (!file.isOpen()) return {};
    std::vector<uint8_t> bytes(opening.size());
    const auto head = static_cast<int32_t>(opening.size());
    if (file.read(bytes.data(), head) != head || !std::equal(opening.begin(), opening.end(), bytes.begin())) return {};
    for (;;) {
        const size_t held = bytes.size();
        bytes.resize(held + pieceBytes);
        const int32_t got = std::max(file.read(bytes.data() + held, pieceBytes), 0);
        bytes.resize(held + static_cast<size_t>(got));
        if (got < pieceBytes) break;
    }
    return bytes;
}

}  // namespace files
