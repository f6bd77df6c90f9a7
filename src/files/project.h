#pragma once
// Project files (".qv"): a bare string value "QV3", then a flat series of tagged blocks. Each component
// writes its own inner blocks through save and load inside a "comp2" frame; its terminals, strips and
// inserts follow that frame at the same level. The reader takes the blocks in any order, skips tags it
// doesn't know by their size, reports a block whose reader stopped short of its declared end or ran
// past it, and goes on from that end.
//
// Blocks whose owners the program does not have yet (window pages, controller maps, plug-ins, the
// sample list's entries) are passed over on reading and not written.

#include <cstdint>
#include <functional>

#include "core/string.h"
#include "files/damage.h"

class CMixer;
class CQV;
class CStream;

namespace files {

// What a project holds beyond the engine, and where its messages go.
struct ProjectContext {
    // The main window's mixer; without one, "mixer" and "mixed" are passed over and not written.
    CMixer* mixer = nullptr;
    // A message for the user, with its caption. Without one it goes to the debug output.
    std::function<void(const CString& caption, const CString& text)> message;
};

enum class LoadOutcome {
    loaded,      // read to the end; damaged blocks were reported and passed over
    notProject,  // no project magic: nothing was changed
    failed,      // stopped on the way (a negative size, a component that threw): a new, empty project
};

// Replaces the engine's project with the one in the stream. The audio cycle stays out while it runs.
// Every value is brought into the range playback works in as it is read. With `damage`, what a damaged
// file lost is listed there (it stays empty for a whole file).
LoadOutcome readProject(CQV& engine, CStream& stream, const ProjectContext& context = {},
                        DamageReport* damage = nullptr);
// Opens the file and reads it; on success the engine's projectPath is the path. A missing file or one
// that is no project gives "Can't open" and leaves the project as it was.
bool openProject(CQV& engine, const CString& path, const ProjectContext& context = {}, DamageReport* damage = nullptr);

// Writes the magic and every block of the project.
void writeProject(CQV& engine, CStream& stream, const ProjectContext& context = {});
// Writes a temporary file beside the target and renames it over the target only when every byte reached
// the disk, so any failure leaves the old file whole. Refused while another save or a load runs.
bool saveProject(CQV& engine, const CString& path, const ProjectContext& context = {});

// The project's audio folder: the folder of projectPath and audioDir. Without an audioDir, and with
// create, the folder is named after the project ("<name>_audio") and made; otherwise the result is empty.
CString projectAudioFolder(CQV& engine, bool create);

}  // namespace files
