#pragma once
// vantrell-cli info FILE: what a file holds, told by its kind. Each kind is one row of the table in
// info.cpp: a test of the file's first bytes and the function that describes it.

#include <string_view>
#include <vector>

namespace info {

// Prints the description to standard output; 0, or 1 with a message on standard error when the file
// can't be read or is of no kind known here.
int run(const std::vector<std::string_view>& args);

}  // namespace info
