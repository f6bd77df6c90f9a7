#pragma once
// Whole files read into memory for the readers that parse from a span. A file's size is never trusted to
// size a buffer: a directory opens like a file and reports an end far beyond any data, and a huge or
// sparse file is rarely what it claims to be. So the kind is checked first, by the opening bytes, and the
// rest is read in bounded pieces, holding no more than the file really gives.

#include <cstdint>
#include <string_view>
#include <vector>

#include "core/string.h"

namespace files {

// The bytes of the file at `path`, or none when it can't be read or doesn't begin with `opening`.
std::vector<uint8_t> readFileBytes(const CString& path, std::string_view opening);

}  // namespace files
