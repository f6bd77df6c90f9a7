#pragma once
// MP3 output through the outside encoder, "lame" found on PATH: a render goes to a WAV file first, which
// the encoder turns into the MP3 and which is then removed.

#include <cstdint>
#include <filesystem>

namespace files {

constexpr const char* encoderProgram = "lame";
constexpr int32_t encoderTimeoutMs = 30000;
constexpr const char* encodeFailed = "Could not encode file - make sure mp3 encoder is installed properly";

// Runs the encoder on `wav` into `mp3` at `bitrate` kbit/s and waits for it. 0 when it ran; otherwise the
// system's error that kept it from starting. `exitCode` gets the encoder's own status (-1: none).
int32_t runEncoder(int32_t bitrate, int32_t flags, const std::filesystem::path& wav, const std::filesystem::path& mp3,
                   int32_t* exitCode = nullptr);

// Where the WAV that becomes `mp3` is rendered: beside the file the MP3 replaces (the end of a link),
// under a fixed name that the next render of the same file replaces; in the system's temporary folder
// when `mp3` is a device or a FIFO.
std::filesystem::path mp3RenderPath(const std::filesystem::path& mp3);

// Saves the encoder's output by the rules of platform::FileReplace: into a temporary file beside `mp3`,
// renamed over it once the encoder has made it, so that a failure leaves an old file as it was; straight
// into a device or FIFO. Removes `wav` either way. Throws FileError with the message above and what went
// wrong.
void encodeMp3(const std::filesystem::path& wav, const std::filesystem::path& mp3, int32_t bitrate);

}  // namespace files
