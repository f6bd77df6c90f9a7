#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

#include "cli_path.h"
#include "demo_song.h"
#include "files/midi.h"
#include "files/project.h"
#include "seq/seq.h"
#include "support/engine_graph.h"

namespace {

const std::filesystem::path midiExample = "/usr/share/doc/mma/examples/misc/cascade.mid";

std::string readText(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class ProjectCli : public ::testing::Test {
protected:
    void SetUp() override {
        dir = std::filesystem::temp_directory_path() / ("vantrell_project_cli_" + std::to_string(std::random_device{}()));
        std::filesystem::create_directories(dir);
    }
    void TearDown() override { std::filesystem::remove_all(dir); }

    // Runs vantrell-cli in the test's folder; keeps what it printed and returns its exit status.
    int cli(const std::string& args) {
        const std::string command = "cd '" + dir.string() + "' && '" + cliPath + "' " + args + " > out.txt 2> err.txt";
        const int status = std::system(command.c_str());
        output = readText(dir / "out.txt");
        errors = readText(dir / "err.txt");
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string file(const char* name) const { return readText(dir / name); }

    std::filesystem::path dir;
    std::string output, errors;
};

TEST_F(ProjectCli, ImportedProjectsSaveAgainRenderAndDescribeLikeTheirSong) {
    ASSERT_EQ(cli("import --demo -o demo.qv"), 0) << errors;
    ASSERT_EQ(cli("import demo.qv -o again.qv"), 0) << errors;
    EXPECT_EQ(file("demo.qv"), file("again.qv"));

    // A low rate keeps the two renders short; the project must sound exactly like the song it holds.
    ASSERT_EQ(cli("render demo.qv -o project.wav --rate 8000 --bits 32"), 0) << errors;
    ASSERT_EQ(cli("render --demo -o song.wav --rate 8000 --bits 32"), 0) << errors;
    EXPECT_GT(file("song.wav").size(), 8000u * 8u * 30u);
    EXPECT_TRUE(file("project.wav") == file("song.wav"));

    demo::DemoSong song(48000.0);
    ASSERT_EQ(cli("info demo.qv"), 0) << errors;
    EXPECT_NE(output.find("components: " + std::to_string(song.engine.comps.count()) + ","), std::string::npos) << output;
    EXPECT_NE(output.find("#1 Sequencer"), std::string::npos) << output;
}

TEST_F(ProjectCli, AMIDIFileBecomesAProjectWithATrackForEachOfItsTracks) {
    ASSERT_TRUE(std::filesystem::exists(midiExample)) << "scripts/bootstrap installs mma";
    ASSERT_EQ(cli("import '" + midiExample.string() + "' -o song.qv"), 0) << errors;

    CQV imported(EngineOptions{false, 1});
    auto* seq = testgraph::add<CSeq>(imported);
    ASSERT_FALSE(files::importMIDI(*seq, nullptr, midiExample.c_str(), nullptr, 0).newTracks.empty());

    CQV opened(EngineOptions{false, 1});
    ASSERT_TRUE(files::openProject(opened, (dir / "song.qv").c_str()));
    const auto found = std::find_if(opened.comps.begin(), opened.comps.end(), [](CComp* comp) { return comp->isSequencer(); });
    ASSERT_NE(found, opened.comps.end());
    const auto* loaded = static_cast<const CSeq*>(*found);
    EXPECT_EQ(loaded->tracks.count(), seq->tracks.count());
    EXPECT_EQ(loaded->getLength(), seq->getLength());

    // Through a SoundFont, the project renders the same file as the MIDI file does.
    const std::string font = "/usr/share/sounds/sf2/TimGM6mb.sf2";
    ASSERT_EQ(cli("import '" + midiExample.string() + "' --soundfont " + font + " -o gm.qv"), 0) << errors;
    ASSERT_EQ(cli("render gm.qv -o project.wav --rate 8000"), 0) << errors;
    ASSERT_EQ(cli("render '" + midiExample.string() + "' --soundfont " + font + " -o song.wav --rate 8000"), 0) << errors;
    EXPECT_GT(file("song.wav").size(), 8000u * 4u * 5u);
    EXPECT_TRUE(file("project.wav") == file("song.wav"));
}

// A damaged input is used as far as it goes, but never in silence: each command that writes or
// describes it lists what was lost and ends with status 3 after its output.
TEST_F(ProjectCli, DamagedInputsAreToldAndEndWithStatusThree) {
    ASSERT_EQ(cli("import --demo -o demo.qv"), 0) << errors;
    // Cut inside the last component: the song and its audio output are still there to render.
    std::ofstream(dir / "cut.qv", std::ios::binary) << file("demo.qv").substr(0, 150000);
    // A note, then a track that claims 1000 bytes and holds a dozen.
    const char midi[] = "MThd\0\0\0\6\0\0\0\1\x01\xE0MTrk\0\0\x03\xE8\0\x90\x3C\x64\x60\x80\x3C\0\0\xFF\x2F\0";
    std::ofstream(dir / "cut.mid", std::ios::binary).write(midi, sizeof midi - 1);

    struct Row {
        std::string command, lost;
    };
    const Row rows[] = {
        {"info cut.qv", "the file ends inside block 'comp2'"},
        {"import cut.qv -o again.qv", "the file ends inside block 'comp2'"},
        {"render cut.qv -o cut.wav --rate 8000", "the file ends inside block 'comp2'"},
        {"info cut.mid", "track 1 claims 1000 bytes"},
        {"import cut.mid -o midi.qv", "track 1 claims 1000 bytes"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(cli(row.command), 3) << row.command << "\n" << errors;
        EXPECT_NE(errors.find("is damaged"), std::string::npos) << row.command << "\n" << errors;
        EXPECT_NE(errors.find(row.lost), std::string::npos) << row.command << "\n" << errors;
    }
    // The output was written all the same.
    for (const char* name : {"again.qv", "cut.wav", "midi.qv"}) EXPECT_TRUE(std::filesystem::exists(dir / name)) << name;
}

TEST_F(ProjectCli, BadImportsFailWithAMessage) {
    EXPECT_EQ(cli("import"), 2);
    EXPECT_EQ(cli("import --demo"), 2);
    EXPECT_NE(errors.find("no output file"), std::string::npos) << errors;
    EXPECT_EQ(cli("import --demo demo.qv -o out.qv"), 2);
    EXPECT_EQ(cli("import missing.qv -o out.qv"), 1);
    EXPECT_NE(errors.find("missing.qv"), std::string::npos) << errors;
    std::ofstream(dir / "text.qv") << "not a project";
    EXPECT_EQ(cli("import text.qv -o out.qv"), 1);
    EXPECT_FALSE(std::filesystem::exists(dir / "out.qv"));
    EXPECT_EQ(cli("import --demo -o no/such/folder/out.qv"), 1);
    EXPECT_NE(errors.find("no/such/folder/out.qv"), std::string::npos) << errors;
}

}  // namespace
