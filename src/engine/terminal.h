#pragma once
// Terminals of a component: the base CIO, audio channels and sends. MIDI ports are in midi.h.
//
// Audio is 32-bit float, non-interleaved, one buffer per side, one block long. Meters are written by the
// audio thread and decayed by the GUI thread, so they are relaxed atomics: a lost update only shows in
// the meter.
//
// Every output channel is a full mixer strip. Its front (trim, EQ, inserts) runs in the component's
// processInserts, the rest (fader, pan, meters, sends, output level) in processStrip, cut into pieces at
// the parameter events addressed to the channel. The GUI writes the user's settings (relaxed atomics)
// at any time; what the strip derives from them (fader and pan ramps, filter coefficients and memories,
// delay rings) belongs to the thread that runs the component.

#include <atomic>
#include <bit>
#include <cstdint>
#include <memory>

#include "core/list.h"
#include "core/object.h"
#include "engine/eq.h"

class CComp;
class CQV;

// Largest block and largest compensation delay: delay rings are indexed with this mask.
constexpr int32_t maxBlockFrames = 32768;
constexpr int32_t ringMask = maxBlockFrames - 1;

using Meter = std::atomic<float>;

class CIO : public CObject {
public:
    CIO(CComp* owner, int32_t kind, int32_t subKind) : CObject(kind, subKind), owner(owner) {}

    CComp* owner;
    // A detached terminal is on its way out: cables touching it pass nothing and are swept.
    std::atomic<bool> detached{false};
};

// Left and right buffers of one channel, one block long, in one allocation.
class StereoBuffer {
public:
    void allocate(int32_t frames);
    void clear(int32_t frames);
    float* left = nullptr;
    float* right = nullptr;
    int32_t frames() const { return frames_; }

private:
    std::unique_ptr<float[]> storage_;
    int32_t frames_ = 0;
};

// Raises a peak meter to a level and its hold to the highest level seen; the peak shows at most 1.0.
void raiseMeter(Meter& peak, Meter& hold, float level);

// A sample's magnitude as bits. Without the sign, the order of the bits is the order of the values, and
// a running maximum of integers vectorises where one of floats does not.
inline uint32_t magnitudeBits(float sample) { return std::bit_cast<uint32_t>(sample) & 0x7fffffffu; }

class CInputChannel : public CIO {
public:
    explicit CInputChannel(CComp* owner, int32_t channels = 2) : CIO(owner, 16, 1), channels(channels) {}

    void allocate(int32_t frames) { buffer.allocate(frames); }
    float* left() const { return buffer.left; }
    float* right() const { return buffer.right; }

    Meter peakLeft{0.0f}, peakRight{0.0f};
    Meter holdLeft{0.0f}, holdRight{0.0f};
    int32_t channels;
    StereoBuffer buffer;
};

class COutputChannel;

// One send of an output channel to a group channel; the strip uses level squared, after the fader.
class CSend : public CObject {
public:
    explicit CSend(COutputChannel* channel) : CObject(0, 3), channel(channel) {}
    // The send's entry in parameter lists: "Send > " and the name of its group.
    CString paramName() const;

    COutputChannel* channel;
    std::atomic<float> level{0.0f};
    std::atomic<bool> disabled{false};
};

// One EQ band as the user set it. The filter that runs (COutputChannel::eq) follows these values.
struct EQBandSettings {
    std::atomic<uint8_t> power{0};
    std::atomic<uint8_t> filterType{eqPeak};
    std::atomic<float> freq{1000.0f};
    std::atomic<float> gain{0.0f};  // dB
    std::atomic<float> Q{0.1f};
    uint8_t stored[4] = {};  // kept in "eq2" as they stand; no audio path reads them
};

// What the strip of a component needs to know for one block, worked out once per processStrip.
struct StripContext {
    int32_t frames = 0;       // the whole block
    int32_t groups = 0;       // live sends: the engine's group channels, at most maxSends
    bool metersOnly = false;  // exclusive render of every channel: fader and pan leave the audio alone
    bool soloExempt = false;  // group channels and audio outputs keep their level while others are soloed
    bool deferSends = false;  // the engine delivers the sends once the ordinary components are done
};

// Strip parameters by index, as automation events and the controller map address them.
namespace stripparam {
constexpr int32_t volume = 0;
constexpr int32_t pan = 1;
constexpr int32_t mute = 2;
constexpr int32_t firstEQ = 3;  // four per band, bands in strip order: power, gain, freq, Q
constexpr int32_t solo = 19;
constexpr int32_t count = 20;
}  // namespace stripparam

class COutputChannel : public CIO {
public:
    static constexpr int32_t maxSends = 32;
    static constexpr int32_t eqBands = 4;
    // Every fader and pan change is spread over this many samples, whatever the sample rate.
    static constexpr int32_t rampFrames = 132;

    explicit COutputChannel(CComp* owner, int32_t channels = 2);
    ~COutputChannel() override;

    void allocate(int32_t frames) { buffer.allocate(frames); }
    float* left() const { return buffer.left; }
    float* right() const { return buffer.right; }
    void setSampleRate(double rate);

    // The strip parameters, values 0..1 as in an event. Any thread; EQ changes reach the filters at the
    // head of the next processInserts, or at once through applyParamEvent.
    void setParam(int32_t index, float value);
    float getParam(int32_t index) const;
    static CString getParamName(int32_t index);
    CString getParamDisplay(int32_t index) const;

    // Audio side. Applies a parameter event addressed to this channel or one of its sends.
    void applyParamEvent(void* target, int32_t param, float value);
    // Trim and the EQ bands over the channel's block, in place.
    void processFront(int32_t frames);
    // Fader, pan, meters, the sends' delay ring and the output level over [offset, offset + frames).
    void runStripPiece(const StripContext& context, int32_t offset, int32_t frames);
    // Closes the block's sends: they are delivered now, or by the engine when the context defers them.
    void endStrip(const StripContext& context);
    // Adds the block's sends into the groups' first input channels. Audio thread, after the strip.
    void deliverSends(CQV& engine);
    // Meters the block without changing it.
    void meter(int32_t offset, int32_t frames);
    // Brings the filters in line with the EQ settings the GUI changed.
    void syncEQ();
    // Sets the fader and pan ramps to where the settings are, as after loading: no ramp from the old values.
    void snapRamps();
    bool ownsSend(const void* target) const;
    void zeroDelayRings();

    int32_t channels;
    StereoBuffer buffer;
    Meter peakLeft{0.0f}, peakRight{0.0f};
    Meter holdLeft{0.0f}, holdRight{0.0f};
    CSend* sends[maxSends] = {};
    TList<CComp> inserts;  // insert chain, owned

    // Settings, written by the GUI at any time.
    std::atomic<float> volume{1.0f};  // fader 0..1; the gain is its square
    std::atomic<float> pan{0.0f};     // -1..1
    std::atomic<float> trim{0.0f};    // input gain 4^trim
    std::atomic<float> outLevel{1.0f};
    std::atomic<uint8_t> mute{0};
    std::atomic<uint8_t> solo{0};
    int32_t anySolo = 0;  // some strip of the project is soloed; set at the top of each cycle
    EQBandSettings eqSettings[eqBands];
    std::atomic<uint32_t> eqChanged{0};  // a bit for each band whose settings the filter has not yet taken
    std::atomic<uint32_t> eqTime{0};     // millisecond clock of the last EQ change, for the GUI's curve
    // Stored values of "strip2", written and read as they stand.
    float storedValue = 1.0f;
    uint8_t storedBytes[6] = {1, 0, 255, 255, 255, 255};

    // Fader and pan ramps: the thread that runs the component. A ramp is evaluated from where it began, so
    // however a block is cut into pieces every sample gets the same gain.
    float gainNow = 1.0f, gainStep = 0.0f, gainTarget = 1.0f;
    int32_t gainLeft = 0;
    float gainFrom = 1.0f;
    float panL = 1.0f, panR = 1.0f, panStepL = 0.0f, panStepR = 0.0f, panTarget = 0.0f;
    int32_t panLeft = 0;
    float panFromL = 1.0f, panFromR = 1.0f, panToL = 1.0f, panToR = 1.0f;

    // The four bands in strip order: high shelf, two peaks, low shelf. The audio side's copy.
    CEQ eq[eqBands] = {CEQ(eqHighShelf, 10000.0f), CEQ(eqPeak, 2000.0f), CEQ(eqPeak, 800.0f), CEQ(eqLowShelf, 100.0f)};

    int32_t latency = 0;    // frames of delay on the way to this channel
    int32_t sendDelay = 0;  // padding of the sends so that group channels hear every strip aligned
    std::unique_ptr<float[]> delayLeft, delayRight;  // rings of maxBlockFrames for the send padding
    int32_t sendPosition = 0;                        // read position of the rings
    // The block the sends still owe the groups: where it starts in the rings and how long it is.
    int32_t pendingSendStart = 0;
    int32_t pendingSendFrames = 0;

private:
    void updateTargets(const StripContext& context, bool muted, bool soloedOut);
    void applyGainAndPan(float* left, float* right, int32_t frames);
    void feedSendRing(const StripContext& context, int32_t offset, int32_t frames, bool sendsPass);
    void advanceRamps(int32_t frames);
};
