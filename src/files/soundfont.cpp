#include "files/soundfont.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <new>
#include <optional>

#include "core/stream.h"

namespace files {

namespace {

struct Refused {
    std::string why;
};

struct Chunk {
    char id[5] = {};
    int64_t start = 0;  // first byte of the payload
    int64_t end = 0;
    bool is(const char* name) const { return std::strcmp(id, name) == 0; }
};

// Little-endian fields of a record read whole.
class Record {
public:
    explicit Record(const uint8_t* bytes) : p_(bytes) {}
    uint8_t u8() { return *p_++; }
    uint16_t u16() {
        const uint16_t v = static_cast<uint16_t>(p_[0] | (p_[1] << 8));
        p_ += 2;
        return v;
    }
    uint32_t u32() {
        const uint32_t v = uint32_t{p_[0]} | (uint32_t{p_[1]} << 8) | (uint32_t{p_[2]} << 16) | (uint32_t{p_[3]} << 24);
        p_ += 4;
        return v;
    }
    // A fixed field of 20 bytes, NUL-padded, or not terminated when all are used.
    std::string name() {
        const auto* text = reinterpret_cast<const char*>(p_);
        p_ += 20;
        return {text, strnlen(text, 20)};
    }

private:
    const uint8_t* p_;
};

class Reader {
public:
    Reader(CStream& stream, SoundFontBank& bank) : s_(stream), bank_(bank) {}

    void run() {
        const int64_t fileSize = std::max(s_.seek(0, seekFromEnd), 0);
        s_.seek(0, seekFromStart);
        const Chunk riff = chunk(fileSize, "the file");
        char form[4] = {};
        if (!riff.is("RIFF") || s_.read(form, 4) != 4 || std::memcmp(form, "sfbk", 4) != 0)
            throw Refused{"not a SoundFont file"};
        for (int64_t at = riff.start + 4; at + 8 <= riff.end;) {
            s_.seek(static_cast<int32_t>(at), seekFromStart);
            const Chunk list = chunk(riff.end, "the file");
            at = list.end + (list.end & 1);
            char type[4] = {};
            if (!list.is("LIST") || list.end - list.start < 4 || s_.read(type, 4) != 4) continue;
            if (std::memcmp(type, "INFO", 4) == 0) readInfo(list);
            else if (std::memcmp(type, "sdta", 4) == 0) readSampleData(list);
            else if (std::memcmp(type, "pdta", 4) == 0) readPresetData(list);
        }
        if (bank_.info.versionMajor == 3) throw Refused{"compressed SoundFont (version 3) is not supported"};
        if (bank_.info.versionMajor != 2) throw Refused{"not a SoundFont 2 file"};
        if (!sawPresetData_) throw Refused{"no preset data"};
        for (const SoundFontSample& sample : bank_.samples)
            if (sample.type & 0x10) throw Refused{"compressed samples are not supported"};
        workOut();
    }

private:
    Chunk chunk(int64_t parentEnd, const char* parent) {
        Chunk c;
        uint32_t size = 0;
        if (s_.read(c.id, 4) != 4 || !s_.readU32(size)) throw Refused{std::string("truncated: ") + parent + " ends inside a chunk header"};
        c.start = s_.tell();
        c.end = c.start + size;
        if (c.end > parentEnd) throw Refused{std::string("truncated or damaged: chunk \"") + c.id + "\" runs past " + parent};
        return c;
    }

    // The sub-chunks of a list, each handed over with the stream at its payload.
    template <class Fn>
    void eachChunk(const Chunk& list, Fn fn) {
        for (int64_t at = list.start + 4; at + 8 <= list.end;) {
            s_.seek(static_cast<int32_t>(at), seekFromStart);
            const Chunk c = chunk(list.end, "its list");
            fn(c);
            at = c.end + (c.end & 1);
        }
    }

    std::vector<uint8_t> payload(const Chunk& c) {
        std::vector<uint8_t> bytes(static_cast<size_t>(c.end - c.start));
        s_.seek(static_cast<int32_t>(c.start), seekFromStart);
        if (s_.read(bytes.data(), static_cast<int32_t>(bytes.size())) != static_cast<int32_t>(bytes.size()))
            throw Refused{std::string("truncated: chunk \"") + c.id + "\" cut short"};
        return bytes;
    }

    void readInfo(const Chunk& list) {
        SoundFontInfo& info = bank_.info;
        eachChunk(list, [&](const Chunk& c) {
            const std::vector<uint8_t> bytes = payload(c);
            if (c.is("ifil") || c.is("iver")) {
                if (bytes.size() < 4) return;
                Record r(bytes.data());
                (c.is("ifil") ? info.versionMajor : info.romMajor) = r.u16();
                (c.is("ifil") ? info.versionMinor : info.romMinor) = r.u16();
                return;
            }
            std::string text(bytes.begin(), bytes.end());
            text.resize(strnlen(text.c_str(), text.size()));
            const std::pair<const char*, std::string*> fields[] = {
                {"isng", &info.engine},    {"INAM", &info.name},      {"irom", &info.rom},
                {"ICRD", &info.date},      {"IENG", &info.engineers}, {"IPRD", &info.product},
                {"ICOP", &info.copyright}, {"ICMT", &info.comment},   {"ISFT", &info.tool}};
            for (const auto& [id, field] : fields)
                if (c.is(id)) *field = std::move(text);
        });
    }

    void readSampleData(const Chunk& list) {
        eachChunk(list, [&](const Chunk& c) {
            if (!c.is("smpl")) return;
            auto& data = bank_.sampleData;
            data.clear();
            data.resize(static_cast<size_t>((c.end - c.start) / 2));
            const auto bytes = static_cast<int32_t>(data.size() * 2);
            if (s_.read(data.data(), bytes) != bytes) throw Refused{"truncated: the sample data is cut short"};
            if constexpr (std::endian::native == std::endian::big)
                for (int16_t& v : data) {
                    const auto u = static_cast<uint16_t>(v);
                    v = static_cast<int16_t>((u >> 8) | (u << 8));
                }
        });
    }

    // Each table: a whole number of records, at least the terminal one.
    template <class Fn>
    void table(const std::vector<uint8_t>& bytes, size_t recordSize, const char* id, Fn fn) {
        if (bytes.empty() || bytes.size() % recordSize != 0)
            throw Refused{std::string("damaged preset data: \"") + id + "\" is not a whole number of records"};
        for (size_t at = 0; at < bytes.size(); at += recordSize) {
            Record r(bytes.data() + at);
            fn(r);
        }
    }

    void readPresetData(const Chunk& list) {
        struct Table {
            const char* id;
            size_t size;
            std::vector<uint8_t> bytes;
        };
        Table tables[] = {{"phdr", 38, {}}, {"pbag", 4, {}}, {"pmod", 10, {}}, {"pgen", 4, {}}, {"inst", 22, {}},
                          {"ibag", 4, {}},  {"imod", 10, {}}, {"igen", 4, {}}, {"shdr", 46, {}}};
        eachChunk(list, [&](const Chunk& c) {
            for (Table& t : tables)
                if (c.is(t.id)) t.bytes = payload(c);
        });
        SoundFontBank& b = bank_;
        table(tables[0].bytes, tables[0].size, "phdr", [&](Record& r) {
            SoundFontPreset& p = presetHeaders_.emplace_back();
            p.name = r.name();
            p.preset = r.u16();
            p.bank = r.u16();
            presetFirstBag_.push_back(r.u16());
            p.library = r.u32();
            p.genre = r.u32();
            p.morphology = r.u32();
        });
        const auto bags = [&](const Table& t, std::vector<uint16_t>& generators, std::vector<uint16_t>& modulators) {
            table(t.bytes, t.size, t.id, [&](Record& r) {
                generators.push_back(r.u16());
                modulators.push_back(r.u16());
            });
        };
        const auto modulators = [&](const Table& t, std::vector<SoundFontModulator>& out) {
            table(t.bytes, t.size, t.id, [&](Record& r) {
                SoundFontModulator& m = out.emplace_back();
                m.source = r.u16();
                m.destination = r.u16();
                m.amount = static_cast<int16_t>(r.u16());
                m.amountSource = r.u16();
                m.transform = r.u16();
            });
        };
        const auto generators = [&](const Table& t, std::vector<SoundFontGenerator>& out) {
            table(t.bytes, t.size, t.id, [&](Record& r) {
                const uint16_t oper = r.u16();
                out.push_back({oper, r.u16()});
            });
        };
        bags(tables[1], b.presetBags, b.presetBagModulators);
        modulators(tables[2], b.presetModulators);
        generators(tables[3], b.presetGenerators);
        table(tables[4].bytes, tables[4].size, "inst", [&](Record& r) {
            SoundFontInstrument& i = b.instruments.emplace_back();
            i.name = r.name();
            i.firstBag = r.u16();
        });
        bags(tables[5], b.instrumentBags, b.instrumentBagModulators);
        modulators(tables[6], b.instrumentModulators);
        generators(tables[7], b.instrumentGenerators);
        table(tables[8].bytes, tables[8].size, "shdr", [&](Record& r) {
            SoundFontSample& s = b.samples.emplace_back();
            s.name = r.name();
            s.start = r.u32();
            s.end = r.u32();
            s.loopStart = r.u32();
            s.loopEnd = r.u32();
            s.sampleRate = r.u32();
            s.originalPitch = r.u8();
            s.pitchCorrection = static_cast<int8_t>(r.u8());
            s.link = r.u16();
            s.type = r.u16();
        });
        sawPresetData_ = true;
    }

    // What a preset zone adds to the generators of its instrument's zones; a local zone's value replaces
    // the global zone's. Generators that only an instrument may hold are passed over here.
    struct PresetAdds {
        int32_t pan = 0, attack = 0, decay = 0, sustain = 0, release = 0, attenuation = 0, coarse = 0, fine = 0;

        void apply(const SoundFontGenerator& g) {
            const int32_t v = g.value();
            switch (g.oper) {
            case 17: pan = v; break;
            case 34: attack = v; break;
            case 36: decay = v; break;
            case 37: sustain = v; break;
            case 38: release = v; break;
            case 48: attenuation = v; break;
            case 51: coarse = v; break;
            case 52: fine = v; break;
            default: break;
            }
        }
    };

    // The generator state of an instrument zone.
    struct State {
        int32_t offsets[8] = {};  // start, end, loop start, loop end: fine, then coarse
        int32_t pan = 0;
        int32_t keyLow = 0, keyHigh = 127, velLow = 0, velHigh = 127;
        int32_t coarse = 0, fine = 0;
        int32_t sampleModes = 0;
        int32_t rootOverride = -1;
        int32_t attenuation = 0;  // centibels
        int32_t attack = -12000, decay = -12000, release = -12000;  // timecents
        int32_t sustain = 0;  // centibels below the peak

        void apply(const SoundFontGenerator& g) {
            const int32_t v = g.value();
            switch (g.oper) {
            case 0: offsets[0] = v; break;
            case 4: offsets[1] = v; break;
            case 1: offsets[2] = v; break;
            case 12: offsets[3] = v; break;
            case 2: offsets[4] = v; break;
            case 45: offsets[5] = v; break;
            case 3: offsets[6] = v; break;
            case 50: offsets[7] = v; break;
            case 17: pan = v; break;
            case 34: attack = v; break;
            case 36: decay = v; break;
            case 37: sustain = v; break;
            case 38: release = v; break;
            case 43: keyLow = g.amount & 0xFF; keyHigh = g.amount >> 8; break;
            case 44: velLow = g.amount & 0xFF; velHigh = g.amount >> 8; break;
            case 48: attenuation = v; break;
            case 51: coarse = v; break;
            case 52: fine = v; break;
            case 54: sampleModes = g.amount & 3; break;
            case 58: rootOverride = v; break;
            default: break;
            }
        }
        int64_t offset(int32_t which) const { return offsets[which * 2] + int64_t{offsets[which * 2 + 1]} * 32768; }

        void add(const PresetAdds& adds) {
            pan += adds.pan;
            attack += adds.attack;
            decay += adds.decay;
            sustain += adds.sustain;
            release += adds.release;
            attenuation += adds.attenuation;
            coarse += adds.coarse;
            fine += adds.fine;
        }
    };

    // Generators of bag `bag` in a bag table, within what the generator table holds.
    static std::span<const SoundFontGenerator> generatorsOf(const std::vector<uint16_t>& bags,
                                                            const std::vector<SoundFontGenerator>& generators, size_t bag) {
        if (bag + 1 >= bags.size()) return {};
        const size_t from = bags[bag], to = std::min<size_t>(bags[bag + 1], generators.size());
        if (from >= to) return {};
        return std::span(generators).subspan(from, to - from);
    }

    std::vector<SoundFontZone> instrumentZones(size_t instrument, const PresetAdds& adds) const {
        const SoundFontBank& b = bank_;
        std::vector<SoundFontZone> zones;
        const size_t first = b.instruments[instrument].firstBag, last = b.instruments[instrument + 1].firstBag;
        State defaults;
        for (size_t bag = first; bag < last && bag + 1 < b.instrumentBags.size(); ++bag) {
            const auto gens = generatorsOf(b.instrumentBags, b.instrumentGenerators, bag);
            State state = defaults;
            if (bag == first && (gens.empty() || gens.back().oper != 53)) {
                for (const SoundFontGenerator& g : gens) defaults.apply(g);
                continue;
            }
            for (const SoundFontGenerator& g : gens) {
                if (g.oper != 53) {
                    state.apply(g);
                    continue;
                }
                if (g.amount + size_t{1} < b.samples.size()) {
                    state.add(adds);
                    if (auto zone = makeZone(state, g.amount)) zones.push_back(*zone);
                }
                state = defaults;
            }
        }
        return zones;
    }

    std::optional<SoundFontZone> makeZone(const State& state, size_t sampleIndex) const {
        const SoundFontSample& sample = bank_.samples[sampleIndex];
        if (sample.type & 0x8000) return std::nullopt;  // in a ROM this file doesn't hold
        const auto limit = static_cast<int64_t>(bank_.sampleData.size());
        const auto clampFrame = [&](int64_t v) { return std::clamp<int64_t>(v, 0, limit); };
        const int64_t start = clampFrame(sample.start + state.offset(0));
        const int64_t end = clampFrame(sample.end + state.offset(1));
        if (start >= end) return std::nullopt;
        const int64_t loopStart = std::clamp<int64_t>(sample.loopStart + state.offset(2), start, end);
        const int64_t loopEnd = std::clamp<int64_t>(sample.loopEnd + state.offset(3), start, end);

        SoundFontZone zone;
        zone.sample = static_cast<int32_t>(sampleIndex);
        const int32_t pitch = sample.originalPitch > 127 ? 60 : sample.originalPitch;
        zone.rootKey = std::clamp((state.rootOverride >= 0 && state.rootOverride <= 127 ? state.rootOverride : pitch) - state.coarse, -127, 254);
        zone.fine = static_cast<float>(std::clamp(state.fine, -99, 99) + sample.pitchCorrection) * 0.01f;
        zone.pan = std::clamp(static_cast<float>(state.pan) / 500.0f, -1.0f, 1.0f);
        zone.keyLow = state.keyLow;
        zone.keyHigh = std::min(state.keyHigh, 127);
        zone.velLow = state.velLow;
        zone.velHigh = std::min(state.velHigh, 127);
        zone.start = static_cast<uint32_t>(start);
        zone.end = static_cast<uint32_t>(end);
        zone.loop = (state.sampleModes == 1 || state.sampleModes == 3) && loopStart < loopEnd;
        zone.loopStart = static_cast<int32_t>(loopStart - start);
        zone.loopEnd = static_cast<int32_t>(loopEnd - start);
        // SoundFonts are voiced on players that attenuate 0.4 dB for each dB a file gives, the rule of the
        // hardware the format came from; every common player follows it.
        zone.attenuation = static_cast<float>(std::clamp(state.attenuation, 0, 1440)) * 0.1f * 0.4f;
        const auto seconds = [](int32_t timecents) { return static_cast<float>(std::exp2(std::clamp(timecents, -12000, 8000) / 1200.0)); };
        // The decay falls 100 dB in its time, linearly in dB, so it reaches the sustain level sooner.
        const int32_t sustain = std::clamp(state.sustain, 0, 1000);
        zone.attackSeconds = seconds(state.attack);
        zone.decaySeconds = seconds(state.decay) * static_cast<float>(sustain) / 1000.0f;
        zone.sustainLevel = static_cast<float>(std::pow(10.0, -sustain / 200.0));
        zone.releaseSeconds = seconds(state.release);
        return zone;
    }

    // A sample whose end lies past the sample block would make every zone on it a copy of the block from
    // its start to the end, many times the file's size over a bank of such headers. Its frames can only
    // be those up to the next sample's start, as samples follow each other in the block.
    void fitSamplesToData() {
        const auto blockEnd = static_cast<uint32_t>(std::min<size_t>(bank_.sampleData.size(), UINT32_MAX));
        std::vector<uint32_t> starts;
        starts.reserve(bank_.samples.size());
        for (const SoundFontSample& sample : bank_.samples) starts.push_back(sample.start);
        std::sort(starts.begin(), starts.end());
        for (SoundFontSample& sample : bank_.samples) {
            if (sample.end <= blockEnd) continue;
            const auto next = std::upper_bound(starts.begin(), starts.end(), sample.start);
            sample.end = next == starts.end() ? blockEnd : std::min(*next, blockEnd);
        }
    }

    void workOut() {
        SoundFontBank& b = bank_;
        if (b.presetBags.empty() || b.instrumentBags.empty() || b.samples.empty() || b.instruments.empty() || presetHeaders_.empty())
            throw Refused{"damaged preset data: a table is missing"};
        fitSamplesToData();
        const size_t instrumentCount = b.instruments.size() - 1;

        for (size_t p = 0; p + 1 < presetHeaders_.size(); ++p) {
            SoundFontPreset preset = std::move(presetHeaders_[p]);
            SoundFontPresetZone defaults;
            PresetAdds globalAdds;
            const size_t first = presetFirstBag_[p], last = presetFirstBag_[p + 1];
            for (size_t bag = first; bag < last && bag + 1 < b.presetBags.size(); ++bag) {
                SoundFontPresetZone zone = defaults;
                PresetAdds adds = globalAdds;
                for (const SoundFontGenerator& g : generatorsOf(b.presetBags, b.presetGenerators, bag)) {
                    adds.apply(g);
                    if (g.oper == 43) {
                        zone.keyLow = g.amount & 0xFF;
                        zone.keyHigh = std::min(g.amount >> 8, 127);
                    } else if (g.oper == 44) {
                        zone.velLow = g.amount & 0xFF;
                        zone.velHigh = std::min(g.amount >> 8, 127);
                    } else if (g.oper == 41) {
                        if (g.amount < instrumentCount) {
                            zone.instrument = g.amount;
                            zone.zones = instrumentZones(g.amount, adds);
                        }
                        break;  // the instrument closes a preset zone
                    }
                }
                // A first zone without an instrument is global: its ranges and additions hold for the others.
                if (bag == first && zone.instrument < 0 && last - first > 1) {
                    defaults = zone;
                    globalAdds = adds;
                }
                preset.zones.push_back(std::move(zone));
            }
            b.presets.push_back(std::move(preset));
        }
        b.instruments.pop_back();
        b.samples.pop_back();
        std::stable_sort(b.presets.begin(), b.presets.end(),
                         [](const SoundFontPreset& x, const SoundFontPreset& y) { return x.preset < y.preset; });
        for (size_t i = 0; i < b.presets.size(); ++i) {
            b.presets[i].index = static_cast<int32_t>(i);
            if (b.presets[i].bank == 0) b.melodic.push_back(static_cast<int32_t>(i));
            if (b.presets[i].bank == 128) b.drums.push_back(static_cast<int32_t>(i));
        }
    }

    CStream& s_;
    SoundFontBank& bank_;
    std::vector<SoundFontPreset> presetHeaders_;  // terminal record included
    std::vector<uint16_t> presetFirstBag_;
    bool sawPresetData_ = false;
};

}  // namespace

void SoundFontBank::clear() { *this = SoundFontBank(); }

const SoundFontPreset* SoundFontBank::find(int32_t bankNumber, int32_t program) const {
    for (const SoundFontPreset& p : presets)
        if (p.bank == bankNumber && p.preset == program) return &p;
    return nullptr;
}

bool readSoundFont(SoundFontBank& bank, CStream& stream) {
    bank.clear();
    try {
        Reader(stream, bank).run();
        return true;
    } catch (const Refused& refused) {
        bank.clear();
        bank.error = refused.why;
    } catch (const std::bad_alloc&) {
        bank.clear();
        bank.error = "not enough memory for the sample data";
    }
    return false;
}

bool readSoundFont(SoundFontBank& bank, const CString& path) {
    CFileStream file(path, CFileStream::openRead);
    if (!file.isOpen()) {
        bank.clear();
        bank.error = std::string("can't open ") + path.c_str();
        return false;
    }
    return readSoundFont(bank, file);
}

}  // namespace files
