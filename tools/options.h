#pragma once
// Checks of the command line that every command shares, each failing with a message that says what is
// wrong and what to do, before any long work starts.

#include <filesystem>
#include <string>
#include <string_view>

namespace cli {

// A mistake in the command line: the message and the usage text, exit status 2.
struct UsageError {
    std::string message;
};

// A file the command cannot read or write: the message alone, exit status 1.
struct FileRefused {
    std::string message;
};

// The value of a numeric option, low to high. Throws UsageError.
int wholeNumber(std::string_view option, std::string_view text, int low, int high);

// An input file: it exists and is a file. Throws FileRefused.
void checkInput(const std::filesystem::path& path);

// An output path that can be saved to: a file in a folder that exists and may be written, a link to one,
// a device or a FIFO. Throws FileRefused.
void checkOutput(const std::filesystem::path& path);

// The extension of a file name in lower case, with its dot; empty when there is none.
std::string extensionOf(const std::filesystem::path& path);

}  // namespace cli
