// What reading costs a file that is not what its name or size suggests: each reader runs in a child
// process, whose peak resident memory is held against that of a child that reads nothing.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/temp_folder.h"
#include "engine/engine.h"
#include "files/midi.h"
#include "files/project.h"
#include "seq/seq.h"

namespace {

// A directory and a big sparse file are known for what they are by their first bytes, before anything
// is sized from them; a song behind a foreign chunk larger than one read still imports.
TEST(ReadingBounds, FilesAreRecognisedBeforeTheyAreRead) {
    TempFolder dir;
    const std::string sparse = dir.file("sparse"), padded = dir.file("padded.mid");
    std::ofstream(sparse).close();
    std::filesystem::resize_file(sparse, uintmax_t{2} << 30);
    std::ofstream(padded, std::ios::binary) << std::string("MThd\0\0\0\6\0\0\0\1\0\x60" "XFIL\0\x18\0\0", 22)
                                            << std::string(3 << 19, '\0')
                                            << std::string("MTrk\0\0\0\x08\0\x90\x3C\x64\x60\x80\x3C\0", 16);
    const auto song = [](const std::string& path) {
        CQV engine(EngineOptions{false, 1});
        auto* seq = new CSeq(&engine);
        seq->createPorts();
        engine.addComp(seq);
        return !files::importMIDI(*seq, nullptr, CString(path.c_str()), nullptr, 0).newParts.empty();
    };
    const auto project = [](const std::string& path) {
        CQV engine(EngineOptions{false, 1});
        return files::openProject(engine, CString(path.c_str()));
    };
    // Peak megabytes above an idle child's, and what the reader gave.
    const auto inChild = [](bool (*reader)(const std::string&), const std::string& path) {
        int64_t peak[2] = {};
        bool result = false;
        for (int32_t read : {0, 1}) {
            const pid_t child = fork();
            if (child == 0) _exit(read && reader(path) ? 1 : 0);
            int status = 0;
            rusage usage{};
            wait4(child, &status, 0, &usage);
            peak[read] = usage.ru_maxrss / 1024;
            result = WIFEXITED(status) && WEXITSTATUS(status) == 1;
        }
        return std::pair{peak[1] - peak[0], result};
    };
    const std::tuple<bool (*)(const std::string&), std::string, bool> rows[] = {
        {song, dir.file(""), false}, {song, sparse, false}, {song, padded, true},
        {project, dir.file(""), false}, {project, sparse, false}};
    for (const auto& [reader, path, expected] : rows) {
        const auto [megabytes, result] = inChild(reader, path);
        EXPECT_LT(megabytes, 64) << path;
        EXPECT_EQ(result, expected) << path;
    }
}

}  // namespace
