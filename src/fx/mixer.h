#pragma once
// The mixer's saved views and the group channels it adds. There is no central mixing engine: every
// output channel is its own strip and runs with its component. CMixer only keeps what the mixer window
// shows (a program per view) and performs "Add Group".

#include <cstdint>

#include "core/list.h"
#include "core/object.h"
#include "engine/comp.h"

// One saved view of the mixer.
class CMixProg : public CObject {
public:
    explicit CMixProg(CString name);

    // A bit for each kind of strip the view shows; only the mixer window reads them.
    int32_t show = 31;
};

// One parameter of a component shown on its mixer strip. Components that offer them keep a list.
class CMixerParam : public CObject {
public:
    CMixerParam(CComp* owner, int32_t index) : owner(owner), index(index) {}

    CComp* owner;
    int32_t index;
};

// Kind 1, subKind 0: the mixer is made by its owner (the main window), never by the component factory.
class CMixer : public CComp {
public:
    explicit CMixer(CQV* engine);

    void clear() override;
    // "mxv" view, "progi" current program, then "prog" and "sh" for each program.
    void save(CStream& stream) override;
    void load(CStream& stream, int32_t end) override;
    CString getProgramName(int32_t index) const override;
    void setProgramName(int32_t index, CString name) override;

    // The program at index, -1 meaning the current one; null when out of range.
    CMixProg* mixProgram(int32_t index) const;
    // A new view named "Program" and its number, appended.
    CMixProg* addProgram();
    // "Add Group": one undo step makes a group channel, appends it to the engine's groupChannels and
    // cables it to the first audio output. False when every send already has its group, or when the
    // deferred queue refused the step.
    bool addGroup(bool wait);

    int32_t view = 0;
};

// "mixparams": a block whose size word is 0, followed (outside it) by the count and four words an entry.
void saveMixParams(const TList<CMixerParam>& params, CStream& stream);
// Reads what follows the "mixparams" header and appends a parameter of owner for each entry.
void loadMixParams(TList<CMixerParam>& params, CComp* owner, CStream& stream);
