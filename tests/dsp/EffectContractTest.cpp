// What every processor promises, checked row by row for each processor type at 44.1 and 96 kHz,
// mono and stereo. An effect joins by adding its row to `rows()`.
#include "base/EffectProcessor.h"
#include "dsp/effects/ConfigurableEffect.h"
#include "dsp/effects/EffectFactory.h"
#include "dsp/plugins/PluginEffect.h"
#include "support/AllocationCounter.h"
#include "support/TestAudio.h"
#include "support/TestProcessors.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <limits>
#include <optional>
#include <string>

namespace harlune {
namespace {

using testing::Planes;

struct ContractRow {
    std::string name;
    std::function<std::shared_ptr<EffectProcessor>()> make;
    /// Applied before every run (through `apply`, which counts as audio-thread work).
    std::optional<EffectSettings> settings = std::nullopt;
    /// The same with mix 0, for an effect with a dry path: the impulse's peak then leaves at the
    /// latency. Without it the row's own settings are used for that check.
    std::optional<EffectSettings> dryOnly = std::nullopt;
    /// How far under its peak an impulse's output must be once latency and tail have passed;
    /// -30 for a processor that caps its tail at 30 s.
    double tailFloorDB = -60;
    /// The tail check runs on `dryOnly`: for filters that ring past a declared tail of 0.
    bool tailOfDryOnly = false;
};

// A built-in effect's row: `EffectFactory` makes it, as the rack and the renderer do.
[[maybe_unused]] ContractRow builtin(EffectSettings settings, std::optional<EffectSettings> dryOnly = {},
                                     double tailFloorDB = -60, bool tailOfDryOnly = false) {
    return {std::string(rawValue(settings.kind())),
            [settings] { return std::shared_ptr<EffectProcessor>(EffectFactory::makeProcessor(settings)); },
            settings,
            std::move(dryOnly),
            tailFloorDB,
            tailOfDryOnly};
}

// An installed LV2 plug-in's row, with control values; none where the plug-in isn't installed.
std::vector<ContractRow> pluginRow(const std::string& uri,
                                   std::vector<std::pair<std::string, float>> controls) {
    const auto installed = PluginEffect::installedPlugins();
    const auto found = std::ranges::find(installed, uri, &PluginDescriptor::id);
    if (found == installed.end())
        return {};
    return {{.name = found->name, .make = [descriptor = *found, controls] {
                 auto effect = PluginEffect::instantiate(descriptor);
                 for (const auto& [symbol, value] : controls)
                     effect->setParameter(symbol, value);
                 return std::shared_ptr<EffectProcessor>(effect);
             }}};
}

std::vector<ContractRow> joined(std::vector<ContractRow> rows, std::vector<ContractRow> more) {
    std::ranges::move(more, std::back_inserter(rows));
    return rows;
}

const std::vector<ContractRow>& rows() {
    static const std::vector<ContractRow> all{
        {.name = "latency 47",
         .make =
             [] {
                 return std::make_shared<testing::LatencyProcessor>(47);
             }},
        {.name = "echo 300",
         .make =
             [] {
                 return std::make_shared<testing::EchoProcessor>(300);
             }},
        {.name = "smoothing",
         .make =
             [] {
                 return std::make_shared<testing::SmoothingProcessor>();
             }},
        {.name = "scale",
         .make = [] { return std::make_shared<testing::ScaleProcessor>(); },
         .settings = DistortionSettings{.outputDB = -6}},
        // Its filters ring past the declared tail of 0 (as any IIR equaliser does), so the tail
        // check runs on its output gain alone.
        builtin(EQSettings{.bands = {{.type = EQBandType::lowShelf, .frequency = 100, .gainDB = -4, .q = 0.7},
                                     {.type = EQBandType::peak, .frequency = 2500, .gainDB = 6, .q = 1},
                                     {.type = EQBandType::highCut, .frequency = 15000, .q = 0.7}},
                           .outputGainDB = -2},
                EQSettings{.outputGainDB = -2}, -60, true),
        // builtin(DelaySettings{...}, DelaySettings{.mix = 0}), ...
    };
    // An installed mono plug-in (swh-lv2), which runs once per channel.
    static const std::vector<ContractRow> withPlugins =
        joined(all, pluginRow("http://plugin.org.uk/swh-plugins/amp", {{"gain", 6}}));
    return withPlugins;
}

struct Format {
    double rate;
    int channels;
};
constexpr Format formats[] = {{44100, 1}, {44100, 2}, {96000, 1}, {96000, 2}};
constexpr int maxFrames = 4096;

// Every row in every format, with the case named in failures.
template <class Check> void forEachCase(Check check) {
    for (const ContractRow& row : rows())
        for (const Format format : formats) {
            SCOPED_TRACE(row.name + " at " + std::to_string(static_cast<int>(format.rate)) + " Hz, " +
                         std::to_string(format.channels) + " channel(s)");
            check(row, format);
        }
}

void applySettings(EffectProcessor& processor, const std::optional<EffectSettings>& settings) {
    if (auto* configurable = dynamic_cast<ConfigurableEffect*>(&processor); configurable && settings)
        configurable->apply(*settings);
}

std::shared_ptr<EffectProcessor> prepared(const ContractRow& row, Format format,
                                          const std::optional<EffectSettings>& settings) {
    auto processor = row.make();
    applySettings(*processor, settings);
    processor->prepare(format.rate, format.channels, maxFrames);
    return processor;
}

// Runs `signal` through in calls of `block` frames, in place, allocating nothing itself.
void run(EffectProcessor& processor, Planes& signal, int block) {
    std::array<float*, 8> pointers{};
    for (size_t c = 0; c < signal.size(); ++c)
        pointers.at(c) = signal[c].data();
    const ChannelSpan whole(ChannelPointers(pointers).first(signal.size()),
                            static_cast<int>(signal.front().size()));
    for (int done = 0; done < whole.frameCount(); done += block)
        processor.process(whole.frames(done, std::min(block, whole.frameCount() - done)));
}

Planes silence(int channels, int frames) {
    return Planes(static_cast<size_t>(channels), std::vector<float>(static_cast<size_t>(frames)));
}

Planes impulse(int channels, int frames) {
    Planes planes = silence(channels, frames);
    for (auto& plane : planes)
        plane[0] = 1.0f;
    return planes;
}

// Distinct denormals of both signs.
Planes denormals(int channels, int frames) {
    Planes planes = testing::noisePlanes(channels, frames, 11);
    for (auto& plane : planes)
        for (float& x : plane)
            x *= std::numeric_limits<float>::min();
    return planes;
}

bool byMagnitude(float a, float b) {
    return std::abs(a) < std::abs(b);
}

float maxAbs(std::vector<float>::const_iterator begin, std::vector<float>::const_iterator end) {
    return begin == end ? 0.0f : std::abs(*std::max_element(begin, end, byMagnitude));
}

TEST(EffectContract, ApplyAndProcessAllocateNothing) {
    forEachCase([](const ContractRow& row, Format format) {
        auto processor = prepared(row, format, row.settings);
        Planes signal = testing::noisePlanes(format.channels, 3 * maxFrames);
        const testing::AllocationCounter counter;
        applySettings(*processor, row.settings);
        run(*processor, signal, 1000);
        processor->reset();
        run(*processor, signal, maxFrames);
        EXPECT_EQ(counter.count(), 0);
    });
}

// Glides move per call by design, so no `apply` comes between the runs.
TEST(EffectContract, OutputIsTheSameWhateverTheBlockSizeAndAfterEachReset) {
    forEachCase([](const ContractRow& row, Format format) {
        auto processor = prepared(row, format, row.settings);
        Planes input = testing::noisePlanes(format.channels, 3 * maxFrames + 123, 5);
        input[0][700] = 1.0f;
        std::optional<Planes> first;
        // The final 4096 repeats the first, so a difference there is a fault of `reset`.
        for (const int block : {maxFrames, 1, 7, 32, 256, maxFrames}) {
            processor->reset();
            Planes output = input;
            run(*processor, output, block);
            if (!first)
                first = output;
            else
                EXPECT_TRUE(output == *first) << "blocks of " << block;
        }
    });
}

TEST(EffectContract, OutputStaysFiniteAndMakesNoDenormals) {
    forEachCase([](const ContractRow& row, Format format) {
        const int frames = 2 * maxFrames;
        const Planes inputs[] = {silence(format.channels, frames),
                                 testing::noisePlanes(format.channels, frames, 7),
                                 impulse(format.channels, frames), denormals(format.channels, frames)};
        auto processor = prepared(row, format, row.settings);
        const auto latency = static_cast<size_t>(processor->latencyFrames());
        for (const Planes& input : inputs) {
            processor->reset();
            Planes output = input;
            run(*processor, output, 512);
            for (size_t c = 0; c < output.size(); ++c)
                for (size_t i = 0; i < output[c].size(); ++i) {
                    const float y = output[c][i];
                    ASSERT_TRUE(std::isfinite(y)) << "channel " << c << " frame " << i;
                    // A denormal may only be one the processor passed through as it was.
                    const bool passed = i >= latency && y == input[c][i - latency];
                    ASSERT_TRUE(std::fpclassify(y) != FP_SUBNORMAL || passed)
                        << "channel " << c << " frame " << i;
                }
        }
    });
}

// The one timing check: a processor must not slow down on denormals. The best of several
// repeats on each input keeps it steady; the factor is generous.
TEST(EffectContract, DenormalInputCostsNoMoreTime) {
    forEachCase([](const ContractRow& row, Format format) {
        auto processor = prepared(row, format, row.settings);
        const auto bestSeconds = [&](const Planes& input) {
            double best = 1e9;
            for (int repeat = 0; repeat < 7; ++repeat) {
                Planes signal = input;
                processor->reset();
                const auto start = std::chrono::steady_clock::now();
                run(*processor, signal, maxFrames);
                best = std::min(
                    best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
            }
            return best;
        };
        const double normal = bestSeconds(testing::noisePlanes(format.channels, 16 * maxFrames, 3));
        const double denormal = bestSeconds(denormals(format.channels, 16 * maxFrames));
        EXPECT_LT(denormal, 4 * normal + 1e-4) << normal << " s on noise, " << denormal << " s on denormals";
    });
}

TEST(EffectContract, LatencyAndTailAreHonest) {
    forEachCase([](const ContractRow& row, Format format) {
        auto dry = prepared(row, format, row.dryOnly ? row.dryOnly : row.settings);
        const int latency = dry->latencyFrames();
        Planes output = impulse(format.channels, latency + 2 * maxFrames);
        run(*dry, output, maxFrames);
        for (const auto& plane : output)
            EXPECT_EQ(std::max_element(plane.begin(), plane.end(), byMagnitude) - plane.begin(), latency)
                << "where the impulse's peak leaves";

        auto processor = prepared(row, format, row.tailOfDryOnly ? row.dryOnly : row.settings);
        const int64_t end = int64_t{processor->latencyFrames()} + processor->tailFrames() + 1;
        output = impulse(format.channels, static_cast<int>(end + 2 * maxFrames));
        run(*processor, output, maxFrames);
        for (const auto& plane : output) {
            const auto split = plane.begin() + end;
            const float peak = maxAbs(plane.begin(), split);
            const float after = maxAbs(split, plane.end());
            ASSERT_GT(peak, 0.0f);
            EXPECT_LE(after, peak * std::pow(10.0, row.tailFloorDB / 20))
                << "after latency " << processor->latencyFrames() << " and tail " << processor->tailFrames();
        }
    });
}

// The base's own guarantees, which let every processor's hook stay simple.
TEST(EffectContract, LongCallsAreCutAndChannelsBeyondThePreparedPassUnchanged) {
    testing::EchoProcessor echo(100);
    echo.prepare(48000, 2, 64); // its dry copy holds only 64 frames
    const Planes input = testing::noisePlanes(3, 1000, 9);
    Planes whole = input;
    run(echo, whole, 1000);
    echo.reset();
    Planes pieces = input;
    run(echo, pieces, 10);
    EXPECT_EQ(whole, pieces);
    EXPECT_EQ(whole[2], input[2]);
    EXPECT_NE(whole[1], input[1]);
}

#ifndef NDEBUG
TEST(EffectContractDeathTest, ProcessingBeforePrepareStops) {
    testing::SmoothingProcessor processor;
    Planes signal = silence(1, 8);
    EXPECT_DEATH(run(processor, signal, 8), "before it was prepared");
}
#endif

} // namespace
} // namespace harlune
