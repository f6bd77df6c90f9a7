#include "files/mp3.h"

#include <cstring>
#include <random>
#include <string>
#include <system_error>

#include "files/audio_writer.h"
#include "platform/file_replace.h"
#include "platform/process.h"

namespace files {

int32_t runEncoder(int32_t bitrate, int32_t /*flags*/, const std::filesystem::path& wav, const std::filesystem::path& mp3,
                   int32_t* exitCode) {
    const platform::ProgramResult result = platform::runProgram(
        {encoderProgram, "--silent", "-b", std::to_string(bitrate), wav.string(), mp3.string()}, encoderTimeoutMs);
    if (exitCode) *exitCode = result.timedOut ? -1 : result.exitCode;
    return result.startError;
}

std::filesystem::path mp3RenderPath(const std::filesystem::path& mp3) {
    const platform::SaveTarget target = platform::resolveSaveTarget(mp3.string());
    if (target.kind == platform::SaveTarget::Kind::file) return target.temporary + ".wav";
    return std::filesystem::temp_directory_path() / ("vantrell-" + std::to_string(std::random_device{}()) + ".render.wav");
}

void encodeMp3(const std::filesystem::path& wav, const std::filesystem::path& mp3, int32_t bitrate) {
    const platform::SaveTarget target = platform::resolveSaveTarget(mp3.string());
    std::error_code ignored;
    if (target.kind == platform::SaveTarget::Kind::refused) {
        std::filesystem::remove(wav, ignored);
        throw FileError(target.error);
    }
    const bool direct = target.kind == platform::SaveTarget::Kind::stream;
    const std::filesystem::path output = direct ? target.path : target.temporary;
    if (!direct) std::filesystem::remove(output, ignored);
    int32_t exitCode = -1;
    const int32_t error = runEncoder(bitrate, 0, wav, output, &exitCode);
    std::filesystem::remove(wav, ignored);
    std::string why;
    if (error != 0) why = std::string(encoderProgram) + " could not be started: " + std::strerror(error);
    else if (exitCode != 0) why = exitCode < 0 ? std::string(encoderProgram) + " did not finish in time"
                                               : std::string(encoderProgram) + " failed with status " + std::to_string(exitCode);
    else if (!direct && !std::filesystem::exists(output)) why = std::string(encoderProgram) + " made no file";
    if (why.empty() && (direct || platform::commitTemporary(target, why))) return;
    if (!direct) std::filesystem::remove(output, ignored);
    throw FileError(std::string(encodeFailed) + " (" + why + ")");
}

}  // namespace files
