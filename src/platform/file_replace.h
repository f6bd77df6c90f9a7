#pragma once
// Saving over a path, whatever stands there.
//
// - A plain file or a new name: the bytes go to a temporary file in the same folder, which is flushed to
//   disk, renamed over the target, and the folder flushed too, so that neither a killed save nor a power
//   cut leaves anything but the old file or the new one.
// - A symbolic link: the chain is followed and its final target replaced that way, in the target's own
//   folder; the link stays a link.
// - A character device or a FIFO (/dev/null, a pipe another program reads): written straight, since a
//   rename would put a plain file where the device was.
// - Anything else (a folder, a socket, a block device) is refused before any bytes are made.
//
// The temporary file has a fixed name derived from the target, so a save killed half-way leaves a file
// that the next save of the same target removes.

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

namespace platform {

// The suffix of the temporary file beside the target.
inline constexpr const char* replaceSuffix = ".vantrell-partial";

struct SaveTarget {
    enum class Kind : uint8_t { file, stream, refused };
    Kind kind = Kind::refused;
    // Where the bytes end up: the path given, or the end of its chain of links.
    std::string path;
    // Beside path; empty for streams.
    std::string temporary;
    // Why the target is refused: what is wrong and what to do.
    std::string error;
};

// Looks at what stands at path (without changing anything) and decides how it is saved.
SaveTarget resolveSaveTarget(const std::string& path);

// Makes a temporary file the target: flushes it, renames it over the target and flushes the folder.
// Removes the temporary file when that fails. False with error set on failure.
bool commitTemporary(const SaveTarget& target, std::string& error);

// One save in progress. The file() stream is valid from a successful open until commit or destruction;
// the owner writes through it and neither closes it nor keeps it afterwards.
class FileReplace {
public:
    // seekable: a stream target is then collected in memory and written out at commit, for writers that
    // go back to patch sizes; otherwise it is written as the bytes come.
    FileReplace(const std::string& path, bool seekable);
    // Without a commit the temporary file is removed and the old file stays as it was.
    ~FileReplace();
    FileReplace(const FileReplace&) = delete;
    FileReplace& operator=(const FileReplace&) = delete;

    bool isOpen() const { return file_ != nullptr; }
    std::FILE* file() const { return file_; }
    // True when bytes reach the target as they are written and there is no going back to patch them.
    bool isStream() const { return target_.kind == SaveTarget::Kind::stream && !seekable_; }
    const SaveTarget& target() const { return target_; }
    // Why open or commit failed.
    const std::string& error() const { return error_; }

    // Flushes everything to the target; false with error() set when any of it failed, and then the
    // old file is untouched.
    bool commit();
    // Gives up: closes the file and removes the temporary one; the old file stays as it was.
    void abandon();

private:
    void openFile();
    void openStream();
    bool copyToStream();
    bool fail(const std::string& what, int code);

    SaveTarget target_;
    bool seekable_;
    std::FILE* file_ = nullptr;
    // The device or FIFO of a seekable stream target, while file() collects its bytes in memory.
    int streamFd_ = -1;
    bool committed_ = false;
    std::string error_;
};

}  // namespace platform
