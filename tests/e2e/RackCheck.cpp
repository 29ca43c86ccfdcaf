// The end-to-end rack test's tool: makes the test file, and checks a recording of it played
// through a rack against the rack's own EQ response.
//
//   harlune-e2e-rack-check make FILE.wav
//   harlune-e2e-rack-check check RECORDING.wav RACK.json [--plugin-gain-db DB] [--last]
//
// The file is 0.5 s of silence, then five steady tones at 0.1 each, for `toneSeconds`. check
// finds where the tones begin in the recording, takes one second from 0.5 s after that (or the
// last whole second of sound, with --last), and measures each tone there with a one-bin DFT:
// with whole-hertz tones a one-second window holds whole cycles of each, wherever it starts, so
// the tones do not leak into each other's bins.
#include "engine/RackFile.h"

#include <cmath>
#include <complex>
#include <cstdio>
#include <numbers>
#include <sndfile.h>
#include <string>
#include <vector>

namespace {

using namespace harlune;

constexpr int rate = 48000;
constexpr double toneSeconds = 4.0;
constexpr double amplitude = 0.1;
constexpr double frequencies[] = {60, 250, 1000, 3000, 9000};

int make(const std::string& path) {
    const int lead = rate / 2;
    const int frames = lead + static_cast<int>(toneSeconds * rate);
    std::vector<float> interleaved(static_cast<size_t>(frames) * 2, 0.0f);
    for (int n = lead; n < frames; ++n) {
        double sum = 0;
        for (const double f : frequencies)
            sum += amplitude * std::sin(2 * std::numbers::pi * f * (n - lead) / rate);
        interleaved[static_cast<size_t>(n) * 2] = static_cast<float>(sum);
        interleaved[static_cast<size_t>(n) * 2 + 1] = static_cast<float>(sum);
    }
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = 2;
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    if (!file)
        return std::fprintf(stderr, "can't write %s\n", path.c_str()), 1;
    sf_writef_float(file, interleaved.data(), frames);
    sf_close(file);
    return 0;
}

int check(const std::string& recording, const std::string& rackPath, double pluginGainDB, bool last) {
    SF_INFO info{};
    SNDFILE* file = sf_open(recording.c_str(), SFM_READ, &info);
    if (!file || info.samplerate != rate || info.channels != 2)
        return std::fprintf(stderr, "%s is not a 48 kHz stereo recording\n", recording.c_str()), 1;
    std::vector<float> samples(static_cast<size_t>(info.frames) * 2);
    const auto frames = static_cast<size_t>(sf_readf_float(file, samples.data(), info.frames));
    sf_close(file);

    const auto reading = RackFile::readFile(rackPath);
    if (!reading.rack || !reading.messages.empty())
        return std::fprintf(stderr, "the rack file did not read cleanly\n"), 1;
    std::vector<double> expected(std::size(frequencies), pluginGainDB);
    for (const auto& slot : reading.rack->slots)
        if (const auto* settings = std::get_if<EffectSettings>(&slot.source); settings && slot.isEnabled)
            if (const auto* eq = settings->as<EQSettings>()) {
                const auto response = eq->responseDB(frequencies, rate);
                for (size_t i = 0; i < expected.size(); ++i)
                    expected[i] += response[i];
            }

    size_t onset = 0, end = 0;
    for (size_t n = 0; n < frames; ++n)
        if (std::abs(samples[n * 2]) > 0.01f) {
            if (onset == 0)
                onset = n;
            end = n;
        }
    const size_t start = last ? end - static_cast<size_t>(rate) - rate / 10 : onset + rate / 2;
    if (onset == 0 || end < static_cast<size_t>(rate) + rate / 10 || start + rate > frames)
        return std::fprintf(stderr, "the recording holds no whole second of tones\n"), 1;
    bool good = true;
    for (int channel = 0; channel < 2; ++channel)
        for (size_t i = 0; i < std::size(frequencies); ++i) {
            std::complex<double> sum = 0;
            for (size_t n = 0; n < static_cast<size_t>(rate); ++n)
                sum +=
                    static_cast<double>(samples[(start + n) * 2 + static_cast<size_t>(channel)]) *
                    std::polar(1.0, -2 * std::numbers::pi * frequencies[i] * static_cast<double>(n) / rate);
            const double measured = 20 * std::log10(2 * std::abs(sum) / rate / amplitude);
            const bool within = std::abs(measured - expected[i]) <= 0.2;
            good = good && within;
            std::printf("channel %d, %5.0f Hz: heard %+7.2f dB, expected %+7.2f dB%s\n", channel,
                        frequencies[i], measured, expected[i], within ? "" : "  <- off by more than 0.2 dB");
        }
    return good ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.size() == 2 && arguments[0] == "make")
        return make(arguments[1]);
    if (arguments.size() >= 3 && arguments[0] == "check") {
        double pluginGainDB = 0;
        bool last = false;
        for (size_t i = 3; i < arguments.size(); ++i) {
            if (arguments[i] == "--plugin-gain-db" && i + 1 < arguments.size())
                pluginGainDB = std::stod(arguments[++i]);
            else if (arguments[i] == "--last")
                last = true;
        }
        return check(arguments[1], arguments[2], pluginGainDB, last);
    }
    std::fprintf(stderr, "usage: harlune-e2e-rack-check make FILE.wav | check RECORDING.wav RACK.json "
                         "[--plugin-gain-db DB] [--last]\n");
    return 2;
}
