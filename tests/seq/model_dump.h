#pragma once
// A canonical text picture of a song and of the cables around it, for comparing model states before and
// after undo and redo. Every object is named by where it sits (component, track, song track, ghost
// source and terminal by index), never by address, so equal models give equal text. Play state
// (positions, cursors, queues, song-track flags) is left out: it is not part of the model.

#include <cstdint>
#include <locale>
#include <sstream>
#include <string>

#include "engine/engine.h"
#include "seq/seq.h"

namespace modeldump {

class Dumper {
public:
    explicit Dumper(const CSeq& seq) : seq_(seq), engine_(seq.engine) { out_.imbue(std::locale::classic()); }

    std::string run() {
        if (engine_) {
            for (const CComp* comp : engine_->comps)
                if (comp != &seq_) dumpComp(*comp);
        }
        dumpSeq();
        return out_.str();
    }

private:
    // "<prefix><index>" of an item in a list, "-" for none and "" when the list does not hold it.
    template <class T>
    static std::string at(const std::string& prefix, const TList<T>& list, const void* item) {
        if (!item) return "-";
        const int32_t i = list.indexOf(item);
        return i >= 0 ? prefix + std::to_string(i) : "";
    }
    static std::string orUnknown(std::string ref) { return ref.empty() ? "?" : ref; }
    static std::string quoted(const CString& text) { return std::string("\"") + text.c_str() + "\""; }

    std::string compRef(const CComp* comp) const {
        if (comp == &seq_) return "seq";
        return orUnknown(engine_ ? at("comp", engine_->comps, comp) : "");
    }

    // A terminal as "<component>.<list><index>".
    std::string terminalRef(const CIO* io) const {
        const auto in = [io](const CComp& comp, const std::string& name) {
            for (std::string ref : {at(name + ".inport", comp.inputPorts, io), at(name + ".outport", comp.outputPorts, io),
                                    at(name + ".inch", comp.inputChannels, io), at(name + ".outch", comp.outputChannels, io)})
                if (!ref.empty()) return ref;
            return std::string();
        };
        if (std::string ref = in(seq_, "seq"); !ref.empty()) return ref;
        for (int32_t i = 0; engine_ && i < engine_->comps.count(); ++i)
            if (std::string ref = in(*engine_->comps.getAt(i), "comp" + std::to_string(i)); !ref.empty()) return ref;
        return "?";
    }

    void dumpComp(const CComp& comp) {
        out_ << compRef(&comp) << " kind=" << comp.kind << " sub=" << comp.subKind << " name=" << quoted(comp.name)
             << " power=" << comp.power.load() << " terminals=" << comp.inputPorts.count() << ','
             << comp.outputPorts.count() << ',' << comp.inputChannels.count() << ',' << comp.outputChannels.count() << '\n';
        const auto cable = [this](const char* kind, const auto* cable) {
            out_ << "  " << kind << ' ' << terminalRef(cable->output) << " -> " << terminalRef(cable->input)
                 << " source=" << compRef(cable->source) << " destination=" << compRef(cable->destination) << '\n';
        };
        for (const CMIDICable* each : comp.midiCablesIn) cable("midi", each);
        for (const CAudioCable* each : comp.audioCablesIn) cable("audio", each);
    }

    void dumpTrack(int32_t index, const CTrack& track) {
        out_ << "track" << index << " type=" << track.type << " name=" << quoted(track.name)
             << " flags=" << track.flags.load() << " color=" << track.color << " channel=" << track.channel
             << " transpose=" << track.transpose << " sens=" << track.inputSens << " height=" << track.height
             << " expandedHeight=" << track.expandedHeight << " noteHeight=" << track.noteHeight
             << " parent=" << orUnknown(at("track", seq_.tracks, track.parentFolder))
             << " seq=" << (track.seq == &seq_ ? "this" : "other") << "\n  terminals";
        for (const CInputPort* io : track.inputPorts) out_ << ' ' << terminalRef(io);
        for (const COutputPort* io : track.outputPorts) out_ << ' ' << terminalRef(io);
        for (const CInputChannel* io : track.inputChannels) out_ << ' ' << terminalRef(io);
        for (const COutputChannel* io : track.outputChannels) out_ << ' ' << terminalRef(io);
        out_ << '\n';
        for (const CSubTrack* lane : track.subTracks)
            out_ << "  lane kind=" << lane->laneKind << " name=" << quoted(lane->name) << " visible=" << int{lane->visible}
                 << " height=" << lane->height << " controller=" << lane->controller << " slot=" << lane->slot
                 << " type=" << lane->automationType << " disabled=" << int{lane->disabled}
                 << " flags=" << lane->flags.load() << " target=" << (lane->target ? "set" : "-") << '\n';
    }

    // Notes and automation points; the tests' songs hold no other events.
    void dumpChain(const CEventRec* event, const std::string& indent) {
        for (; event; event = event->next) {
            out_ << indent << "delta=" << event->delta << " flags=" << int{event->flags};
            if (const auto* midi = dynamic_cast<const CMIDIEventRec*>(event))
                out_ << " midi=" << midi->message << " duration=" << midi->duration << '\n';
            else if (const auto* point = dynamic_cast<const CAutomationRec*>(event))
                out_ << " value=" << point->value << " shape=" << point->shape << " curve=" << point->curve << '\n';
            else
                out_ << " other\n";
        }
    }

    // The part's own fields and chains; a ghost shows its link, and the content under the source.
    void dumpPart(const std::string& label, const CPart& part, const std::string& indent) {
        std::string songTrack = part.songTrack ? "?" : "-";
        for (int32_t p = 0; p < seq_.programs.count(); ++p)
            if (std::string ref = at(".st", seq_.prog(p)->songTracks, part.songTrack); ref.size() > 1)
                songTrack = "prog" + std::to_string(p) + ref;
        out_ << indent << label << " kind=" << part.subKind << " name=" << quoted(part.name) << " start=" << part.start
             << " offset=" << part.offset << " length=" << part.length << " color=" << part.color
             << " flags=" << part.flags.load() << " ghost=" << orUnknown(at("source", seq_.ghostSources, part.ghostSource))
             << " songTrack=" << songTrack << '\n';
        dumpChain(part.events, indent + "  ");
        for (int32_t slot = 0; slot < automationSlots; ++slot) {
            if (!part.automation[slot]) continue;
            out_ << indent << "  automation" << slot << '\n';
            dumpChain(part.automation[slot], indent + "    ");
        }
    }

    template <class T>
    void dumpParts(const std::string& label, const TList<T>& parts, const std::string& indent) {
        for (int32_t i = 0; i < parts.count(); ++i) dumpPart(label + std::to_string(i), *parts.getAt(i), indent);
    }

    void dumpSeq() {
        out_ << "options=";
        for (uint8_t byte : seq_.options) out_ << ' ' << int{byte};
        out_ << " program=" << seq_.program << " noteLength=" << seq_.noteLength << " noteVelocity=" << seq_.noteVelocity
             << " sync=" << seq_.sync << " mixerView=" << seq_.mixerView << '\n';
        dumpComp(seq_);
        for (int32_t t = 0; t < seq_.tracks.count(); ++t) dumpTrack(t, *seq_.tracks.getAt(t));
        dumpParts("source", seq_.ghostSources, "");
        for (int32_t p = 0; p < seq_.programs.count(); ++p) {
            const CSeqProg& prog = *seq_.prog(p);
            out_ << "prog" << p << " name=" << quoted(prog.name) << " seq=" << (prog.seq == &seq_ ? "this" : "other")
                 << " loop=" << int{prog.loopOn} << " locators=" << prog.leftLocator << ".." << prog.rightLocator << '\n';
            for (int32_t s = 0; s < prog.songTracks.count(); ++s) {
                const CSongTrack& songTrack = *prog.songTracks.getAt(s);
                out_ << "  st" << s << " track=" << orUnknown(at("track", seq_.tracks, songTrack.track))
                     << " prog=" << orUnknown(at("prog", seq_.programs, songTrack.prog))
                     << " parts=" << songTrack.parts.count() << " freeze=" << songTrack.freezeItems.count() << '\n';
                dumpParts("part", songTrack.parts, "    ");
            }
            dumpParts("marker", prog.markers, "  ");
            dumpParts("signature", prog.signatures, "  ");
            dumpParts("tempo", prog.tempos, "  ");
        }
    }

    const CSeq& seq_;
    const CQV* engine_;
    std::ostringstream out_;
};

// The whole song of `seq`, with the engine's components and cables when it has an engine.
inline std::string dump(const CSeq& seq) { return Dumper(seq).run(); }

}  // namespace modeldump
