#include "engine/terminal.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>

#include "engine/comp.h"
#include "engine/engine.h"
#include "engine/io.h"
#include "platform/platform.h"

void StereoBuffer::allocate(int32_t frames) {
    frames = std::clamp(frames, 1, maxBlockFrames);
    storage_ = std::make_unique<float[]>(static_cast<size_t>(frames) * 2);
    left = storage_.get();
    right = left + frames;
    frames_ = frames;
}

void StereoBuffer::clear(int32_t frames) {
    if (!left) return;
    frames = std::min(frames, frames_);
    std::fill_n(left, frames, 0.0f);
    std::fill_n(right, frames, 0.0f);
}

void raiseMeter(Meter& peak, Meter& hold, float level) {
    if (level > hold.load(std::memory_order_relaxed)) hold.store(level, std::memory_order_relaxed);
    float shown = std::max(peak.load(std::memory_order_relaxed), std::min(level, 1.0f));
    peak.store(shown, std::memory_order_relaxed);
}

namespace {

struct BandStart {
    EQType type;
    float freq;
    const char* name;  // the user's numbering runs from the low shelf up
};
constexpr BandStart bandStart[COutputChannel::eqBands] = {
    {eqHighShelf, 10000.0f, "EQ4"}, {eqPeak, 2000.0f, "EQ3"}, {eqPeak, 800.0f, "EQ2"}, {eqLowShelf, 100.0f, "EQ1"}};

// The four parameters of a band, in the order of the parameter table.
enum BandField : int32_t { bandPower = 0, bandGain, bandFreq, bandQ, bandFieldCount };

constexpr float maxEQGain = 24.0f;
constexpr float minEQFreq = 20.0f, maxEQFreq = 20000.0f;
constexpr float minEQQ = 0.1f, maxEQQ = 12.0f;

bool isEQParam(int32_t index) { return index >= stripparam::firstEQ && index < stripparam::solo; }
int32_t bandOf(int32_t index) { return (index - stripparam::firstEQ) / bandFieldCount; }
int32_t fieldOf(int32_t index) { return (index - stripparam::firstEQ) % bandFieldCount; }

// 0..1, with anything that is not a number read as 0, so a damaged value can't stick a ramp.
float unitRange(float value) { return value > 0.0f ? (value < 1.0f ? value : 1.0f) : 0.0f; }
float panRange(float value) { return std::isnan(value) ? 0.0f : std::clamp(value, -1.0f, 1.0f); }

struct PanGains {
    float left, right;
};

// The centre is unity on both sides; hard left is 1.5 on the left and 0 on the right.
PanGains panLaw(float p) {
    if (p >= 0.0f) return {1.0f - p, p * 0.5f + 1.0f};
    return {1.0f - p * 0.5f, p + 1.0f};
}

float peakOf(const float* samples, int32_t frames) {
    uint32_t peak = 0;
    for (int32_t i = 0; i < frames; ++i) peak = std::max(peak, magnitudeBits(samples[i]));
    return std::bit_cast<float>(peak);
}

// Ring runs are at most a block long, so they wrap at most once.
void ringWrite(float* ring, int32_t at, const float* from, int32_t frames) {
    at &= ringMask;
    const int32_t first = std::min(frames, maxBlockFrames - at);
    std::copy_n(from, first, ring + at);
    std::copy_n(from + first, frames - first, ring);
}

void ringZero(float* ring, int32_t at, int32_t frames) {
    at &= ringMask;
    const int32_t first = std::min(frames, maxBlockFrames - at);
    std::fill_n(ring + at, first, 0.0f);
    std::fill_n(ring, frames - first, 0.0f);
}

void ringRead(const float* ring, int32_t at, float* to, int32_t frames) {
    at &= ringMask;
    const int32_t first = std::min(frames, maxBlockFrames - at);
    std::copy_n(ring + at, first, to);
    std::copy_n(ring, frames - first, to + first);
}

void scale(float* samples, int32_t frames, float gain) {
    for (int32_t i = 0; i < frames; ++i) samples[i] *= gain;
}

// Fixed-point text that never looks at the locale.
CString fixed(double value, int precision) {
    char text[64];
    const auto result = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, precision);
    return CString(text, static_cast<int32_t>(result.ptr - text));
}

CString onOff(bool on) { return on ? "on" : "off"; }

}  // namespace

CString CSend::paramName() const {
    const CComp* owner = channel ? channel->owner : nullptr;
    const CQV* engine = owner ? owner->engine : nullptr;
    if (!engine) return "Send > ";
    const auto* at = std::find(std::begin(channel->sends), std::end(channel->sends), this);
    const CGroupCh* group = engine->groupChannels.getAt(static_cast<int32_t>(at - std::begin(channel->sends)));
    return concat("Send > ", group ? group->getName() : CString());
}

COutputChannel::COutputChannel(CComp* owner, int32_t channels)
    : CIO(owner, 16, 2),
      channels(channels),
      delayLeft(std::make_unique<float[]>(maxBlockFrames)),
      delayRight(std::make_unique<float[]>(maxBlockFrames)) {
    for (CSend*& send : sends) send = new CSend(this);
    for (int32_t b = 0; b < eqBands; ++b) {
        eqSettings[b].filterType.store(static_cast<uint8_t>(bandStart[b].type), std::memory_order_relaxed);
        eqSettings[b].freq.store(bandStart[b].freq, std::memory_order_relaxed);
    }
    eqChanged.store((1u << eqBands) - 1, std::memory_order_relaxed);
    syncEQ();
}

COutputChannel::~COutputChannel() {
    inserts.deleteAll();
    for (CSend* send : sends) delete send;
}

void COutputChannel::setSampleRate(double rate) {
    for (CEQ& band : eq) band.setSampleRate(static_cast<float>(rate));
}

void COutputChannel::setParam(int32_t index, float value) {
    constexpr auto relaxed = std::memory_order_relaxed;
    switch (index) {
    case stripparam::volume:
        volume.store(value, relaxed);
        return;
    case stripparam::pan:
        pan.store(2.0f * value - 1.0f, relaxed);
        return;
    case stripparam::mute:
        mute.store(value > 0.5f ? 1 : 0, relaxed);
        return;
    case stripparam::solo:
        solo.store(value > 0.5f ? 1 : 0, relaxed);
        return;
    default:
        break;
    }
    if (!isEQParam(index)) return;
    EQBandSettings& band = eqSettings[bandOf(index)];
    switch (fieldOf(index)) {
    case bandPower:
        band.power.store(value > 0.5f ? 1 : 0, relaxed);
        break;
    case bandGain:
        band.gain.store((2.0f * value - 1.0f) * maxEQGain, relaxed);
        break;
    case bandFreq:
        band.freq.store(std::clamp(minEQFreq + (maxEQFreq - minEQFreq) * value, minEQFreq, maxEQFreq), relaxed);
        break;
    default:
        band.Q.store(std::clamp(minEQQ + (maxEQQ - minEQQ) * value, minEQQ, maxEQQ), relaxed);
        break;
    }
    eqTime.store(platform::milliseconds(), relaxed);
    eqChanged.fetch_or(1u << bandOf(index), std::memory_order_release);
}

float COutputChannel::getParam(int32_t index) const {
    constexpr auto relaxed = std::memory_order_relaxed;
    switch (index) {
    case stripparam::volume:
        return volume.load(relaxed);
    case stripparam::pan:
        return (pan.load(relaxed) + 1.0f) * 0.5f;
    case stripparam::mute:
        return mute.load(relaxed) ? 1.0f : 0.0f;
    case stripparam::solo:
        return solo.load(relaxed) ? 1.0f : 0.0f;
    default:
        break;
    }
    if (!isEQParam(index)) return 0.0f;
    const EQBandSettings& band = eqSettings[bandOf(index)];
    switch (fieldOf(index)) {
    case bandPower:
        return band.power.load(relaxed) ? 1.0f : 0.0f;
    case bandGain:
        return (band.gain.load(relaxed) / maxEQGain + 1.0f) * 0.5f;
    case bandFreq:
        return (band.freq.load(relaxed) - minEQFreq) / (maxEQFreq - minEQFreq);
    default:
        return (band.Q.load(relaxed) - minEQQ) / (maxEQQ - minEQQ);
    }
}

CString COutputChannel::getParamName(int32_t index) {
    switch (index) {
    case stripparam::volume:
        return "Volume";
    case stripparam::pan:
        return "Pan";
    case stripparam::mute:
        return "Mute";
    case stripparam::solo:
        return "Solo";
    default:
        break;
    }
    if (!isEQParam(index)) return "noname";
    constexpr const char* fields[bandFieldCount] = {" power", " gain", " freq", " Q"};
    return concat(bandStart[bandOf(index)].name, fields[fieldOf(index)]);
}

CString COutputChannel::getParamDisplay(int32_t index) const {
    constexpr auto relaxed = std::memory_order_relaxed;
    switch (index) {
    case stripparam::volume: {
        const float v = volume.load(relaxed);
        if (v <= 0.0f) return "-inf";
        return concat(fixed(20.0 * std::log10(static_cast<double>(v) * v), 2), " dB");
    }
    case stripparam::pan: {
        const float p = pan.load(relaxed);
        const auto whole = static_cast<int32_t>(std::fabs(p) * 64.0f);
        if (whole == 0) return "<C>";
        return concat(p < 0.0f ? "L" : "R", intToString(whole));
    }
    case stripparam::mute:
        return onOff(mute.load(relaxed) != 0);
    case stripparam::solo:
        return onOff(solo.load(relaxed) != 0);
    default:
        break;
    }
    if (!isEQParam(index)) return CString();
    const EQBandSettings& band = eqSettings[bandOf(index)];
    switch (fieldOf(index)) {
    case bandPower:
        return onOff(band.power.load(relaxed) != 0);
    case bandGain:
        return concat(fixed(band.gain.load(relaxed), 1), " dB");
    case bandFreq:
        return concat(intToString(static_cast<int32_t>(band.freq.load(relaxed))), " Hz");
    default:
        return fixed(band.Q.load(relaxed), 2);
    }
}

bool COutputChannel::ownsSend(const void* target) const {
    return std::any_of(std::begin(sends), std::end(sends), [target](const CSend* s) { return s == target; });
}

void COutputChannel::applyParamEvent(void* target, int32_t param, float value) {
    if (target == this) {
        setParam(param, value);
        // An EQ change from an event takes effect at once, not at the next cycle.
        syncEQ();
    } else if (param == 0) {
        static_cast<CSend*>(target)->level.store(value, std::memory_order_relaxed);
    }
}

void COutputChannel::syncEQ() {
    const uint32_t changed = eqChanged.exchange(0, std::memory_order_acquire);
    if (changed == 0) return;
    constexpr auto relaxed = std::memory_order_relaxed;
    for (int32_t b = 0; b < eqBands; ++b) {
        if (!(changed & (1u << b))) continue;
        const EQBandSettings& settings = eqSettings[b];
        CEQ& band = eq[b];
        const int32_t power = settings.power.load(relaxed) ? 1 : 0;
        // A band switched on starts from silence rather than from what it held when it went off.
        if (power && !band.power) band.reset();
        band.power = power;
        band.filterType = settings.filterType.load(relaxed);
        band.freq = settings.freq.load(relaxed);
        band.gain = settings.gain.load(relaxed);
        band.Q = settings.Q.load(relaxed);
        band.update();
    }
}

void COutputChannel::processFront(int32_t frames) {
    if (!buffer.left) return;
    const float t = trim.load(std::memory_order_relaxed);
    if (t != 0.0f && !std::isnan(t)) {
        const float gain = std::pow(4.0f, t);
        scale(buffer.left, frames, gain);
        scale(buffer.right, frames, gain);
    }
    if (eqChanged.load(std::memory_order_relaxed) != 0) syncEQ();
    for (CEQ& band : eq)
        if (band.power) band.process(buffer.left, buffer.right, buffer.left, buffer.right, frames);
}

void COutputChannel::updateTargets(const StripContext& context, bool muted, bool soloedOut) {
    const float soloFactor = context.soloExempt || !soloedOut ? 1.0f : 0.0f;
    const float t = unitRange(muted ? 0.0f : volume.load(std::memory_order_relaxed) * soloFactor);
    if (t != gainTarget) {
        gainTarget = t;
        gainFrom = gainNow;
        if (t == gainNow) {
            gainLeft = 0;
            gainStep = 0.0f;
        } else {
            gainLeft = rampFrames;
            gainStep = (t - gainNow) / static_cast<float>(rampFrames);
        }
    }
    // Compared after limiting, so that a value out of range doesn't restart the ramp at every piece.
    const float p = panRange(pan.load(std::memory_order_relaxed));
    if (p != panTarget) {
        panTarget = p;
        panLeft = rampFrames;
        const PanGains to = panLaw(p);
        panToL = to.left;
        panToR = to.right;
        panFromL = panL;
        panFromR = panR;
        panStepL = (to.left - panL) / static_cast<float>(rampFrames);
        panStepR = (to.right - panR) / static_cast<float>(rampFrames);
    }
}

void COutputChannel::advanceRamps(int32_t frames) {
    if (gainLeft > 0) {
        gainLeft -= frames;
        if (gainLeft == 0) {
            gainNow = gainFrom = gainTarget;
            gainStep = 0.0f;
        } else {
            gainNow = gainFrom + static_cast<float>(rampFrames - gainLeft) * gainStep;
        }
    }
    if (panLeft > 0) {
        panLeft -= frames;
        if (panLeft == 0) {
            panL = panFromL = panToL;
            panR = panFromR = panToR;
            panStepL = panStepR = 0.0f;
        } else {
            panL = panFromL + static_cast<float>(rampFrames - panLeft) * panStepL;
            panR = panFromR + static_cast<float>(rampFrames - panLeft) * panStepR;
        }
    }
}

void COutputChannel::applyGainAndPan(float* left, float* right, int32_t frames) {
    uint32_t peakL = 0, peakR = 0;
    // Runs no longer than the ramps left, so a run is either steady or ramping all through.
    for (int32_t done = 0; done < frames;) {
        int32_t run = frames - done;
        if (gainLeft > 0) run = std::min(run, gainLeft);
        if (panLeft > 0) run = std::min(run, panLeft);
        float* l = left + done;
        float* r = right + done;
        if (gainLeft == 0 && panLeft == 0) {
            const float g = gainNow, pl = panL, pr = panR;
            for (int32_t i = 0; i < run; ++i) {
                l[i] = pl * l[i] * g * g;
                r[i] = pr * r[i] * g * g;
                peakL = std::max(peakL, magnitudeBits(l[i]));
                peakR = std::max(peakR, magnitudeBits(r[i]));
            }
        } else {
            // A ramp that is not running has a step of 0 and starts where it stands.
            const int32_t gainAt = gainLeft > 0 ? rampFrames - gainLeft : 0;
            const int32_t panAt = panLeft > 0 ? rampFrames - panLeft : 0;
            for (int32_t i = 0; i < run; ++i) {
                const float g = gainFrom + static_cast<float>(gainAt + i) * gainStep;
                const float pl = panFromL + static_cast<float>(panAt + i) * panStepL;
                const float pr = panFromR + static_cast<float>(panAt + i) * panStepR;
                l[i] = pl * l[i] * g * g;
                r[i] = pr * r[i] * g * g;
                peakL = std::max(peakL, magnitudeBits(l[i]));
                peakR = std::max(peakR, magnitudeBits(r[i]));
            }
        }
        advanceRamps(run);
        done += run;
    }
    raiseMeter(peakLeft, holdLeft, std::bit_cast<float>(peakL));
    raiseMeter(peakRight, holdRight, std::bit_cast<float>(peakR));
}

void COutputChannel::feedSendRing(const StripContext& context, int32_t offset, int32_t frames, bool sendsPass) {
    // The ring holds a block behind the padding; a larger padding could overwrite what is still unread.
    const int32_t delay = std::min(sendDelay, maxBlockFrames - context.frames);
    const int32_t at = sendPosition + offset;
    ringWrite(delayLeft.get(), at + delay, buffer.left + offset, frames);
    ringWrite(delayRight.get(), at + delay, buffer.right + offset, frames);
    if (!sendsPass) {
        // Muted or soloed out: nothing goes to the groups from this sample on, not even what the padding
        // still holds. Clearing the places this piece reads is a send factor of 0.
        ringZero(delayLeft.get(), at, frames);
        ringZero(delayRight.get(), at, frames);
    }
}

void COutputChannel::runStripPiece(const StripContext& context, int32_t offset, int32_t frames) {
    if (!buffer.left || frames <= 0) return;
    float* left = buffer.left + offset;
    float* right = buffer.right + offset;
    // Read once, so that the fader and the sends of a piece agree while the GUI changes them.
    const bool muted = mute.load(std::memory_order_relaxed) != 0;
    const bool soloedOut = (solo.load(std::memory_order_relaxed) ? 1 : 0) - anySolo + 1 <= 0;
    if (context.metersOnly) {
        meter(offset, frames);
    } else {
        updateTargets(context, muted, soloedOut);
        applyGainAndPan(left, right, frames);
    }
    if (context.groups > 0) feedSendRing(context, offset, frames, !muted && !soloedOut);
    const float level = outLevel.load(std::memory_order_relaxed);
    if (level < 1.0f) {
        scale(left, frames, level);
        scale(right, frames, level);
    }
}

void COutputChannel::endStrip(const StripContext& context) {
    if (context.groups == 0 || !buffer.left) return;
    pendingSendStart = sendPosition;
    pendingSendFrames = context.frames;
    sendPosition = (sendPosition + context.frames) & ringMask;
    if (!context.deferSends && owner && owner->engine) deliverSends(*owner->engine);
}

void COutputChannel::deliverSends(CQV& engine) {
    const int32_t frames = pendingSendFrames;
    if (frames == 0) return;
    pendingSendFrames = 0;
    StereoBuffer& scratch = engine.sendScratch;
    if (!scratch.left || scratch.frames() < frames) return;
    ringRead(delayLeft.get(), pendingSendStart, scratch.left, frames);
    ringRead(delayRight.get(), pendingSendStart, scratch.right, frames);
    int32_t k = 0;
    for (CGroupCh* group : engine.groupChannels) {
        if (k == maxSends) break;
        const CSend& send = *sends[k++];
        if (send.disabled.load(std::memory_order_relaxed)) continue;
        const float level = send.level.load(std::memory_order_relaxed);
        const float s = level * level;
        if (s == 0.0f) continue;
        const CInputChannel* in = group->firstInputChannel();
        if (!in || !in->left() || in->buffer.frames() < frames) continue;
        float* toLeft = in->left();
        float* toRight = in->right();
        const float* fromLeft = scratch.left;
        const float* fromRight = scratch.right;
        for (int32_t i = 0; i < frames; ++i) toLeft[i] += s * fromLeft[i];
        for (int32_t i = 0; i < frames; ++i) toRight[i] += s * fromRight[i];
    }
}

void COutputChannel::meter(int32_t offset, int32_t frames) {
    if (!buffer.left) return;
    raiseMeter(peakLeft, holdLeft, peakOf(buffer.left + offset, frames));
    raiseMeter(peakRight, holdRight, peakOf(buffer.right + offset, frames));
}

void COutputChannel::snapRamps() {
    const bool muted = mute.load(std::memory_order_relaxed) != 0;
    gainTarget = unitRange(muted ? 0.0f : volume.load(std::memory_order_relaxed));
    gainNow = gainFrom = gainTarget;
    gainStep = 0.0f;
    gainLeft = 0;
    panTarget = panRange(pan.load(std::memory_order_relaxed));
    const PanGains gains = panLaw(panTarget);
    panL = panFromL = panToL = gains.left;
    panR = panFromR = panToR = gains.right;
    panStepL = panStepR = 0.0f;
    panLeft = 0;
}

void COutputChannel::zeroDelayRings() {
    std::fill_n(delayLeft.get(), maxBlockFrames, 0.0f);
    std::fill_n(delayRight.get(), maxBlockFrames, 0.0f);
}
