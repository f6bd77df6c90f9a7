#pragma once
// The blocks of a component's output channels, as the project file keeps them behind the component:
// for each output channel "aout" (or "aouti" when the component is an insert) with the channel count,
// and for the strips of ordinary components and group channels then "strip2", "eq2", "sends" (ordinary
// components only: a group does not send), and each insert followed by its "wet". The blocks stand at the
// level of the component's own block, so the project reader hands them over one at a time.
//
// An insert is a whole component with its own frame ("insert2"), which belongs to the project format.
// That format passes its writer and reader in InsertBlockIO; without them inserts are left out on save and
// their blocks skipped on load.

#include <cstdint>

class CBlockReader;
class CComp;
class CQV;
class CStream;

struct InsertBlockIO {
    // Writes the insert's "insert2" block and the terminal blocks behind it (its "aouti" included).
    void (*write)(const CComp& insert, CStream& stream) = nullptr;
    // Reads the "insert2" block whose payload ends at end; returns the new component, or null.
    CComp* (*read)(CQV* engine, CStream& stream, int32_t end) = nullptr;
};

void saveChannels(const CComp& comp, CStream& stream, const InsertBlockIO& inserts = {});

// Reads the channel blocks of one component, which follow its own block, as the project reader meets them.
// "aout" addresses the next output channel of the component (made when it has none yet); the strip blocks
// address the channel of the last "aout"; "insert2" appends an insert to that channel's chain, and
// "aouti" and "wet" then address that insert.
class CChannelReader {
public:
    explicit CChannelReader(CComp& comp, const InsertBlockIO& inserts = {}) : comp_(comp), inserts_(inserts) {}

    // Reads the block the reader stands at when its tag is one of the channel tags; false leaves the block
    // to the caller.
    bool take(CBlockReader& blocks, CStream& stream);
    // The insert that the last "insert2" made, which the insert's own terminal blocks address; null when
    // the blocks address the component.
    CComp* insert() const { return insert_; }

private:
    CComp& comp_;
    InsertBlockIO inserts_;
    int32_t channelIndex_ = -1;
    CComp* insert_ = nullptr;
    int32_t insertChannelIndex_ = -1;
};
