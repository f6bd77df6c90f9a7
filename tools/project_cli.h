#pragma once
// The project commands of vantrell-cli:
//
//   vantrell-cli import --demo -o OUT.qv
//   vantrell-cli import SONG.mid [--soundfont FONT.sf2] -o OUT.qv
//   vantrell-cli import PROJECT.qv -o OUT.qv
//
// and the project cases of render (ProjectSong) and info (describeProject).

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "engine/engine.h"
#include "files/damage.h"

namespace projectcli {

// The exit status of a command that wrote its output, or described its input, from a damaged file.
constexpr int exitDamaged = 3;

// Prints what was lost of `path` to standard error; the exit status of a command that got this far:
// 0 for a whole file, exitDamaged otherwise.
int tellDamage(const std::string& path, const files::DamageReport& damage);

// The first bytes of a project file.
bool hasProjectMagic(const unsigned char* bytes, size_t size);
bool isProjectFile(const std::filesystem::path& path);
// The first bytes of a Standard MIDI file.
bool hasMIDIMagic(const std::filesystem::path& path);

// A project opened to be rendered. Throws std::runtime_error with the reader's messages when the file
// is no project or could not be read to its end.
class ProjectSong {
public:
    ProjectSong(const std::filesystem::path& path, double sampleRate);
    ProjectSong(const ProjectSong&) = delete;
    ProjectSong& operator=(const ProjectSong&) = delete;

    // The end of the last part of the current arrangement, and one bar more for releases and tails.
    int32_t lengthTicks() const { return lengthTicks_; }
    const files::DamageReport& damage() const { return damage_; }

    CQV engine;

private:
    int32_t lengthTicks_ = 0;
    files::DamageReport damage_;
};

// vantrell-cli import: 0, 1 with a message when a file could not be read or written, 2 on a usage error,
// 3 when the project was written from a damaged input.
int runImport(const std::vector<std::string_view>& args);

// Prints the project's tempo, length, tracks with their parts and events, components and cables.
int describeProject(const std::string& path);

}  // namespace projectcli
