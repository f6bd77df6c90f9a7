#pragma once
// The text dump of a sound: one line of source-like text for each setting that differs from a new sound
// of the same kind, in a fixed order, so that a sound made by hand in the editor can be pasted into the
// factory table.

#include <string>
#include <vector>

#include "core/string.h"

class CSound;

std::vector<std::string> soundDumpLines(const CSound& sound);

// Writes the lines as "patch.txt" in `folder`, CR LF, replacing the file atomically. False when the file
// could not be written.
bool writeSoundDump(const CSound& sound, const CString& folder);
