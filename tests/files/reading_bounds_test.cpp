// What reading a file costs when the file is not what its name or size suggests: each reader is run in a
// child process, whose peak resident memory is measured against that of a child that reads nothing.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <tuple>
#include <utility>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/temp_folder.h"
#include "engine/engine.h"
#include "files/midi.h"
#include "files/project.h"
#include "seq/seq.h"

namespace {

using Reader = std::function<bool(const std::string& path)>;

bool importSong(const std::string& path) {
    CQV engine(EngineOptions{false, 1});
    auto* seq = new CSeq(&engine);
    seq->createPorts();
    engine.addComp(seq);
    return !files::importMIDI(*seq, nullptr, CString(path.c_str()), nullptr, 0).newParts.empty();
}

bool openSong(const std::string& path) {
    CQV engine(EngineOptions{false, 1});
    return files::openProject(engine, CString(path.c_str()));
}

// Megabytes the reader's child peaked above an idle child, and what the reader gave.
std::pair<int64_t, bool> readInChild(const Reader& reader, const std::string& path) {
    const auto run = [&](bool read) {
        const pid_t child = fork();
        if (child == 0) _exit(read && reader(path) ? 1 : 0);
        int status = 0;
        rusage usage{};
        wait4(child, &status, 0, &usage);
        return std::pair<int64_t, bool>{usage.ru_maxrss / 1024, WIFEXITED(status) && WEXITSTATUS(status) == 1};
    };
    const int64_t idle = run(false).first;
    const auto [peak, result] = run(true);
    return {peak - idle, result};
}

// A directory and a big sparse file are known for what they are from their first bytes, before anything
// is sized from them; a song behind a large chunk of another kind still imports.
TEST(ReadingBounds, FilesAreRecognisedBeforeTheyAreRead) {
    TempFolder dir;
    const std::string sparse = dir.file("sparse"), padded = dir.file("padded.mid");
    std::ofstream(sparse).close();
    std::filesystem::resize_file(sparse, uintmax_t{2} << 30);
    std::ofstream song(padded, std::ios::binary);
    song << std::string("MThd\0\0\0\6\0\0\0\1\0\x60" "XFIL\0\x18\0\0", 22) << std::string(3 << 19, '\0')
         << std::string("MTrk\0\0\0\x08\0\x90\x3C\x64\x60\x80\x3C\0", 16);
    song.close();
    const std::tuple<const char*, Reader, std::string, bool> rows[] = {
        {"song from a folder", importSong, dir.file(""), false},
        {"song from a sparse file", importSong, sparse, false},
        {"song behind a foreign chunk", importSong, padded, true},
        {"project from a folder", openSong, dir.file(""), false},
        {"project from a sparse file", openSong, sparse, false},
    };
    for (const auto& [name, reader, path, result] : rows) {
        const auto [megabytes, read] = readInChild(reader, path);
        EXPECT_LT(megabytes, 64) << name;
        EXPECT_EQ(read, result) << name;
    }
}

}  // namespace
