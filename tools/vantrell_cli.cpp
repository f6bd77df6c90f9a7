// vantrell-cli: the engine's jobs from a shell, with no window and no audio device.
//
//   vantrell-cli render --demo -o demo.wav [--rate N] [--bits 16|24|32f] [--mono]
//   vantrell-cli play --demo [--driver jack|alsa|null] [--device NAME] [--seconds N]

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "demo_song.h"
#include "files/render.h"
#include "files/wav.h"
#include "platform/platform.h"
#include "play.h"

namespace {

constexpr int exitFailure = 1;
constexpr int exitUsage = 2;

const char* const usage =
    "usage: vantrell-cli render --demo -o FILE.wav [--rate N] [--bits 16|24|32f] [--mono]\n"
    "  --demo        render the built-in demo song\n"
    "  -o FILE       the WAV file to write; an existing file is replaced only when the render succeeds\n"
    "  --rate N      sample rate, 8000 to 192000 (default 48000)\n"
    "  --bits B      16 or 24 bit integer, or 32f for 32 bit float (default 16)\n"
    "  --mono        one channel instead of two\n";

struct UsageError {
    std::string message;
};

struct RenderOptions {
    bool demo = false;
    std::filesystem::path output;
    files::WavFormat format{48000, 2, files::SampleFormat::int16};
};

int parseRate(std::string_view text) {
    int value = 0;
    for (char c : text) {
        if (c < '0' || c > '9' || value > 1000000) throw UsageError{"--rate wants a whole number, not '" + std::string(text) + "'"};
        value = value * 10 + (c - '0');
    }
    if (text.empty() || value < 8000 || value > 192000) throw UsageError{"--rate must be between 8000 and 192000"};
    return value;
}

files::SampleFormat parseBits(std::string_view text) {
    if (text == "16") return files::SampleFormat::int16;
    if (text == "24") return files::SampleFormat::int24;
    if (text == "32f") return files::SampleFormat::float32;
    throw UsageError{"--bits must be 16, 24 or 32f, not '" + std::string(text) + "'"};
}

RenderOptions parseRender(const std::vector<std::string_view>& args) {
    RenderOptions options;
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
        else throw UsageError{"unknown option '" + std::string(arg) + "'"};
    }
    if (!options.demo) throw UsageError{"nothing to render: only --demo is available"};
    if (options.output.empty()) throw UsageError{"no output file: give -o FILE.wav"};
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

int render(const RenderOptions& options) {
    demo::DemoSong song(options.format.rate);
    files::WavWriter writer(options.output, options.format);
    ProgressBar bar;
    const auto started = std::chrono::steady_clock::now();
    const files::RenderResult result =
        files::renderOffline(song.engine, {0, song.lengthTicks()}, writer, [&bar](double done) { return bar(done); });
    writer.commit();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    bar.finish();
    const double audio = static_cast<double>(result.frames) / options.format.rate;
    std::printf("wrote %s: %.2f s of audio, %d Hz, %d channel(s), %d bit%s, peak %.3f, in %.2f s (%.0fx real time)\n",
                options.output.string().c_str(), audio, options.format.rate, options.format.channels,
                files::bitsOf(options.format.sample), options.format.sample == files::SampleFormat::float32 ? " float" : "",
                static_cast<double>(result.peak), seconds, seconds > 0.0 ? audio / seconds : 0.0);
    return EXIT_SUCCESS;
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
        if (args[0] != "render") throw UsageError{"unknown command '" + std::string(args[0]) + "'"};
        return render(parseRender({args.begin() + 1, args.end()}));
    } catch (const UsageError& error) {
        std::fprintf(stderr, "vantrell-cli: %s\n%s", error.message.c_str(), usage);
        return exitUsage;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "\nvantrell-cli: render failed: %s\n", error.what());
        return exitFailure;
    }
}
