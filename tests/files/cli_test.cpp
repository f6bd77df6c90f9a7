#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "cli_path.h"

namespace {

std::string readText(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class Cli : public ::testing::Test {
protected:
    void SetUp() override {
        dir = std::filesystem::temp_directory_path() /
              ("vantrell_cli_" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) + "_" +
               std::to_string(std::random_device{}()));  // several builds may run the suite at once
        std::filesystem::remove_all(dir);
        std::filesystem::create_directories(dir);
    }
    void TearDown() override { std::filesystem::remove_all(dir); }

    // Runs the program with `args`; returns its exit status, as the shell saw it, and keeps what it wrote
    // to standard error.
    int cli(const std::string& args, const std::string& environment = "") {
        const auto command = environment + " '" + cliPath + "' " + args + " > '" + (dir / "out.txt").string() + "' 2> '" +
                             (dir / "err.txt").string() + "'; echo $? > '" + (dir / "status.txt").string() + "'";
        EXPECT_EQ(std::system(command.c_str()), 0);
        errors = readText(dir / "err.txt");
        return std::stoi(readText(dir / "status.txt"));
    }

    std::string sox(const std::string& args) {
        const int status = std::system(("sox " + args + " > '" + (dir / "sox.txt").string() + "' 2>&1").c_str());
        const std::string text = readText(dir / "sox.txt");
        EXPECT_EQ(status, 0) << text;
        return text;
    }

    std::filesystem::path dir;
    std::string errors;
};

TEST_F(Cli, TwoRendersAreBitIdenticalAndSoxReadsThem) {
    const auto first = dir / "a.wav", second = dir / "b.wav";
    ASSERT_EQ(cli("render --demo -o '" + first.string() + "' --rate 44100 --bits 24"), 0) << errors;
    ASSERT_EQ(cli("render --demo -o '" + second.string() + "' --rate 44100 --bits 24"), 0) << errors;
    const std::string a = readText(first), b = readText(second);
    ASSERT_GT(a.size(), 44u);
    EXPECT_TRUE(a == b) << "renders differ";
    EXPECT_EQ(errors, "") << "no progress bar when standard error is a file";

    EXPECT_EQ(sox("--i -r '" + first.string() + "'"), "44100\n");
    EXPECT_EQ(sox("--i -c '" + first.string() + "'"), "2\n");
    EXPECT_EQ(sox("--i -b '" + first.string() + "'"), "24\n");
    EXPECT_GE(std::stod(sox("--i -D '" + first.string() + "'")), 30.0);
    // `stat` reports the largest sample magnitude among its lines.
    const std::string stat = sox("'" + first.string() + "' -n stat");
    const auto at = stat.find("Maximum amplitude:");
    ASSERT_NE(at, std::string::npos) << stat;
    const double maximum = std::stod(stat.substr(at + 18));
    EXPECT_GT(maximum, 0.05) << "not silent";
    EXPECT_LE(maximum, 1.0);
}

TEST_F(Cli, BadOptionsFailWithAMessage) {
    struct Row {
        const char* args;
        const char* message;
    };
    const Row rows[] = {
        {"", "usage:"},
        {"dance", "unknown command 'dance'"},
        {"render -o x.wav", "nothing to render"},
        {"render --demo", "no output file"},
        {"render --demo -o x.wav --bits 12", "--bits must be 16, 24 or 32"},
        {"render --demo -o x.wav --format ogg", "--format must be wav, aiff or mp3"},
        {"render --demo -o x.mp3 --bitrate 8", "--bitrate must be between 32 and 320"},
        {"render --demo -o x.wav --rate -5", "--rate wants a whole number from 8000 to 192000, not '-5'"},
        {"render --demo -o x.wav --rate 1000", "between 8000 and 192000"},
        {"render --demo -o x.mp3 --bitrate 1e3", "--bitrate wants a whole number from 32 to 320"},
        {"render --demo -o x.flac", "writes no '.flac' files: end the name in .wav"},
        {"render --demo -o x.wav --format mp3", "--format mp3 does not match the name x.wav"},
        {"render --demo -o x.wav --loud", "unknown option '--loud'"},
        {"render --demo -o", "-o wants a value"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(cli(row.args), 2) << row.args;
        EXPECT_NE(errors.find(row.message), std::string::npos) << row.args << "\n" << errors;
    }
    EXPECT_FALSE(std::filesystem::exists("x.wav"));
}

// Files the commands cannot use are refused with what is wrong and what to do, and leave nothing behind.
TEST_F(Cli, UnusableFilesAreRefusedBeforeTheWork) {
    const std::string folder = "'" + dir.string() + "'", missing = "'" + (dir / "no such folder" / "demo.wav").string() + "'";
    std::ofstream(dir / "damaged.qv") << "QV3 cut short";
    // A node of our own, so that a faulty save never replaces the system's /dev/full.
    const auto full = dir / "full";
    ASSERT_EQ(std::system(("mknod '" + full.string() + "' c 1 7 2>/dev/null || ln -s /dev/full '" + full.string() + "'").c_str()), 0);
    struct Row {
        std::string args;
        std::string message;
    };
    const Row rows[] = {
        {"render --demo -o " + missing, "no such folder does not exist; create it first"},
        {"import --demo -o " + missing, "no such folder does not exist; create it first"},
        {"render --demo -o " + folder, "is a folder: give the name of a file inside it"},
        {"info " + folder, "is a folder, not a file"},
        {"render " + folder + " --soundfont x.sf2 -o " + folder + "/x.wav", "is a folder, not a file"},
        {"render '" + (dir / "damaged.qv").string() + "' -o " + folder + "/x.wav", "the project could not be read"},
        {"render --demo --rate 8000 -o '" + full.string() + "'", std::strerror(ENOSPC)},
        {"import --demo -o '" + full.string() + "'", full.string() + ": "},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(cli(row.args), 1) << row.args;
        EXPECT_NE(errors.find(row.message), std::string::npos) << row.args << "\n" << errors;
    }
    EXPECT_TRUE(std::filesystem::is_character_file(full));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir), {}), 5) << "the project, the node and three logs";
}

TEST_F(Cli, AiffAndMp3FollowTheExtensionAndLameEncodes) {
    const auto aiff = dir / "song.aif", mp3 = dir / "song.mp3", decoded = dir / "decoded.wav";
    ASSERT_EQ(cli("render --demo -o '" + aiff.string() + "' --rate 44100 --bits 32"), 0) << errors;
    EXPECT_EQ(sox("--i -t '" + aiff.string() + "'"), "aiff\n");
    EXPECT_EQ(sox("--i -b '" + aiff.string() + "'"), "32\n");
    const double seconds = std::stod(sox("--i -D '" + aiff.string() + "'"));

    ASSERT_EQ(cli("render --demo -o '" + mp3.string() + "' --rate 44100 --bitrate 96"), 0) << errors;
    EXPECT_FALSE(std::filesystem::exists(dir / "song.mp3.render.wav")) << "the WAV in between is removed";
    ASSERT_EQ(std::system(("lame --quiet --decode '" + mp3.string() + "' '" + decoded.string() + "'").c_str()), 0);
    // lame's own decode gives back the length, give or take a codec frame (lame may also lower the rate).
    EXPECT_NEAR(std::stod(sox("--i -D '" + decoded.string() + "'")), seconds, 0.05);

    // Without the encoder on PATH: the message, a failed exit, the old MP3 untouched and no WAV left.
    const std::string before = readText(mp3);
    EXPECT_EQ(cli("render --demo -o '" + mp3.string() + "'", "PATH=/nonexistent"), 1);
    EXPECT_NE(errors.find("Could not encode file - make sure mp3 encoder is installed properly"), std::string::npos) << errors;
    EXPECT_TRUE(readText(mp3) == before);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir), {}), 7) << "the AIFF, the MP3, the decode and four logs";

    // An encoder that fails is reported with its status, and the old MP3 stays as it was.
    const auto bin = dir / "bin";
    std::filesystem::create_directories(bin);
    std::ofstream(bin / "lame") << "#!/bin/sh\necho broken > \"$6\"\nexit 3\n";
    std::filesystem::permissions(bin / "lame", std::filesystem::perms::owner_all);
    EXPECT_EQ(cli("render --demo -o '" + mp3.string() + "'", "PATH='" + bin.string() + ":/usr/bin:/bin'"), 1);
    EXPECT_NE(errors.find("installed properly (lame failed with status 3)"), std::string::npos) << errors;
    EXPECT_TRUE(readText(mp3) == before);
}

TEST_F(Cli, InfoDescribesAudioFilesAndRefusesOthers) {
    const std::string alsa = "/usr/share/sounds/alsa/Front_Center.wav";
    ASSERT_EQ(cli("info " + alsa), 0) << errors;
    const std::string out = readText(dir / "out.txt");
    EXPECT_NE(out.find("format:   WAV, 16 bit integer"), std::string::npos) << out;
    EXPECT_NE(out.find("rate:     " + std::to_string(std::stol(sox("--i -r " + alsa))) + " Hz"), std::string::npos) << out;
    EXPECT_NE(out.find("frames:   " + std::to_string(std::stol(sox("--i -s " + alsa)))), std::string::npos) << out;
    EXPECT_NE(out.find("channels: 1 (mono)"), std::string::npos) << out;

    const auto text = dir / "notes.txt";
    std::ofstream(text) << "not audio at all";
    EXPECT_EQ(cli("info '" + text.string() + "'"), 1);
    EXPECT_NE(errors.find("not a kind of file"), std::string::npos) << errors;
    const auto eight = dir / "eight.wav";
    sox("-n -b 8 '" + eight.string() + "' synth 0.01 sine 100");
    EXPECT_EQ(cli("info '" + eight.string() + "'"), 1);
    EXPECT_NE(errors.find("8 bit"), std::string::npos) << errors;
    EXPECT_EQ(cli("info '" + (dir / "missing.wav").string() + "'"), 1);
}

TEST_F(Cli, MidiFileThroughASoundFontAndWhatIsNeitherFails) {
    const std::string font = "/usr/share/sounds/sf2/TimGM6mb.sf2", song = "/usr/share/doc/mma/examples/misc/cascade.mid";
    ASSERT_TRUE(std::filesystem::exists(font) && std::filesystem::exists(song)) << "scripts/bootstrap installs them";
    const auto wav = dir / "song.wav";
    ASSERT_EQ(cli("render '" + song + "' --soundfont '" + font + "' -o '" + wav.string() + "' --rate 44100"), 0) << errors;
    EXPECT_EQ(std::stol(sox("--i -r '" + wav.string() + "'")), 44100);
    const std::string stats = sox("'" + wav.string() + "' -n stat");
    EXPECT_GT(std::stod(stats.substr(stats.find("RMS     amplitude:") + 18)), 0.005) << stats;

    ASSERT_EQ(cli("info '" + song + "'"), 0) << errors;
    EXPECT_NE(readText(dir / "out.txt").find("Standard MIDI file, format 1, division 192"), std::string::npos);
    ASSERT_EQ(cli("info '" + font + "'"), 0) << errors;
    EXPECT_NE(readText(dir / "out.txt").find("presets:  136"), std::string::npos) << readText(dir / "out.txt");

    EXPECT_EQ(cli("render '" + song + "' -o '" + wav.string() + "'"), 2);
    EXPECT_NE(errors.find("--soundfont"), std::string::npos);
    EXPECT_EQ(cli("render '" + song + "' --soundfont '" + song + "' -o '" + wav.string() + "'"), 1);
    EXPECT_NE(errors.find(song), std::string::npos) << errors;
    EXPECT_EQ(cli("render '" + font + "' --soundfont '" + font + "' -o '" + wav.string() + "'"), 1);
    EXPECT_NE(errors.find("nor a Standard MIDI file"), std::string::npos) << errors;
    const auto cut = dir / "cut.sf2";
    std::ofstream(cut, std::ios::binary) << readText(font).substr(0, 100000);
    EXPECT_EQ(cli("info '" + cut.string() + "'"), 1);
    EXPECT_NE(errors.find("truncated"), std::string::npos) << errors;
}

}  // namespace
