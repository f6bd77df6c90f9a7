#pragma once
// A canonical text picture of a song and of the graph around it, for comparing model states (before and
// after undo and redo, after a reload). Every object is named by where it sits — component, track, song
// track, part, ghost source and terminal by index — never by address, so equal models give equal text.
// Play state (positions, cursors, queues, song-track flags) is left out: it is not part of the model.

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
        dumpEngine();
        dumpSeq();
        return out_.str();
    }

private:
    template <class T>
    static int32_t indexIn(const TList<T>& list, const void* item) {
        return item ? list.indexOf(item) : -1;
    }

    static std::string hex(uint32_t value) {
        std::ostringstream text;
        text << "0x" << std::hex << value;
        return text.str();
    }

    static std::string quoted(const CString& text) { return std::string("\"") + text.c_str() + "\""; }

    std::string compRef(const CComp* comp) const {
        if (!comp) return "-";
        if (comp == &seq_) return "seq";
        if (engine_) {
            if (int32_t i = indexIn(engine_->comps, comp); i >= 0) return "comp" + std::to_string(i);
            if (int32_t i = indexIn(engine_->groupChannels, comp); i >= 0) return "group" + std::to_string(i);
        }
        if (int32_t i = indexIn(seq_.tracks, comp); i >= 0) return "track" + std::to_string(i);
        return "?";
    }

    // A terminal by the component list that holds it: "<component>.<list><index>".
    static std::string terminalIn(const CComp& comp, const CIO* io) {
        if (int32_t i = indexIn(comp.inputPorts, io); i >= 0) return ".inport" + std::to_string(i);
        if (int32_t i = indexIn(comp.outputPorts, io); i >= 0) return ".outport" + std::to_string(i);
        if (int32_t i = indexIn(comp.inputChannels, io); i >= 0) return ".inch" + std::to_string(i);
        if (int32_t i = indexIn(comp.outputChannels, io); i >= 0) return ".outch" + std::to_string(i);
        return {};
    }

    std::string terminalRef(const CIO* io) const {
        if (!io) return "-";
        if (std::string at = terminalIn(seq_, io); !at.empty()) return "seq" + at;
        if (engine_) {
            for (int32_t i = 0; i < engine_->comps.count(); ++i)
                if (std::string at = terminalIn(*engine_->comps.getAt(i), io); !at.empty())
                    return "comp" + std::to_string(i) + at;
            for (int32_t i = 0; i < engine_->groupChannels.count(); ++i)
                if (std::string at = terminalIn(*engine_->groupChannels.getAt(i), io); !at.empty())
                    return "group" + std::to_string(i) + at;
        }
        return "?";
    }

    std::string trackRef(const CTrack* track) const {
        if (!track) return "-";
        int32_t i = indexIn(seq_.tracks, track);
        return i >= 0 ? "track" + std::to_string(i) : "?";
    }

    std::string ghostRef(const CPart* source) const {
        if (!source) return "-";
        int32_t i = indexIn(seq_.ghostSources, source);
        return i >= 0 ? "source" + std::to_string(i) : "?";
    }

    std::string progRef(const CSeqProg* prog) const {
        if (!prog) return "-";
        int32_t i = indexIn(seq_.programs, prog);
        return i >= 0 ? "prog" + std::to_string(i) : "?";
    }

    std::string songTrackRef(const CSongTrack* songTrack) const {
        if (!songTrack) return "-";
        for (int32_t p = 0; p < seq_.programs.count(); ++p)
            if (int32_t i = indexIn(seq_.prog(p)->songTracks, songTrack); i >= 0)
                return "prog" + std::to_string(p) + ".st" + std::to_string(i);
        return "?";
    }

    std::string objectRef(const void* object) const {
        if (!object) return "-";
        if (engine_) {
            if (int32_t i = indexIn(engine_->comps, object); i >= 0) return "comp" + std::to_string(i);
        }
        if (std::string ref = terminalRef(static_cast<const CIO*>(object)); ref != "?") return ref;
        return "other";
    }

    void dumpCables(const CComp& comp, const std::string& indent) {
        for (const CMIDICable* cable : comp.midiCablesIn)
            out_ << indent << "midi " << terminalRef(cable->output) << " -> " << terminalRef(cable->input)
                 << " source=" << compRef(cable->source) << " destination=" << compRef(cable->destination) << '\n';
        for (const CAudioCable* cable : comp.audioCablesIn)
            out_ << indent << "audio " << terminalRef(cable->output) << " -> " << terminalRef(cable->input)
                 << " source=" << compRef(cable->source) << " destination=" << compRef(cable->destination) << '\n';
    }

    void dumpComp(const std::string& label, const CComp& comp) {
        out_ << label << " kind=" << comp.kind << " sub=" << comp.subKind << " name=" << quoted(comp.name)
             << " power=" << comp.power.load() << " inports=" << comp.inputPorts.count()
             << " outports=" << comp.outputPorts.count() << " inchs=" << comp.inputChannels.count()
             << " outchs=" << comp.outputChannels.count() << " programs=" << comp.programs.count() << '\n';
        for (const COutputChannel* channel : comp.outputChannels)
            if (!channel->inserts.empty()) out_ << "  inserts " << terminalRef(channel) << ' ' << channel->inserts.count() << '\n';
        dumpCables(comp, "  ");
    }

    void dumpEngine() {
        if (!engine_) {
            out_ << "engine none\n";
            return;
        }
        out_ << "engine comps=" << engine_->comps.count() << " groups=" << engine_->groupChannels.count() << '\n';
        for (int32_t i = 0; i < engine_->comps.count(); ++i) {
            const CComp* comp = engine_->comps.getAt(i);
            if (comp == &seq_) out_ << "comp" << i << " seq\n";
            else dumpComp("comp" + std::to_string(i), *comp);
        }
        for (int32_t i = 0; i < engine_->groupChannels.count(); ++i)
            dumpComp("group" + std::to_string(i), *engine_->groupChannels.getAt(i));
    }

    void dumpTerminals(const CTrack& track) {
        out_ << "  terminals";
        for (const CInputPort* io : track.inputPorts) out_ << ' ' << terminalRef(io);
        for (const COutputPort* io : track.outputPorts) out_ << ' ' << terminalRef(io);
        for (const CInputChannel* io : track.inputChannels) out_ << ' ' << terminalRef(io);
        for (const COutputChannel* io : track.outputChannels) out_ << ' ' << terminalRef(io);
        out_ << '\n';
    }

    void dumpTrack(int32_t index, const CTrack& track) {
        out_ << "track" << index << " type=" << track.type << " name=" << quoted(track.name)
             << " flags=" << hex(track.flags.load()) << " color=" << track.color << " channel=" << track.channel
             << " transpose=" << track.transpose << " sens=" << track.inputSens << " height=" << track.height
             << " expandedHeight=" << track.expandedHeight << " noteHeight=" << track.noteHeight
             << " parent=" << trackRef(track.parentFolder) << " seq=" << (track.seq == &seq_ ? "this" : "other")
             << '\n';
        dumpTerminals(track);
        for (const CSubTrack* lane : track.subTracks)
            out_ << "  lane kind=" << lane->laneKind << " name=" << quoted(lane->name) << " visible=" << int{lane->visible}
                 << " height=" << lane->height << " controller=" << lane->controller << " slot=" << lane->slot
                 << " type=" << lane->automationType << " disabled=" << int{lane->disabled}
                 << " flags=" << hex(lane->flags.load()) << " target=" << objectRef(lane->target) << '\n';
    }

    void dumpEvent(const CEventRec& event, const std::string& indent) {
        out_ << indent << "delta=" << event.delta << " flags=" << int{event.flags};
        if (const auto* midi = dynamic_cast<const CMIDIEventRec*>(&event)) {
            out_ << " midi=" << hex(midi->message) << " duration=" << midi->duration;
        } else if (const auto* drum = dynamic_cast<const CDrumEventRec*>(&event)) {
            out_ << " pad=" << drum->pad << " duration=" << drum->duration << " velocity=" << drum->velocity
                 << " pan=" << drum->pan << " pitch=" << drum->pitch;
        } else if (const auto* clip = dynamic_cast<const CAudioEventRec*>(&event)) {
            out_ << " sample=" << (clip->sample ? "set" : "none") << " gain=" << clip->gain << " spare=" << clip->spare
                 << " mode=" << clip->mode << " reverse=" << clip->reverse << " frames=" << clip->startFrame << ".."
                 << clip->endFrame << " clipTicks=" << clip->clipTicks << " beats=" << clip->beats
                 << " pitch=" << clip->pitch << " fine=" << clip->fine << " lane=" << clip->lane
                 << " fadeIn=" << clip->fadeInMs << '/' << clip->fadeInCurve << " fadeOut=" << clip->fadeOutMs << '/'
                 << clip->fadeOutCurve;
        } else if (const auto* point = dynamic_cast<const CAutomationRec*>(&event)) {
            out_ << " value=" << point->value << " shape=" << point->shape << " curve=" << point->curve;
        } else {
            out_ << " unknown";
        }
        out_ << '\n';
    }

    void dumpChain(const CEventRec* head, const std::string& indent) {
        for (const CEventRec* event = head; event; event = event->next) dumpEvent(*event, indent);
    }

    // The part's own fields and chains; a ghost shows its link, and the content under the source.
    void dumpPart(const std::string& label, const CPart& part, const std::string& indent) {
        out_ << indent << label << " kind=" << part.subKind << " name=" << quoted(part.name) << " start=" << part.start
             << " offset=" << part.offset << " length=" << part.length << " color=" << part.color
             << " flags=" << hex(part.flags.load()) << " ghost=" << ghostRef(part.ghostSource)
             << " songTrack=" << songTrackRef(part.songTrack);
        if (const auto* audio = dynamic_cast<const CAudioPart*>(&part))
            out_ << " multiClip=" << audio->multiClip << " channels=" << audio->audioChannels;
        else if (const auto* sig = dynamic_cast<const CTimesigPart*>(&part))
            out_ << " sig=" << sig->numerator << '/' << sig->denominator << " reference=" << sig->referenceTempo;
        else if (const auto* tempo = dynamic_cast<const CTempoPart*>(&part))
            out_ << " tempo=" << tempo->tempo;
        else if (const auto* marker = dynamic_cast<const CMarkerPart*>(&part))
            out_ << " reserved=" << int{marker->reserved[0]} << ',' << int{marker->reserved[1]};
        out_ << '\n';
        dumpChain(part.events, indent + "  ");
        for (int32_t slot = 0; slot < automationSlots; ++slot) {
            if (!part.automation[slot]) continue;
            out_ << indent << "  automation" << slot << '\n';
            dumpChain(part.automation[slot], indent + "    ");
        }
    }

    template <class T>
    void dumpPoints(const char* label, const TList<T>& points) {
        for (int32_t i = 0; i < points.count(); ++i)
            dumpPart(label + std::to_string(i), *points.getAt(i), "  ");
    }

    void dumpProg(int32_t index, const CSeqProg& prog) {
        out_ << "prog" << index << " name=" << quoted(prog.name) << " seq=" << (prog.seq == &seq_ ? "this" : "other")
             << " loop=" << int{prog.loopOn} << " locators=" << prog.leftLocator << ".." << prog.rightLocator << '\n';
        for (int32_t s = 0; s < prog.songTracks.count(); ++s) {
            const CSongTrack& songTrack = *prog.songTracks.getAt(s);
            out_ << "  st" << s << " track=" << trackRef(songTrack.track) << " prog=" << progRef(songTrack.prog)
                 << " parts=" << songTrack.parts.count() << " freeze=" << songTrack.freezeItems.count() << '\n';
            for (int32_t p = 0; p < songTrack.parts.count(); ++p)
                dumpPart("part" + std::to_string(p), *songTrack.parts.getAt(p), "    ");
        }
        dumpPoints("marker", prog.markers);
        dumpPoints("signature", prog.signatures);
        dumpPoints("tempo", prog.tempos);
    }

    void dumpSeq() {
        out_ << "seq name=" << quoted(seq_.name) << " program=" << seq_.program << " options=";
        for (uint8_t byte : seq_.options) out_ << ' ' << int{byte};
        out_ << " noteLength=" << seq_.noteLength << " noteVelocity=" << seq_.noteVelocity << " sync=" << seq_.sync
             << " mixerView=" << seq_.mixerView << '\n';
        dumpComp("seqcomp", seq_);
        for (int32_t t = 0; t < seq_.tracks.count(); ++t) dumpTrack(t, *seq_.tracks.getAt(t));
        for (int32_t g = 0; g < seq_.ghostSources.count(); ++g)
            dumpPart("source" + std::to_string(g), *seq_.ghostSources.getAt(g), "");
        for (int32_t p = 0; p < seq_.programs.count(); ++p) dumpProg(p, *seq_.prog(p));
    }

    const CSeq& seq_;
    const CQV* engine_;
    std::ostringstream out_;
};

// The whole song of `seq`, with the engine's components and cables when it has an engine.
inline std::string dump(const CSeq& seq) { return Dumper(seq).run(); }

}  // namespace modeldump
