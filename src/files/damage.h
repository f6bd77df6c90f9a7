#pragma once
// What a reader lost of a damaged file, told to the user: a damaged file loads as far as it can, and
// each line says what was skipped, cut or dropped, by name where the file gives one. Empty for a file
// read whole.
#include <string>
#include <utility>
#include <vector>

namespace files {

struct DamageReport {
    std::vector<std::string> lines;

    bool empty() const { return lines.empty(); }
    void add(std::string line) { lines.push_back(std::move(line)); }
};

}  // namespace files
