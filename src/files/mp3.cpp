#include "files/mp3.h"

#include <cstring>
#include <string>
#include <system_error>

#include "files/audio_writer.h"
#include "platform/process.h"

namespace files {

int32_t runEncoder(int32_t bitrate, int32_t /*flags*/, const std::filesystem::path& wav, const std::filesystem::path& mp3,
                   int32_t* exitCode) {
    const platform::ProgramResult result = platform::runProgram(
        {encoderProgram, "--silent", "-b", std::to_string(bitrate), wav.string(), mp3.string()}, encoderTimeoutMs);
    if (exitCode) *exitCode = result.timedOut ? -1 : result.exitCode;
    return result.startError;
}

void encodeMp3(const std::filesystem::path& wav, const std::filesystem::path& mp3, int32_t bitrate) {
    std::filesystem::path partial = mp3;
    partial += ".partial";
    std::error_code ignored;
    std::filesystem::remove(partial, ignored);
    int32_t exitCode = -1;
    const int32_t error = runEncoder(bitrate, 0, wav, partial, &exitCode);
    std::filesystem::remove(wav, ignored);
    std::string why;
    if (error != 0) why = std::string(encoderProgram) + " could not be started: " + std::strerror(error);
    else if (exitCode != 0) why = exitCode < 0 ? std::string(encoderProgram) + " did not finish in time"
                                               : std::string(encoderProgram) + " failed with status " + std::to_string(exitCode);
    else if (!std::filesystem::exists(partial)) why = std::string(encoderProgram) + " made no file";
    if (why.empty()) {
        std::error_code renamed;
        std::filesystem::rename(partial, mp3, renamed);
        if (!renamed) return;
        why = "cannot replace " + mp3.string();
    }
    std::filesystem::remove(partial, ignored);
    throw FileError(std::string(encodeFailed) + " (" + why + ")");
}

}  // namespace files
