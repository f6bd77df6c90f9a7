// vantrell-cli: the engine's jobs from a shell, with no window and no audio device.
//
//   vantrell-cli render --demo -o FILE [--format wav|aiff|mp3] [--rate N] [--bits 16|24|32] [--mono] [--bitrate N]
//   vantrell-cli render SONG.mid --soundfont FONT.sf2 -o FILE [the same options]
//   vantrell-cli render PROJECT.qv -o FILE [the same options]
//   vantrell-cli import --demo | SONG.mid [--soundfont FONT.sf2] | PROJECT.qv -o OUT.qv
//   vantrell-cli info FILE
//   vantrell-cli play --demo | SONG.mid [--soundfont F] | PROJECT.qv [--driver jack|alsa|null] [--device NAME] [--seconds N]

#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "demo_song.h"
#include "files/audio_writer.h"
#include "files/gm_song.h"
#include "files/mp3.h"
#include "files/render.h"
#include "info.h"
#include "options.h"
#include "platform/platform.h"
#include "play.h"
#include "project_cli.h"

namespace {

constexpr int exitFailure = 1;
constexpr int exitUsage = 2;

const char* const usage =
    "usage: vantrell-cli render --demo -o FILE [--format wav|aiff|mp3] [--rate N] [--bits 16|24|32] [--mono]\n"
    "                          [--bitrate N]\n"
    "       vantrell-cli render SONG.mid --soundfont FONT.sf2 -o FILE [the options above]\n"
    "       vantrell-cli render PROJECT.qv -o FILE [the options above]\n"
    "       vantrell-cli import --demo | SONG.mid [--soundfont FONT.sf2] | PROJECT.qv -o OUT.qv\n"
    "       vantrell-cli info FILE\n"
    "       vantrell-cli play --demo | SONG.mid [--soundfont F] | PROJECT.qv [--driver jack|alsa|null]\n"
    "                         [--device NAME] [--seconds N]   (in real time through an audio device)\n"
    "  --demo        render the built-in demo song\n"
    "  SONG.mid      render a Standard MIDI file through samplers playing the presets of a SoundFont 2 bank:\n"
    "  --soundfont F   program changes choose the presets, channel 10 plays the drum kits of bank 128\n"
    "  -o FILE       the file to write; an existing file is replaced only when the render succeeds\n"
    "  --format F    wav, aiff or mp3 (default: from the extension of FILE, else wav)\n"
    "  --rate N      sample rate, 8000 to 192000 (default 48000)\n"
    "  --bits B      16 or 24 bit integer, or 32: float in WAV, integer in AIFF (default 16)\n"
    "  --mono        one channel instead of two\n"
    "  --bitrate N   MP3 kilobits a second, 32 to 320 (default 128), through lame on PATH\n"
    "  PROJECT.qv    render a project from its start to the end of its last part and one bar more\n"
    "  import        build a project from the demo song, a MIDI file or another project, and save it\n"
    "  info FILE     describe a WAV, AIFF, MIDI, SoundFont or project file\n";

using cli::UsageError;

struct RenderOptions {
    bool demo = false;
    std::filesystem::path midi;
    std::filesystem::path soundFont;
    std::filesystem::path output;
    files::AudioFormat format{48000, 2, files::SampleFormat::int16};
    bool mp3 = false;
    int32_t bitrate = 128;
};

enum class OutputType { wav, aiff, mp3 };

constexpr struct {
    std::string_view name;
    OutputType type;
} outputTypes[] = {{"wav", OutputType::wav}, {"aiff", OutputType::aiff}, {"mp3", OutputType::mp3}};

// The file type that --format or, without it, the output's extension asks for. An extension that names
// another type would give a file its name belies, so it is refused rather than followed or overruled.
OutputType outputTypeOf(const std::filesystem::path& output, std::string_view format) {
    std::optional<OutputType> chosen;
    if (!format.empty()) {
        for (const auto& row : outputTypes)
            if (row.name == format) chosen = row.type;
        if (!chosen) throw UsageError{"--format must be wav, aiff or mp3, not '" + std::string(format) + "'"};
    }
    const std::string extension = cli::extensionOf(output);
    if (extension.empty()) return chosen.value_or(OutputType::wav);
    std::optional<OutputType> named;
    if (extension == ".aif") named = OutputType::aiff;
    for (const auto& row : outputTypes)
        if (std::string_view(extension).substr(1) == row.name) named = row.type;
    if (!named)
        throw UsageError{output.string() + ": vantrell-cli writes no '" + extension +
                         "' files: end the name in .wav, .aif, .aiff or .mp3"};
    if (chosen && chosen != named)
        throw UsageError{std::string("--format ").append(format).append(" does not match the name ").append(output.string())
                             .append(": end the name in .").append(format).append(" or leave --format out")};
    return *named;
}

int parseRate(std::string_view text, int low = 8000, int high = 192000, const char* option = "--rate") {
    return cli::wholeNumber(option, text, low, high);
}

files::SampleFormat parseBits(std::string_view text) {
    if (text == "16") return files::SampleFormat::int16;
    if (text == "24") return files::SampleFormat::int24;
    if (text == "32f" || text == "32") return files::SampleFormat::float32;
    throw UsageError{"--bits must be 16, 24 or 32, not '" + std::string(text) + "'"};
}

// What the song files are, told before the song is built and long before the render ends.
void checkInputs(const RenderOptions& options) {
    if (options.midi.empty()) return;
    cli::checkInput(options.midi);
    if (!options.soundFont.empty()) cli::checkInput(options.soundFont);
    if (projectcli::isProjectFile(options.midi)) return;
    if (cli::extensionOf(options.midi) == ".qv")
        throw cli::FileRefused{options.midi.string() + ": the project could not be read: the file is damaged or no project; "
                                                       "open a backup or another copy"};
    if (!projectcli::hasMIDIMagic(options.midi))
        throw cli::FileRefused{options.midi.string() + ": neither a project nor a Standard MIDI file"};
    if (options.soundFont.empty()) throw UsageError{"a MIDI file plays through --soundfont FONT.sf2"};
}

RenderOptions parseRender(const std::vector<std::string_view>& args) {
    RenderOptions options;
    std::string_view format;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string_view arg = args[i];
        const auto value = [&]() -> std::string_view {
            if (i + 1 >= args.size()) throw UsageError{std::string(arg) + " wants a value"};
            return args[++i];
        };
        if (arg == "--demo") options.demo = true;
        else if (arg == "-o" || arg == "--output") options.output = std::filesystem::path(value());
        else if (arg == "--rate") options.format.rate = parseRate(value());
        else if (arg == "--bits") options.format.sample = parseBits(value());
        else if (arg == "--mono") options.format.channels = 1;
        else if (arg == "--format") format = value();
        else if (arg == "--bitrate") options.bitrate = parseRate(value(), 32, 320, "--bitrate");
        else if (arg == "--soundfont") options.soundFont = std::filesystem::path(value());
        else if (!arg.starts_with("-") && options.midi.empty()) options.midi = std::filesystem::path(arg);
        else throw UsageError{"unknown option '" + std::string(arg) + "'"};
    }
    if (!options.demo && options.midi.empty()) throw UsageError{"nothing to render: give --demo or a MIDI file"};
    if (options.demo && !options.midi.empty()) throw UsageError{"render takes --demo or a MIDI file, not both"};
    if (options.output.empty()) throw UsageError{"no output file: give -o FILE.wav"};
    const OutputType type = outputTypeOf(options.output, format);
    options.mp3 = type == OutputType::mp3;
    options.format.type = type == OutputType::aiff ? files::FileType::aiff : files::FileType::wav;
    checkInputs(options);
    cli::checkOutput(options.output);
    // AIFF holds 32-bit integers where WAV holds floats.
    if (options.format.type == files::FileType::aiff && options.format.sample == files::SampleFormat::float32)
        options.format.sample = files::SampleFormat::int32;
    return options;
}

// Draws a bar on standard error when it is a terminal; stays quiet when it is a file or a pipe.
class ProgressBar {
public:
    ProgressBar() : shown_(platform::isTerminal(2)) {}
    bool operator()(double done) {
        if (!shown_) return true;
        constexpr int width = 40;
        const int filled = static_cast<int>(done * width);
        std::fprintf(stderr, "\rrendering [%s%s] %3d%%", std::string(static_cast<size_t>(filled), '#').c_str(),
                     std::string(static_cast<size_t>(width - filled), '.').c_str(), static_cast<int>(done * 100.0));
        std::fflush(stderr);
        return true;
    }
    void finish() const {
        if (shown_) std::fputc('\n', stderr);
    }

private:
    bool shown_;
};

// Writes the song; the exit status says whether its input was whole (`damage` lists what it lost).
template <class Song>
int renderSong(Song& song, const RenderOptions& options, const files::DamageReport& damage = {}) {
    // MP3 renders to a WAV beside the target first, which the encoder then turns into the MP3.
    const std::filesystem::path wavPath = options.mp3 ? files::mp3RenderPath(options.output) : options.output;
    files::AudioWriter writer(wavPath, options.format);
    ProgressBar bar;
    const auto started = std::chrono::steady_clock::now();
    const files::RenderResult result =
        files::renderOffline(song.engine, {0, song.lengthTicks()}, writer, [&bar](double done) { return bar(done); });
    writer.commit();
    if (options.mp3) files::encodeMp3(wavPath, options.output, options.bitrate);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    bar.finish();
    const double audio = static_cast<double>(result.frames) / options.format.rate;
    std::printf("wrote %s: %.2f s of audio, %d Hz, %d channel(s), %d bit%s, peak %.3f, in %.2f s (%.0fx real time)\n",
                options.output.string().c_str(), audio, options.format.rate, options.format.channels,
                files::bitsOf(options.format.sample),
                options.mp3 ? " into MP3" : options.format.sample == files::SampleFormat::float32 ? " float" : "",
                static_cast<double>(result.peak), seconds, seconds > 0.0 ? audio / seconds : 0.0);
    std::fflush(stdout);
    return projectcli::tellDamage(options.midi.string(), damage);
}

int render(const RenderOptions& options) {
    if (options.demo) {
        demo::DemoSong song(options.format.rate);
        return renderSong(song, options);
    }
    if (projectcli::isProjectFile(options.midi)) {
        projectcli::ProjectSong song(options.midi, options.format.rate);
        return renderSong(song, options, song.damage());
    }
    files::SoundFontBank bank;
    if (!files::readSoundFont(bank, options.soundFont.c_str()))
        throw std::runtime_error(options.soundFont.string() + ": " + bank.error);
    files::GmSong song(options.format.rate, options.midi.c_str(), bank);
    return renderSong(song, options, song.damage());
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string_view> args(argv + 1, argv + argc);
    try {
        if (args.empty() || args[0] == "--help" || args[0] == "-h") {
            std::fputs(usage, args.empty() ? stderr : stdout);
            return args.empty() ? exitUsage : EXIT_SUCCESS;
        }
        if (args[0] == "play") return play::run({args.begin() + 1, args.end()});
        if (args[0] == "info") return info::run({args.begin() + 1, args.end()});
        if (args[0] == "import") return projectcli::runImport({args.begin() + 1, args.end()});
        if (args[0] != "render") throw UsageError{"unknown command '" + std::string(args[0]) + "'"};
        return render(parseRender({args.begin() + 1, args.end()}));
    } catch (const UsageError& error) {
        // One line that says what is wrong reads better than the whole option table after it.
        std::fprintf(stderr, "vantrell-cli: %s\n(vantrell-cli --help lists the commands and options)\n",
                     error.message.c_str());
        return exitUsage;
    } catch (const cli::FileRefused& error) {
        std::fprintf(stderr, "vantrell-cli: %s\n", error.message.c_str());
        return exitFailure;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "\nvantrell-cli: render failed: %s\n", error.what());
        return exitFailure;
    }
}
