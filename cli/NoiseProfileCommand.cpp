// harlune-cli noise-profile: learns the noise of a stretch of a file and writes it as JSON, in
// the form that the "profile" of noise-reduction settings takes (and that process reads with
// --noise-profile).
#include "CliSupport.h"
#include "Commands.h"
#include "NoiseProfileOptions.h"
#include "OpenAudio.h"

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <system_error>

namespace harlune::cli {

namespace {

constexpr std::string_view usage = "harlune-cli noise-profile IN --select START:END -o PROFILE.json\n"
                                   "  --select START:END   the stretch that holds only the noise (seconds)\n"
                                   "  -o, --output FILE    where the profile goes";

// Through a hidden file beside the destination, moved into place once complete.
void writeText(const std::filesystem::path& path, const std::string& text) {
    // Built by appending: g++ 12 warns falsely on a literal joined to a string here.
    std::string name(1, '.');
    name.append(path.filename().string()).append(".harlune-partial");
    const std::filesystem::path temporary = path.parent_path() / name;
    {
        std::ofstream file(temporary, std::ios::binary | std::ios::trunc);
        file << text;
        file.close();
        if (!file) {
            std::error_code ignored;
            std::filesystem::remove(temporary, ignored);
            throw std::runtime_error("can\u2019t write \u2018" + path.string() + "\u2019");
        }
    }
    std::error_code error;
    std::filesystem::rename(temporary, path, error);
    if (error) {
        std::error_code ignored;
        std::filesystem::remove(temporary, ignored);
        throw std::runtime_error("can\u2019t write \u2018" + path.string() + "\u2019: " + error.message());
    }
}

int runNoiseProfile(std::span<const std::string> arguments) {
    std::optional<SecondsSpan> span;
    std::optional<std::string> output;
    std::optional<std::string> input;
    ArgumentReader reader(arguments);
    while (reader.next()) {
        const std::string& argument = reader.current();
        if (!reader.isOption()) {
            if (input)
                throw UsageError{"expected one input file"};
            input = argument;
        } else if (argument == "--select") {
            span = parseSecondsSpan(reader.value(), argument);
        } else if (argument == "-o" || argument == "--output") {
            output = reader.value();
        } else {
            throw reader.unknownOption();
        }
    }
    if (!input)
        throw UsageError{"expected an input file"};
    if (!span)
        throw UsageError{"--select START:END is needed: the stretch that holds only the noise"};
    if (!output)
        throw UsageError{"-o PROFILE.json is needed"};
    const OpenedAudio opened = openAudioShowingProgress(*input);
    refuseNonFiniteSamples(opened.content);
    const NoiseProfile profile = learnNoiseProfile(opened.content, *span, "--select");
    writeText(*output, nlohmann::json(profile).dump() + "\n");
    return exitSuccess;
}

} // namespace

Command noiseProfileCommand() {
    return {"noise-profile", "learn the noise of a stretch of a file, for noise reduction", usage,
            runNoiseProfile};
}

} // namespace harlune::cli
