#include "files/project.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <filesystem>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "core/block_in.h"
#include "core/stream.h"
#include "engine/engine.h"
#include "engine/io.h"
#include "engine/strip_io.h"
#include "files/file_bytes.h"
#include "fx/effects.h"
#include "fx/mixer.h"
#include "platform/platform.h"
#include "seq/seq.h"
#include "sound/sampler.h"

namespace files {

namespace {

constexpr uint32_t magicLength = 3;
constexpr char magic[] = "QV3";
constexpr int32_t placeWords = 8;
constexpr uint32_t cableSize = 12;
constexpr uint32_t automapSize = 68;
constexpr float minTempo = 10.0f, maxTempo = 250.0f;
// Bit of a component's flags that only means something while the program runs.
constexpr uint32_t runtimeFlag = 1u << 16;

enum FrameClass : uint8_t { frameEngine = 0, frameOrdinary = 1, frameOrdinaryToo = 2, frameGroup = 3, frameInsert = 4 };
// List codes of the cable records.
enum CableList : uint8_t { cableComps = 0, cableCompsToo = 1, cableGroups = 2, cableNone = 255 };

const char* const transportTags[transportControlCount] = {"ccplay", "ccstop", "ccrew", "ccrec", "ccbpm"};

std::atomic<bool> saving{false};

// A load that cannot go on: it ends at the one handler that leaves an empty project.
struct LoadAbort {};

void report(const ProjectContext& context, const CString& caption, const CString& text) {
    if (context.message) context.message(caption, text);
    else platform::debugLine((caption + ": " + text).c_str());
}

void writePlace(CStream& stream, const char* tag, const int32_t (&place)[placeWords]) {
    writeBlockHeader(stream, tag, 4 * placeWords);
    for (int32_t word : place) stream.writeI32(word);
}

void writeU32Block(CStream& stream, const char* tag, uint32_t value) {
    writeBlockHeader(stream, tag, 4);
    stream.writeU32(value);
}

// --- Writing -------------------------------------------------------------------------------------

void writeInsert(const CComp& insert, CStream& stream);
constexpr InsertBlockIO insertIOForWriting{writeInsert, nullptr};

// The component frame: the fixed head, then the component's own blocks.
void writeFrame(CStream& stream, const char* tag, CComp& comp, FrameClass frameClass) {
    const int32_t block = beginBlock(stream, tag);
    stream.writeU8(static_cast<uint8_t>(comp.kind));
    stream.writeU8(static_cast<uint8_t>(comp.subKind));
    stream.writeU8(frameClass);
    stream.writeI32(comp.x);
    stream.writeI32(comp.y);
    writeString(stream, comp.name);
    stream.writeI32(comp.power.load(std::memory_order_relaxed));
    stream.writeU32(comp.flags.load(std::memory_order_relaxed));
    stream.writeU32(0);
    stream.writeU32(0);
    comp.save(stream);
    stream.closeBlock(block);
}

// What follows a frame at its level: editor places, then one block for each terminal.
void writeFollowers(CStream& stream, CComp& comp, FrameClass frameClass) {
    const bool insert = frameClass == frameInsert;
    if (!insert) {
        writePlace(stream, "comped", comp.editorPlace);
        writeU32Block(stream, "hideChs", static_cast<uint32_t>(comp.hideChs));
    } else {
        writePlace(stream, "compedi", comp.editorPlace);
    }
    for (int32_t k = 0; k < comp.inputPorts.count(); ++k) writeU32Block(stream, insert ? "mini" : "min", 0);
    for (int32_t k = 0; k < comp.outputPorts.count(); ++k) writeU32Block(stream, insert ? "mouti" : "mout", 0);
    for (const CInputChannel* channel : comp.inputChannels)
        writeU32Block(stream, insert ? "aini" : "ain", static_cast<uint32_t>(channel->channels));
    saveChannels(comp, stream, insertIOForWriting);
}

void writeInsert(const CComp& insert, CStream& stream) {
    // save belongs to the component's non-const interface; writing it changes nothing.
    auto& comp = const_cast<CComp&>(insert);
    writeFrame(stream, "insert2", comp, frameInsert);
    writeFollowers(stream, comp, frameInsert);
}

std::pair<uint8_t, uint32_t> cablePlace(const CQV& engine, const CComp* comp) {
    if (const int32_t at = engine.comps.indexOf(comp); comp && at >= 0) return {cableComps, static_cast<uint32_t>(at)};
    if (const int32_t at = engine.groupChannels.indexOf(comp); comp && at >= 0) return {cableGroups, static_cast<uint32_t>(at)};
    return {cableNone, 0};
}

template <class Terminal>
uint8_t terminalIndex(const TList<Terminal>& list, const CIO* terminal) {
    return static_cast<uint8_t>(std::max(list.indexOf(terminal), 0));
}

void writeCable(CStream& stream, const CQV& engine, const char* tag, const CComp* source, uint8_t fromTerminal,
                const CComp* destination, uint8_t toTerminal) {
    const auto [fromList, fromIndex] = cablePlace(engine, source);
    const auto [toList, toIndex] = cablePlace(engine, destination);
    writeBlockHeader(stream, tag, cableSize);
    stream.writeU8(fromList);
    stream.writeU32(fromIndex);
    stream.writeU8(fromTerminal);
    stream.writeU8(toList);
    stream.writeU32(toIndex);
    stream.writeU8(toTerminal);
}

template <class Fn>
void forEachNode(const CQV& engine, Fn fn) {
    for (CComp* comp : engine.comps) fn(*comp);
    for (CComp* group : engine.groupChannels) fn(*group);
}

void writeCables(CStream& stream, const CQV& engine) {
    forEachNode(engine, [&](const CComp& destination) {
        for (const CAudioCable* cable : destination.audioCablesIn) {
            const uint8_t from = cable->source ? terminalIndex(cable->source->outputChannels, cable->output) : 0;
            writeCable(stream, engine, "ac", cable->source, from, &destination,
                       terminalIndex(destination.inputChannels, cable->input));
        }
    });
    forEachNode(engine, [&](const CComp& destination) {
        for (const CMIDICable* cable : destination.midiCablesIn) {
            const uint8_t from = cable->source ? terminalIndex(cable->source->outputPorts, cable->output) : 0;
            writeCable(stream, engine, "mc", cable->source, from, &destination,
                       terminalIndex(destination.inputPorts, cable->input));
        }
    });
}

// --- Reading -------------------------------------------------------------------------------------

struct FrameHead {
    uint8_t kind = 0;
    uint8_t subKind = 0;
    uint8_t frameClass = frameOrdinary;
    int32_t x = 32, y = 32;
    CString name;
    int32_t power = 1;
    uint32_t flags = 0;
};

bool readHead(CStream& stream, int32_t end, FrameHead& head) {
    BlockIn in(stream, end);
    uint32_t spare = 0;
    return in.u8(head.kind) && in.u8(head.subKind) && in.u8(head.frameClass) && in.i32(head.x) && in.i32(head.y) &&
           in.string(head.name) && in.i32(head.power) && in.u32(head.flags) && in.u32(spare) && in.u32(spare);
}

// A new component of the head's type with its own terminals, before its blocks are read.
CComp* makeFromHead(CQV* engine, const FrameHead& head, uint8_t type) {
    CComp* comp = createComp(engine, type);
    comp->createBasePorts();
    comp->x = head.x;
    comp->y = head.y;
    comp->name = head.name;
    comp->power.store(head.power, std::memory_order_relaxed);
    comp->flags.store(head.flags & ~runtimeFlag, std::memory_order_relaxed);
    return comp;
}

CComp* readInsert(CQV* engine, CStream& stream, int32_t end) {
    FrameHead head;
    if (!readHead(stream, end, head)) return nullptr;
    std::unique_ptr<CComp> insert(makeFromHead(engine, head, head.subKind));
    insert->orderClass = orderInsert;
    insert->load(stream, end);
    return insert.release();
}

constexpr InsertBlockIO insertIOForReading{nullptr, readInsert};

// The component whose terminal blocks are being read, and the next terminal of each list.
struct TerminalCursor {
    CComp* comp = nullptr;
    int32_t inputPort = 0, outputPort = 0, inputChannel = 0;

    void address(CComp* target) {
        if (target == comp) return;
        comp = target;
        inputPort = outputPort = inputChannel = 0;
    }
    void inputPortBlock() {
        if (comp && !comp->inputPorts.getAt(inputPort++)) comp->addInputPort();
    }
    void outputPortBlock() {
        if (comp && !comp->outputPorts.getAt(outputPort++)) comp->addOutputPort();
    }
    void inputChannelBlock(CStream& stream) {
        uint32_t count = 2;
        stream.readU32(count);
        if (!comp) return;
        const int32_t channels = count == 1 ? 1 : 2;
        CInputChannel* channel = comp->inputChannels.getAt(inputChannel++);
        if (!channel) channel = comp->addInputChannel(channels);
        channel->channels = channels;
    }
};

class ProjectReader {
public:
    ProjectReader(CQV& engine, CStream& stream, const ProjectContext& context, DamageReport& damage)
        : engine_(engine), stream_(stream), context_(context), damage_(damage) {}

    void run() {
        const int32_t end = blocksEnd();
        CBlockReader blocks(stream_, end);
        while (blocks.next()) {
            tag_ = blocks.tag();
            size_ = static_cast<int32_t>(blocks.size());
            const int32_t start = stream_.tell();
            if (size_ < 0) {
                report(context_, "Error", "Block size error: '" + tag_ + "' (" + intToString(size_) + ").");
                damage_.add("block '" + std::string(tag_.c_str()) + "' at byte " + std::to_string(start) +
                            " has a size below 0: the project could not be read");
                throw LoadAbort{};
            }
            const Read read = dispatch(blocks);
            if (blocks.blockEnd() > end) {
                damage_.add("the file ends inside block '" + std::string(tag_.c_str()) + "'" + compLabel() + " at byte " +
                            std::to_string(start) + ": " + std::to_string(blocks.blockEnd() - end) + " of its " +
                            std::to_string(size_) + " bytes, and whatever followed it, are missing");
            }
            if (read != Read::damaged && stream_.tell() == blocks.blockEnd()) continue;
            if (read != Read::skipped) {
                report(context_, "Error",
                     "Error reading block: '" + tag_ + "' (" + intToString(size_) + "). Trying to read rest of file...");
                if (blocks.blockEnd() <= end)
                    damage_.add("block '" + std::string(tag_.c_str()) + "'" + compLabel() + " at byte " +
                                std::to_string(start) + " is damaged: it was read up to the damage");
            }
            if (stream_.seek(blocks.blockEnd(), seekFromStart) != blocks.blockEnd()) throw LoadAbort{};
        }
        fixUps();
    }

    // What the handler logs: the component being loaded, or the block.
    CString failedWhat() const {
        if (loadingComp_) return "openProject error: loading comp '" + loadingComp_->name + "' (" + intToString(size_) + ")";
        return "openProject error: loading block '" + tag_ + "' (" + intToString(size_) + ")";
    }

private:
    // The component a "comp2" block held, for the report.
    std::string compLabel() const {
        if (!lastComp_ || std::string_view(tag_.c_str()) != "comp2") return {};
        return " (component '" + std::string(lastComp_->name.c_str()) + "')";
    }

    int32_t blocksEnd() {
        // Blocks run to the end of the stream; one that claims more is cut off by the header check.
        const int32_t here = stream_.tell();
        const int32_t end = stream_.seek(0, seekFromEnd);
        stream_.seek(here, seekFromStart);
        return end;
    }

    enum class Read { done, damaged, skipped };

    // A block read short of its fields or past its end is damaged; one the reader doesn't know is skipped.
    Read dispatch(CBlockReader& blocks) {
        BlockIn in(stream_, blocks.blockEnd());
        if (blocks.is("bpm")) {
            float bpm = 120.0f;
            if (in.f32(bpm)) {
                // Playback runs between these tempos whatever a file says; not a number reads as the default.
                bpm = bpm == bpm ? std::clamp(bpm, minTempo, maxTempo) : 120.0f;
                engine_.bpm.store(bpm, std::memory_order_relaxed);
                engine_.bpmTarget.store(bpm, std::memory_order_relaxed);
            }
        } else if (blocks.is("loop")) {
            in.i32(engine_.loop);
        } else if (blocks.is("timeSig")) {
            in.i32(engine_.timeSigNum);
            in.i32(engine_.timeSigDen);
        } else if (blocks.is("mixer")) {
            if (!context_.mixer) return skip(blocks);
            context_.mixer->load(stream_, blocks.blockEnd());
        } else if (blocks.is("mixed")) {
            if (!context_.mixer) return skip(blocks);
            for (int32_t& word : context_.mixer->editorPlace) in.i32(word);
        } else if (blocks.is("automap")) {
            uint32_t count = 0;
            in.u32(count);
            for (uint32_t k = 0; k < count && k < static_cast<uint32_t>(CQV::maxModSlots); ++k) in.i32(engine_.modSlots[k].cc);
            // A longer list than the engine keeps is not damage.
            if (in.ok()) blocks.skip();
        } else if (readTransport(blocks, in)) {
        } else if (blocks.is("audiodir")) {
            in.string(engine_.audioDir);
        } else if (blocks.is("comp2")) {
            readComponent(blocks);
        } else if (takeTerminalBlock(blocks)) {
        } else if (blocks.is("ac") || blocks.is("mc")) {
            readCable(in, blocks.is("ac"));
        } else {
            return skip(blocks);
        }
        return in.ok() ? Read::done : Read::damaged;
    }

    static Read skip(CBlockReader& blocks) {
        blocks.skip();
        return Read::skipped;
    }

    bool readTransport(const CBlockReader& blocks, BlockIn& in) {
        for (int32_t k = 0; k < transportControlCount; ++k) {
            if (!blocks.is(transportTags[k])) continue;
            int32_t value = -1;
            if (in.i32(value)) engine_.transportCC[k].store(value, std::memory_order_relaxed);
            return true;
        }
        return false;
    }

    void readComponent(CBlockReader& blocks) {
        FrameHead head;
        channels_.reset();
        terminals_.address(nullptr);
        current_ = nullptr;
        lastComp_ = nullptr;
        if (!readHead(stream_, blocks.blockEnd(), head)) {
            damage_.add("a component at byte " + std::to_string(blocks.blockEnd() - static_cast<int32_t>(blocks.size())) +
                        " is dropped: its header is damaged");
            return;
        }

        CComp* comp = nullptr;
        if (head.frameClass == frameEngine) {
            comp = &engine_;
        } else if (head.frameClass == frameGroup) {
            // A group is a group channel whatever the type says; a send can reach no more than maxSends.
            if (engine_.groupChannels.count() >= COutputChannel::maxSends) {
                damage_.add("group channel '" + std::string(head.name.c_str()) + "' is dropped: a project holds at most " +
                            std::to_string(COutputChannel::maxSends));
                return;
            }
            comp = makeFromHead(&engine_, head, compGroupChannel);
            comp->orderClass = orderGroup;
            engine_.addGroupChannel(static_cast<CGroupCh*>(comp));
        } else {
            comp = makeFromHead(&engine_, head, head.subKind);
            engine_.addComp(comp);
        }
        loadingComp_ = comp;
        lastComp_ = comp;
        comp->load(stream_, blocks.blockEnd());
        loadingComp_ = nullptr;
        if (comp->isSequencer())
            for (const std::string& line : static_cast<CSeq*>(comp)->loadDamage)
                damage_.add("in '" + std::string(comp->name.c_str()) + "': " + line);
        current_ = comp;
        channels_ = std::make_unique<CChannelReader>(*comp, insertIOForReading);
        terminals_.address(comp);
    }

    // Blocks behind a frame: editor places and terminals of the component, or of its last insert.
    bool takeTerminalBlock(CBlockReader& blocks) {
        const bool terminalTag = blocks.is("comped") || blocks.is("hideChs") || blocks.is("compedi") ||
                                 blocks.is("min") || blocks.is("mout") || blocks.is("ain") || blocks.is("mini") ||
                                 blocks.is("mouti") || blocks.is("aini") || blocks.is("aout") || blocks.is("aouti") ||
                                 blocks.is("strip2") || blocks.is("eq2") || blocks.is("sends") || blocks.is("insert2") ||
                                 blocks.is("wet");
        if (!terminalTag) return false;
        if (!current_) {
            blocks.skip();
            return true;
        }
        if (channels_->take(blocks, stream_)) return true;
        BlockIn in(stream_, blocks.blockEnd());
        CComp* insert = channels_->insert();
        const bool forInsert = blocks.is("compedi") || blocks.is("mini") || blocks.is("mouti") || blocks.is("aini");
        if (forInsert && !insert) {
            blocks.skip();
            return true;
        }
        CComp& target = forInsert ? *insert : *current_;
        terminals_.address(&target);
        if (blocks.is("comped") || blocks.is("compedi")) {
            for (int32_t& word : target.editorPlace) in.i32(word);
        } else if (blocks.is("hideChs")) {
            in.i32(target.hideChs);
        } else if (blocks.is("min") || blocks.is("mini")) {
            terminals_.inputPortBlock();
            blocks.skip();
        } else if (blocks.is("mout") || blocks.is("mouti")) {
            terminals_.outputPortBlock();
            blocks.skip();
        } else {
            terminals_.inputChannelBlock(stream_);
        }
        return true;
    }

    CComp* compAt(uint8_t list, uint32_t index) const {
        if (index > 0x7FFFFFFF) return nullptr;
        const auto at = static_cast<int32_t>(index);
        if (list == cableComps || list == cableCompsToo) return engine_.comps.getAt(at);
        if (list == cableGroups) return engine_.groupChannels.getAt(at);
        return nullptr;
    }

    void readCable(BlockIn& in, bool audio) {
        uint8_t fromList = cableNone, fromTerminal = 0, toList = cableNone, toTerminal = 0;
        uint32_t fromIndex = 0, toIndex = 0;
        if (!in.u8(fromList) || !in.u32(fromIndex) || !in.u8(fromTerminal) || !in.u8(toList) || !in.u32(toIndex) ||
            !in.u8(toTerminal))
            return;
        CComp* source = compAt(fromList, fromIndex);
        CComp* destination = compAt(toList, toIndex);
        if (!source || !destination) return;
        if (audio) {
            COutputChannel* output = source->outputChannels.getAt(fromTerminal);
            CInputChannel* input = destination->inputChannels.getAt(toTerminal);
            if (output && input) destination->audioCablesIn.add(makeAudioCable(destination, output, input));
        } else {
            COutputPort* output = source->outputPorts.getAt(fromTerminal);
            CInputPort* input = destination->inputPorts.getAt(toTerminal);
            if (output && input) destination->midiCablesIn.add(makeMIDICable(destination, output, input));
        }
    }

    void fixUps() {
        forEachNode(engine_, [this](CComp& comp) {
            comp.setBlockSize(engine_.blockSize);
            comp.setSampleRate(engine_.sampleRate);
            if (comp.isSequencer()) static_cast<CSeq&>(comp).resolveAutomationTargets();
        });
        engine_.raise(change::latency | change::graph);
    }

    CQV& engine_;
    CStream& stream_;
    const ProjectContext& context_;
    DamageReport& damage_;
    CString tag_;
    int32_t size_ = 0;
    CComp* loadingComp_ = nullptr;
    CComp* lastComp_ = nullptr;
    CComp* current_ = nullptr;
    std::unique_ptr<CChannelReader> channels_;
    TerminalCursor terminals_;
};

bool readMagic(CStream& stream) {
    uint32_t length = 0;
    char text[magicLength] = {};
    return stream.readU32(length) && length == magicLength && stream.read(text, magicLength) == magicLength &&
           std::equal(text, text + magicLength, magic);
}

// What a project sets and CQV::clear leaves alone.
void clearProject(CQV& engine) {
    engine.clear();
    engine.audioDir = CString();
    engine.loop = 1;
    for (auto& control : engine.transportCC) control.store(-1, std::memory_order_relaxed);
    for (ModSlot& slot : engine.modSlots) slot.cc = -1;
}

// Keeps the audio cycle out of the engine while a project is replaced.
class LoadingScope {
public:
    explicit LoadingScope(CQV& engine) : engine_(engine) {
        engine_.loading.store(true, std::memory_order_release);
        while (engine_.busy()) platform::cpuPause();
    }
    ~LoadingScope() { engine_.loading.store(false, std::memory_order_release); }
    LoadingScope(const LoadingScope&) = delete;
    LoadingScope& operator=(const LoadingScope&) = delete;

private:
    CQV& engine_;
};

}  // namespace

LoadOutcome readProject(CQV& engine, CStream& stream, const ProjectContext& context, DamageReport* damage) {
    DamageReport unused;
    DamageReport& lost = damage ? *damage : unused;
    lost.lines.clear();
    if (!readMagic(stream)) return LoadOutcome::notProject;
    // Every component a project may name must be known to createComp before the first frame.
    [[maybe_unused]] static const bool registered = [] {
        registerSequencerTypes();
        registerEffects();
        registerSoundComponents();
        return true;
    }();
    LoadingScope scope(engine);
    // Steps still waiting in the queue were built for the old project: they run on it before it goes.
    engine.deferred->drainNow();
    clearProject(engine);
    ProjectReader reader(engine, stream, context, lost);
    try {
        reader.run();
        return LoadOutcome::loaded;
    } catch (const LoadAbort&) {
        platform::debugLine(reader.failedWhat().c_str());
    } catch (const std::exception&) {
        platform::debugLine(reader.failedWhat().c_str());
        lost.add(std::string(reader.failedWhat().c_str()) + ": the project could not be read");
    }
    clearProject(engine);
    engine.createPorts();
    engine.projectPath = CString();
    return LoadOutcome::failed;
}

bool openProject(CQV& engine, const CString& path, const ProjectContext& context, DamageReport* damage) {
    if (saving.load(std::memory_order_acquire)) return false;
    // The whole file is read at once: the reader asks for its position at every field, which on a file
    // is a system call each time. Only a file that opens with the magic, as writeString stores it, is
    // read, so a directory or a large file of another kind costs nothing.
    const std::vector<uint8_t> bytes = readFileBytes(path, std::string_view("\x03\0\0\0QV3", 7));
    const auto size = static_cast<int32_t>(std::min<size_t>(bytes.size(), std::numeric_limits<int32_t>::max()));
    CMemoryStream stream;
    const bool read = size > 0 && stream.write(bytes.data(), size) == size;
    stream.seek(0, seekFromStart);
    const LoadOutcome outcome = read ? readProject(engine, stream, context, damage) : LoadOutcome::notProject;
    if (outcome == LoadOutcome::notProject) {
        report(context, "Error", "Can't open " + fileName(path) + ". Not a VNT64 project");
        return false;
    }
    if (outcome == LoadOutcome::failed) return false;
    engine.projectPath = path;
    return true;
}

void writeProject(CQV& engine, CStream& stream, const ProjectContext& context) {
    writeString(stream, magic);
    writeBlockHeader(stream, "bpm", 4);
    stream.writeF32(engine.bpm.load(std::memory_order_relaxed));
    writeU32Block(stream, "loop", static_cast<uint32_t>(engine.loop));
    writeBlockHeader(stream, "timeSig", 8);
    stream.writeI32(engine.timeSigNum);
    stream.writeI32(engine.timeSigDen);
    if (!engine.audioDir.isEmpty()) {
        writeBlockHeader(stream, "audiodir", 4 + static_cast<uint32_t>(engine.audioDir.length()));
        writeString(stream, engine.audioDir);
    }
    // The engine keeps no sample list yet: the list is there, and empty.
    const int32_t samples = beginBlock(stream, "samples2");
    stream.writeU32(0);
    stream.closeBlock(samples);

    writeFrame(stream, "comp2", engine, frameEngine);
    writeFollowers(stream, engine, frameEngine);
    for (CComp* comp : engine.comps) {
        writeFrame(stream, "comp2", *comp, frameOrdinary);
        writeFollowers(stream, *comp, frameOrdinary);
    }
    for (CComp* group : engine.groupChannels) {
        writeFrame(stream, "comp2", *group, frameGroup);
        writeFollowers(stream, *group, frameGroup);
    }
    if (context.mixer) {
        const int32_t mixer = beginBlock(stream, "mixer");
        context.mixer->save(stream);
        stream.closeBlock(mixer);
        writePlace(stream, "mixed", context.mixer->editorPlace);
    }
    writeCables(stream, engine);
    for (int32_t k = 0; k < transportControlCount; ++k) {
        writeBlockHeader(stream, transportTags[k], 4);
        stream.writeI32(engine.transportCC[k].load(std::memory_order_relaxed));
    }
    writeBlockHeader(stream, "automap", automapSize);
    stream.writeU32(CQV::maxModSlots);
    for (const ModSlot& slot : engine.modSlots) stream.writeI32(slot.cc);
}

bool saveProject(CQV& engine, const CString& path, const ProjectContext& context) {
    if (engine.loading.load(std::memory_order_acquire) || saving.exchange(true, std::memory_order_acq_rel)) return false;
    struct Release {
        ~Release() { saving.store(false, std::memory_order_release); }
    } release;

    engine.beforeSave();
    forEachNode(engine, [](CComp& comp) { comp.beforeSave(); });
    CAtomicFileStream stream(path);
    bool written = false;
    try {
        if (stream.isOpen()) {
            writeProject(engine, stream, context);
            written = !stream.writeFailed() && stream.written == stream.size && stream.commit();
        }
    } catch (const std::exception&) {
        report(context, "Save", "There was an error saving " + path);
        return false;
    }
    if (!written) {
        report(context, "Error", "There was an error writing the project. Free up some disk space then try again");
        return false;
    }
    engine.projectPath = path;
    engine.modified = false;
    return true;
}

CString projectAudioFolder(CQV& engine, bool create) {
    namespace fs = std::filesystem;
    const fs::path folder = fs::path(engine.projectPath.c_str()).parent_path();
    if (!engine.audioDir.isEmpty()) return (folder / engine.audioDir.c_str()).string().c_str();
    if (engine.projectPath.isEmpty() || !create) return CString();
    engine.audioDir = (fs::path(engine.projectPath.c_str()).stem().string() + "_audio").c_str();
    const fs::path result = folder / engine.audioDir.c_str();
    std::error_code error;
    fs::create_directories(result, error);
    return result.string().c_str();
}

}  // namespace files
