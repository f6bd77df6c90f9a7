#pragma once
// CSampler: the built-in instrument, "Synthesizer" in the component list. One MIDI input port, one
// stereo output channel, a list of programs of which one is current, and 64 voices that all programs
// share. There is no voice stealing: a note that finds no free voice is dropped, and only a voice of the
// same non-zero group is taken over.
//
// A cycle: events of the input port are taken in order and the cycle is cut into sub-blocks at them, so
// that each event acts on its own frame. A sub-block is rendered sound by sound: all voices of one
// sound add into the two scratch buffers, which then pass the sound's inserts, feed its program's send
// effects and are added to the output. The current program's send effects run last, over the cycle.
//
// Threads: process and everything it calls run on the audio thread or a worker, allocate nothing and
// take no lock. The editor writes settings directly and posts notes through `queue`; programs, layers
// and sounds are added and deleted only by undo steps, at the end of a cycle, and a voice whose sound
// has left the sampler is stopped before the step can free it.

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "engine/comp.h"
#include "fx/mixer.h"
#include "sound/event_queue.h"
#include "sound/program.h"
#include "sound/sample.h"
#include "sound/sound_random.h"
#include "sound/voice.h"

class CUndo;

// GUI bit of changeFlags: the sampler's editor redraws everything (after a load).
constexpr uint64_t samplerRedraw = 0x1;

// The undo item kinds the sampler's own steps carry (in kindFlags), as its undoApplied reads them.
constexpr uint32_t undoItemDelete = 6;
constexpr uint32_t undoItemAddProgram = 19;

// Shows the message of a damaged block to the user; the main window installs it once it exists. Without
// one, the message goes to the debug output.
using LoadErrorPrompt = void (*)(const CString& caption, const CString& text);
void setLoadErrorPrompt(LoadErrorPrompt prompt);

class CSampler : public CComp {
public:
    static constexpr int32_t voiceCount = 64;
    static constexpr int32_t paramCount = 128;
    static constexpr int32_t delayFrames = 480000;
    static constexpr int32_t scratchFrames = 131072;
    static constexpr int32_t maxPrograms = 256;
    static constexpr int32_t optionBytes = 32;
    static constexpr int32_t mixerParamCount = 8;

    explicit CSampler(CQV* engine);
    ~CSampler() override;

    // A new sampler: the base ports and every factory program, the first one current.
    void createPorts() override;
    // One input port and one stereo output channel.
    void createBasePorts() override;
    // Clears the send inputs of the current program, then what every component clears.
    void beginCycle(int32_t frames) override;
    void processBlock(int32_t frames) override;
    // Scratch buffers, send effects and inserts follow the block size; nothing is allocated in process.
    void setBlockSize(int32_t frames) override;
    // Also the rate the envelopes count their times in.
    void setSampleRate(double rate) override;
    // Meters of the current program's sounds fall by 0.05 a tick.
    void guiTick() override;
    int32_t getParamCount() const override { return paramCount; }
    // Stores the value and writes it, through each sound's controller map, into the sounds of the current
    // program. Indices above 127 are ignored; negative ones are the common parameters.
    void setParam(int32_t index, float value) override;
    float getParam(int32_t index) const override;
    CString getParamName(int32_t index) const override;
    CString getParamDisplay(int32_t index) const override;
    // Voices already sounding go on with their own sound.
    void setProgram(int32_t index) override;
    CString getProgramName(int32_t index) const override;
    void setProgramName(int32_t index, CString name) override;
    void undoApplied(CUndoItem* item, int32_t direction) override;
    void save(CStream& stream) override;
    void load(CStream& stream, int32_t end) override;
    // A new sampler with this one's state, carried through save and load in memory.
    CComp* copy() const override;

    // GUI thread: a note or controller from the editor's keyboard or a preview. False when the queue is
    // full and the event was lost.
    bool postEvent(uint32_t midi, double frame = 0.0);

    CSynthProg* currentProgram() const;
    // A new program of this sampler, empty, its send effects ready for the engine's block and rate.
    CSynthProg* makeProgram() const;
    // The default program: one layer with one oscillator sound.
    CSynthProg* makeDefaultProgram() const;
    // The factory table. Index -1: the number of entries. Otherwise the entry's name goes to `name` and,
    // with `create`, its program joins the list, through the step when one is given, else at once. An
    // index beyond the table does nothing.
    int32_t factoryProgram(CUndo* step, int32_t index, CString* name, bool create);
    // "Add program": the default program joins the list, through the step when one is given (applying
    // it makes the new program current), else at once. False at 256 programs.
    bool addDefaultProgram(CUndo* step);
    // Takes the program out through the step; removing the only program adds the default one.
    void deleteProgram(CUndo& step, int32_t index);
    // Takes the sound out of its layer through the step.
    void deleteSound(CUndo& step, CSound& sound) const;

    // Voice allocation for a note-on of a sound; null when the note is dropped or retargeted a mono
    // voice.
    SamplerVoice* allocate(CSound& sound, const CMIDIEvent& event, uint8_t group);
    int32_t soundingVoices() const;

    int32_t mch = -1;  // MIDI channel filter: -1 all, else 0..15
    SamplerVoice voices[voiceCount];
    CEventQueue queue;
    // The delay memory of every delay send effect of this sampler's programs: ten seconds each side, of
    // which most samplers never touch a page, so it comes zeroed from the system rather than written.
    struct FreeFloats {
        void operator()(float* memory) const { std::free(memory); }
    };
    std::unique_ptr<float[], FreeFloats> delayL, delayR;
    // One block each: outL, outR gather one sound's voices; readL, readR hold what a sampled voice reads.
    std::unique_ptr<float[]> outL, outR, readL, readR;
    std::unique_ptr<float[]> interpScratch;
    float paramValues[paramCount] = {};
    uint8_t options[optionBytes] = {};  // byte 0: the editor's page; the others are kept as they are
    CSoundRandom random;
    TList<CSampleClip> samplePool;  // owned: the clips every sampled sound of this sampler points at
    TList<CMixerParam> mixParams;  // owned: parameters 0 to 7 on the mixer strip

private:
    bool concerns(const CMIDIEvent& event) const;
    void handleEvent(const CMIDIEvent& event);
    void noteOff(int32_t key);
    void startNote(CSound& sound, const CMIDIEvent& event);
    // Renders `frames` frames of every sounding voice at output offset `offset`.
    void generate(int32_t frames, int32_t offset);
    void runSendEffects(int32_t frames);
    void stopAllVoices();
    // Stops voices whose sound is no longer in any program of this sampler.
    void stopLostVoices();
    void repairSelections();
    void prepareSound(CSound& sound) const;
    // Counts the sounds that use each clip and deletes the clips nobody uses.
    void rebuildUseCounts();
    void loadClip(BlockIn& in);
    void saveState(CStream& stream) const;
    void reportDamage(const CString& tag, uint32_t size) const;
};

// Makes the sampler known to createComp (type 3) and the effects it uses known to createFX.
void registerSoundComponents();
