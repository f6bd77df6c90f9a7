#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "core/stream.h"
#include "files/soundfont.h"

namespace {

using Bytes = std::vector<uint8_t>;

const std::filesystem::path fonts = "/usr/share/sounds/sf2";
const char* const debianFonts[] = {"TimGM6mb.sf2", "FluidR3_GM.sf2"};

Bytes readAll(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

bool readBytes(files::SoundFontBank& bank, const Bytes& bytes) {
    CMemoryStream stream;
    stream.write(bytes.data(), static_cast<int32_t>(bytes.size()));
    stream.seek(0, seekFromStart);
    return files::readSoundFont(bank, stream);
}

// The presets as another program lists them: "bank-program name" lines of its shell's "inst" command.
std::set<std::string> presetsListedElsewhere(const std::filesystem::path& font) {
    const std::string command = "printf 'inst 1\\nquit\\n' | fluidsynth -a file -o audio.file.name=/dev/null -n '" +
                                font.string() + "' 2>/dev/null";
    std::set<std::string> lines;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        char line[256];
        while (fgets(line, sizeof line, pipe)) {
            std::string text(line);
            while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
            if (text.size() > 8 && text[3] == '-' && text[7] == ' ') lines.insert(text);
        }
        pclose(pipe);
    }
    return lines;
}

// Little pieces of a RIFF file for hand-built fonts.
struct Out {
    Bytes b;
    Out& u16(uint32_t v) {
        b.push_back(static_cast<uint8_t>(v));
        b.push_back(static_cast<uint8_t>(v >> 8));
        return *this;
    }
    Out& u32(uint32_t v) { return u16(v & 0xFFFF).u16(v >> 16); }
    Out& text(const std::string& s, size_t size) {
        for (size_t i = 0; i < size; ++i) b.push_back(i < s.size() ? static_cast<uint8_t>(s[i]) : 0);
        return *this;
    }
    Out& chunk(const char* id, const Bytes& body) {
        text(id, 4).u32(static_cast<uint32_t>(body.size()));
        b.insert(b.end(), body.begin(), body.end());
        return *this;
    }
    Out& list(const char* type, const Bytes& body) {
        Bytes inner(type, type + 4);
        inner.insert(inner.end(), body.begin(), body.end());
        return chunk("LIST", inner);
    }
};

struct Gen {
    uint16_t oper;
    uint32_t amount;
};

// A font of one 1000-frame sample, one instrument with a global zone and three zones (one pointing
// at a sample that isn't there), a preset of bank 0 and a drum preset whose one zone has no instrument.
Bytes tinyFont(uint16_t versionMajor = 2) {
    Out samples;
    for (int i = 0; i < 1046; ++i) samples.u16(static_cast<uint32_t>(i < 1000 ? i : 0));
    const auto bagsAndGens = [](const std::vector<std::vector<Gen>>& zones, Out& bags, Out& gens) {
        uint32_t count = 0;
        for (const auto& zone : zones) {
            bags.u16(count).u16(0);
            for (const Gen& g : zone) gens.u16(g.oper).u16(g.amount);
            count += static_cast<uint32_t>(zone.size());
        }
        bags.u16(count).u16(0);
        gens.u16(0).u16(0);
    };
    Out pbag, pgen, ibag, igen, phdr, inst, shdr, mods;
    // Lead: a global zone of additions (pan -0.2, 4 dB), one zone that replaces the 4 dB by 2 and tunes
    // a semitone up, and one of a missing instrument. Kit: a zone without an instrument.
    bagsAndGens({{{17, 0xFF9C}, {48, 40}}, {{43, 40 | (80 << 8)}, {48, 20}, {51, 1}, {41, 0}}, {{41, 7}}, {{44, 10 | (20 << 8)}}},
                pbag, pgen);
    phdr.text("Lead", 20).u16(5).u16(0).u16(0).u32(0).u32(0).u32(0);
    phdr.text("Kit", 20).u16(1).u16(128).u16(3).u32(0).u32(0).u32(0);
    phdr.text("EOP", 20).u16(0).u16(0).u16(4).u32(0).u32(0).u32(0);
    bagsAndGens({{{17, 250}},
                 {{43, 0 | (59 << 8)}, {51, 2}, {52, 30}, {54, 1}, {0, 10}, {3, 0xFFCE}, {36, 1200}, {37, 200}, {53, 0}},
                 {{43, 60 | (127 << 8)}, {58, 72}, {53, 0}},
                 {{53, 99}}},
                ibag, igen);
    inst.text("Inst", 20).u16(0);
    inst.text("EOI", 20).u16(4);
    shdr.text("tone", 20).u32(0).u32(1000).u32(100).u32(900).u32(22050);
    shdr.b.push_back(64);
    shdr.b.push_back(static_cast<uint8_t>(-10));
    shdr.u16(0).u16(1);
    shdr.text("EOS", 20).u32(0).u32(0).u32(0).u32(0).u32(0).u16(0).u16(0).u16(0);
    mods.text("", 10);

    Out info, sdta, pdta, file;
    info.chunk("ifil", Out().u16(versionMajor).u16(1).b).chunk("INAM", Out().text("Tiny", 6).b);
    sdta.chunk("smpl", samples.b);
    pdta.chunk("phdr", phdr.b).chunk("pbag", pbag.b).chunk("pmod", mods.b).chunk("pgen", pgen.b);
    pdta.chunk("inst", inst.b).chunk("ibag", ibag.b).chunk("imod", mods.b).chunk("igen", igen.b).chunk("shdr", shdr.b);
    Out body;
    body.text("sfbk", 4).list("INFO", info.b).list("sdta", sdta.b).list("pdta", pdta.b);
    file.chunk("RIFF", body.b);
    return file.b;
}

TEST(SoundFont, GeneratorsWorkOutIntoZones) {
    files::SoundFontBank bank;
    ASSERT_TRUE(readBytes(bank, tinyFont())) << bank.error;
    EXPECT_EQ(bank.info.name, "Tiny");
    ASSERT_EQ(bank.presets.size(), 2u);
    // Sorted by preset number, with the index and the bank tables following the order.
    EXPECT_EQ(std::tie(bank.presets[0].name, bank.presets[1].name, bank.presets[1].index),
              std::make_tuple("Kit", "Lead", 1));
    EXPECT_EQ(bank.melodic, std::vector<int32_t>{1});
    EXPECT_EQ(bank.drums, std::vector<int32_t>{0});
    EXPECT_EQ(bank.find(128, 1), &bank.presets[0]);
    EXPECT_EQ(bank.find(0, 1), nullptr);

    // A preset zone without an instrument, or with one that isn't there, has no sounds.
    ASSERT_EQ(bank.presets[0].zones.size(), 1u);
    EXPECT_TRUE(bank.presets[0].zones[0].zones.empty());
    EXPECT_EQ(bank.presets[0].zones[0].velLow, 10);
    const auto& lead = bank.presets[1].zones;
    ASSERT_EQ(lead.size(), 3u);
    EXPECT_EQ(std::tie(lead[0].instrument, lead[2].instrument, lead[1].keyLow, lead[1].keyHigh), std::make_tuple(-1, -1, 40, 80));
    ASSERT_EQ(lead[1].zones.size(), 2u);  // the zone of the missing sample is dropped

    const files::SoundFontZone& low = lead[1].zones[0];
    // The root is the sample's pitch less the coarse tunes of instrument and preset; start and loop move by
    // the offset generators.
    EXPECT_EQ(std::tie(low.rootKey, low.keyHigh, low.start, low.end, low.loop, low.loopStart, low.loopEnd),
              std::make_tuple(61, 59, 10u, 1000u, true, 90, 840));
    EXPECT_FLOAT_EQ(low.fine, 0.2f);  // fine tune and the sample's correction, in semitones
    // The instrument's global pan and the preset's add up; the preset zone's attenuation replaced its
    // global zone's, and each of its 2 dB attenuates 0.4 dB.
    EXPECT_FLOAT_EQ(low.pan, 0.3f);
    EXPECT_FLOAT_EQ(low.attenuation, 0.8f);
    // A decay of 2 s falls 100 dB; to a sustain 20 dB down it takes a fifth of that.
    EXPECT_FLOAT_EQ(low.decaySeconds, 0.4f);
    EXPECT_FLOAT_EQ(low.sustainLevel, 0.1f);
    EXPECT_FLOAT_EQ(low.attackSeconds, 1.0f / 1024.0f);  // the default, -12000 timecents

    const files::SoundFontZone& high = lead[1].zones[1];
    // The root key is the zone's override, less the preset's coarse tune.
    EXPECT_EQ(std::tie(high.rootKey, high.keyLow, high.start, high.loop), std::make_tuple(71, 60, 0u, false));
    EXPECT_FLOAT_EQ(high.fine, -0.1f);
    EXPECT_FLOAT_EQ(high.pan, 0.3f);
    ASSERT_EQ(bank.sampleData.size(), 1046u);
    EXPECT_EQ(bank.sampleData[999], 999);
}

TEST(SoundFont, CompressedTruncatedAndForeignFilesAreRefused) {
    files::SoundFontBank bank;
    EXPECT_FALSE(readBytes(bank, tinyFont(3)));
    EXPECT_NE(bank.error.find("version 3"), std::string::npos);
    EXPECT_TRUE(bank.presets.empty());

    const Bytes whole = tinyFont();
    for (size_t cut : {size_t{3}, size_t{12}, size_t{40}, whole.size() / 2, whole.size() - 30, whole.size() - 1}) {
        SCOPED_TRACE(cut);
        EXPECT_FALSE(readBytes(bank, Bytes(whole.begin(), whole.begin() + static_cast<long>(cut))));
        EXPECT_FALSE(bank.error.empty());
        EXPECT_TRUE(bank.sampleData.empty());
    }
    Bytes wave = whole;
    std::copy_n("WAVE", 4, wave.begin() + 8);
    EXPECT_FALSE(readBytes(bank, wave));
    EXPECT_FALSE(files::readSoundFont(bank, "/nonexistent/font.sf2"));

    const auto path = fonts / "TimGM6mb.sf2";
    ASSERT_TRUE(std::filesystem::exists(path)) << "scripts/bootstrap installs the SoundFonts";
    const Bytes real = readAll(path);
    for (size_t cut : {real.size() / 3, real.size() - 100}) {
        EXPECT_FALSE(readBytes(bank, Bytes(real.begin(), real.begin() + static_cast<long>(cut))));
        EXPECT_NE(bank.error.find("truncated"), std::string::npos) << bank.error;
    }
}

TEST(SoundFont, DebianFontsReadPresetForPreset) {
    for (const char* name : debianFonts) {
        SCOPED_TRACE(name);
        const auto path = fonts / name;
        ASSERT_TRUE(std::filesystem::exists(path)) << "scripts/bootstrap installs the SoundFonts";
        files::SoundFontBank bank;
        ASSERT_TRUE(files::readSoundFont(bank, CString(path.c_str()))) << bank.error;
        EXPECT_EQ(bank.info.versionMajor, 2);
        EXPECT_GE(bank.melodic.size(), 128u);
        EXPECT_FALSE(bank.drums.empty());
        for (const files::SoundFontPreset& preset : bank.presets) {
            SCOPED_TRACE(preset.name);
            size_t sounds = 0;
            for (const auto& zone : preset.zones) {
                for (const files::SoundFontZone& z : zone.zones) {
                    ++sounds;
                    ASSERT_LT(z.start, z.end);
                    ASSERT_LE(z.end, bank.sampleData.size());
                    ASSERT_TRUE(!z.loop || (z.loopStart < z.loopEnd && z.start + static_cast<uint32_t>(z.loopEnd) <= z.end))
                        << z.start << " + " << z.loopStart << ".." << z.loopEnd << " in " << z.end;
                    ASSERT_LE(z.keyLow, z.keyHigh);
                }
            }
            EXPECT_GT(sounds, 0u);
        }
        const std::set<std::string> listed = presetsListedElsewhere(path);
        if (listed.empty()) continue;  // no reference program here
        std::set<std::string> ours;
        for (const files::SoundFontPreset& preset : bank.presets) {
            char line[64];
            std::snprintf(line, sizeof line, "%03d-%03d %s", preset.bank, preset.preset, preset.name.c_str());
            ours.insert(line);
        }
        EXPECT_EQ(ours, listed);
    }
}

}  // namespace
