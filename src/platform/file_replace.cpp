#include "platform/file_replace.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace platform {

namespace {

// As many links as the kernel itself follows before it gives up with ELOOP.
constexpr int maxLinks = 40;

std::string folderOf(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string nameOf(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string reason(int code) { return code == 0 ? std::string() : std::string(": ") + std::strerror(code); }

SaveTarget refuse(std::string error) {
    SaveTarget target;
    target.error = std::move(error);
    return target;
}

// A link's text names its target relative to the link's own folder.
std::string linkTarget(const std::string& link, int& error) {
    std::string text(256, '\0');
    for (;;) {
        const ssize_t length = ::readlink(link.c_str(), text.data(), text.size());
        if (length < 0) {
            error = errno;
            return {};
        }
        if (static_cast<size_t>(length) < text.size()) {
            text.resize(static_cast<size_t>(length));
            break;
        }
        text.resize(text.size() * 2);
    }
    if (text.starts_with('/')) return text;
    return folderOf(link) + "/" + text;
}

void syncFolder(const std::string& folder) {
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    // Some file systems cannot flush a folder (EINVAL); the rename has happened either way.
    ::fsync(fd);
    ::close(fd);
}

bool writeAll(int fd, const char* bytes, size_t size, int& error) {
    while (size > 0) {
        const ssize_t done = ::write(fd, bytes, size);
        if (done < 0) {
            if (errno == EINTR) continue;
            error = errno;
            return false;
        }
        bytes += done;
        size -= static_cast<size_t>(done);
    }
    return true;
}

bool renameIntoPlace(const SaveTarget& target, std::string& error) {
    if (::rename(target.temporary.c_str(), target.path.c_str()) != 0) {
        error = "cannot replace " + target.path + reason(errno);
        ::unlink(target.temporary.c_str());
        return false;
    }
    syncFolder(folderOf(target.path));
    return true;
}

}  // namespace

SaveTarget resolveSaveTarget(const std::string& path) {
    if (path.empty()) return refuse("no file name given");
    std::string current = path;
    struct stat status {};
    int links = 0;
    for (;; ++links) {
        if (::lstat(current.c_str(), &status) != 0) break;
        if (!S_ISLNK(status.st_mode)) break;
        if (links == maxLinks) return refuse(path + ": too many symbolic links (a loop?); save to the file itself");
        int error = 0;
        current = linkTarget(current, error);
        if (current.empty()) return refuse(path + ": cannot read the link" + reason(error));
    }
    const int missing = errno;

    SaveTarget target;
    target.path = current;
    if (::lstat(current.c_str(), &status) == 0) {
        if (S_ISCHR(status.st_mode) || S_ISFIFO(status.st_mode)) {
            target.kind = SaveTarget::Kind::stream;
            return target;
        }
        if (S_ISDIR(status.st_mode))
            return refuse(path + " is a folder: give the name of a file inside it, such as " + path + "/out.wav");
        if (!S_ISREG(status.st_mode))
            return refuse(path + " is not a plain file (a socket or a block device): give the name of a file");
    } else if (missing != ENOENT) {
        return refuse(path + ": cannot save here" + reason(missing));
    }

    const std::string name = nameOf(current);
    if (name.empty() || name == "." || name == "..")
        return refuse(path + " names a folder: give the name of a file inside it");
    const std::string folder = folderOf(current);
    struct stat folderStatus {};
    if (::stat(folder.c_str(), &folderStatus) != 0 || !S_ISDIR(folderStatus.st_mode))
        return refuse("cannot save " + path + ": the folder " + folder + " does not exist; create it first or choose another folder");
    if (::access(folder.c_str(), W_OK | X_OK) != 0)
        return refuse("cannot save " + path + ": the folder " + folder + " is not writable" + reason(errno) +
                      "; choose another folder or change its permissions");
    target.kind = SaveTarget::Kind::file;
    target.temporary = folder + "/" + name + replaceSuffix;
    return target;
}

bool commitTemporary(const SaveTarget& target, std::string& error) {
    const int fd = ::open(target.temporary.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    const bool synced = fd >= 0 && ::fsync(fd) == 0;
    const int code = errno;
    if (fd >= 0) ::close(fd);
    if (!synced) {
        error = "cannot write " + target.path + reason(code);
        ::unlink(target.temporary.c_str());
        return false;
    }
    return renameIntoPlace(target, error);
}

FileReplace::FileReplace(const std::string& path, bool seekable) : target_(resolveSaveTarget(path)), seekable_(seekable) {
    switch (target_.kind) {
    case SaveTarget::Kind::file: openFile(); break;
    case SaveTarget::Kind::stream: openStream(); break;
    case SaveTarget::Kind::refused: error_ = target_.error; break;
    }
}

FileReplace::~FileReplace() { abandon(); }

void FileReplace::openFile() {
    // What a killed save left behind; a folder of that name is never removed, and the open below fails.
    ::unlink(target_.temporary.c_str());
    const int fd = ::open(target_.temporary.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666);
    if (fd < 0) {
        fail("cannot create", errno);
        return;
    }
    // The new file keeps the old one's permissions, and its owner where we may set that.
    struct stat old {};
    if (::stat(target_.path.c_str(), &old) == 0) {
        ::fchmod(fd, old.st_mode & 07777);
        if (::fchown(fd, old.st_uid, old.st_gid) != 0) {
            // Only the superuser may give a file away; anyone else keeps it as its own.
        }
    }
    file_ = ::fdopen(fd, "w+b");
    if (!file_) {
        const int code = errno;
        ::close(fd);
        fail("cannot create", code);
    }
}

void FileReplace::openStream() {
    // A FIFO blocks here until someone reads it, as any program writing into a pipe does.
    const int fd = ::open(target_.path.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        fail("cannot open", errno);
        return;
    }
    if (!seekable_) {
        file_ = ::fdopen(fd, "wb");
        if (!file_) {
            const int code = errno;
            ::close(fd);
            fail("cannot open", code);
        }
        return;
    }
    // The writer goes back to patch sizes, which a device or a pipe cannot do: the bytes collect in
    // memory and go out in one pass at commit.
    streamFd_ = fd;
    const int memory = ::memfd_create("vantrell-save", MFD_CLOEXEC);
    file_ = memory >= 0 ? ::fdopen(memory, "w+b") : nullptr;
    if (!file_) {
        const int code = errno;
        if (memory >= 0) ::close(memory);
        fail("cannot save to", code);
    }
}

bool FileReplace::copyToStream() {
    const int memory = ::fileno(file_);
    if (::lseek(memory, 0, SEEK_SET) != 0) return fail("cannot write", errno);
    char piece[65536];
    for (;;) {
        const ssize_t count = ::read(memory, piece, sizeof piece);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return fail("cannot write", errno);
        if (count == 0) return true;
        int error = 0;
        if (!writeAll(streamFd_, piece, static_cast<size_t>(count), error)) return fail("cannot write", error);
    }
}

bool FileReplace::commit() {
    if (!file_) {
        if (error_.empty()) error_ = "nothing to save to " + target_.path;
        return false;
    }
    if (std::ferror(file_) || std::fflush(file_) != 0) return fail("cannot write", errno);
    if (target_.kind == SaveTarget::Kind::stream) {
        if (seekable_ && !copyToStream()) return false;
        const int streamFd = streamFd_;
        streamFd_ = -1;
        if (streamFd >= 0 && ::close(streamFd) != 0) return fail("cannot write", errno);
        const int closed = std::fclose(std::exchange(file_, nullptr));
        if (closed != 0) return fail("cannot write", errno);
        committed_ = true;
        return true;
    }
    if (::fsync(::fileno(file_)) != 0) return fail("cannot write", errno);
    if (std::fclose(std::exchange(file_, nullptr)) != 0) return fail("cannot write", errno);
    committed_ = renameIntoPlace(target_, error_);
    return committed_;
}

void FileReplace::abandon() {
    if (file_) std::fclose(std::exchange(file_, nullptr));
    if (streamFd_ >= 0) ::close(std::exchange(streamFd_, -1));
    if (!committed_ && target_.kind == SaveTarget::Kind::file) ::unlink(target_.temporary.c_str());
}

bool FileReplace::fail(const std::string& what, int code) {
    error_ = what + " " + target_.path + reason(code);
    abandon();
    return false;
}

}  // namespace platform
