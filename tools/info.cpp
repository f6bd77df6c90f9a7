#include "info.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "sound/sample.h"

namespace info {

namespace {

// The first bytes of a file, enough to tell its kind.
struct Head {
    unsigned char bytes[12] = {};
    size_t size = 0;
    bool is(size_t at, const char* text) const {
        const size_t length = std::strlen(text);
        return at + length <= size && std::memcmp(bytes + at, text, length) == 0;
    }
};

int fail(const std::string& path, const std::string& why) {
    std::fprintf(stderr, "vantrell-cli: %s: %s\n", path.c_str(), why.c_str());
    return 1;
}

bool isAudio(const Head& head) { return head.is(0, "RIFF") ? head.is(8, "WAVE") : head.is(0, "FORM"); }

int describeAudio(const std::string& path) {
    CSample sample;
    sample.streamed = 1;  // the header is all that is needed
    if (!sample.open(path.c_str())) return fail(path, sample.error.c_str());
    const bool floating = sample.format == CString("WAV") && sample.bits == 32;
    std::printf("file:     %s\n", path.c_str());
    std::printf("format:   %s, %d bit %s\n", sample.format.c_str(), sample.bits, floating ? "float" : "integer");
    std::printf("rate:     %.0f Hz\n", static_cast<double>(sample.sampleRate));
    std::printf("channels: %d (%s)\n", sample.channels, sample.channels == 1 ? "mono" : "stereo");
    std::printf("frames:   %d\n", sample.frames);
    std::printf("length:   %.3f s\n", sample.frames / static_cast<double>(sample.sampleRate));
    if (sample.loop == loopForward) std::printf("loop:     forward from frame %d\n", sample.loopStart);
    else if (sample.loopCount > 0) std::printf("loop:     off (%d loops listed, the last from frame %d)\n", sample.loopCount, sample.loopStart);
    else std::printf("loop:     none\n");
    return 0;
}

struct Kind {
    bool (*matches)(const Head& head);
    int (*describe)(const std::string& path);
};

// One row for each kind of file; the first that matches describes it.
constexpr Kind kinds[] = {
    {isAudio, describeAudio},
};

}  // namespace

int run(const std::vector<std::string_view>& args) {
    if (args.size() != 1) {
        std::fputs("usage: vantrell-cli info FILE\n", stderr);
        return 2;
    }
    const std::string path(args[0]);
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (!file) return fail(path, "The file cannot be opened");
    Head head;
    head.size = std::fread(head.bytes, 1, sizeof head.bytes, file);
    std::fclose(file);
    for (const Kind& kind : kinds)
        if (kind.matches(head)) return kind.describe(path);
    return fail(path, "not a kind of file vantrell-cli can describe");
}

}  // namespace info
