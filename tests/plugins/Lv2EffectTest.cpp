// The LV2 host against real plug-ins of the swh-lv2 package (skipped where it isn't installed)
// and against made-up bundles in a private search path.
#include "dsp/plugins/Lv2Effect.h"

#include "base/HarluneError.h"
#include "dsp/plugins/Lv2World.h"
#include "dsp/plugins/PluginEffect.h"
#include "support/AllocationCounter.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <numbers>
#include <thread>
#include <unistd.h>

namespace harlune {
namespace {

using Planes = std::vector<std::vector<float>>;

const PluginDescriptor amp{"http://plugin.org.uk/swh-plugins/amp", "Simple amplifier"};
const PluginDescriptor stereoToMidSide{"http://plugin.org.uk/swh-plugins/matrixStMS", "Matrix: Stereo to MS"};
const PluginDescriptor limiter{"http://plugin.org.uk/swh-plugins/fastLookaheadLimiter",
                               "Fast Lookahead limiter"};

bool isInstalled(const PluginDescriptor& descriptor) {
    const auto all = PluginEffect::installedPlugins();
    return std::ranges::find(all, descriptor.id, &PluginDescriptor::id) != all.end();
}

#define REQUIRE_SWH()                                                                                        \
    if (!isInstalled(amp))                                                                                   \
    GTEST_SKIP() << "swh-lv2 is not installed"

Planes sines(int channels, int frames) {
    Planes planes(static_cast<size_t>(channels), std::vector<float>(static_cast<size_t>(frames)));
    for (int c = 0; c < channels; ++c)
        for (int n = 0; n < frames; ++n)
            planes[static_cast<size_t>(c)][static_cast<size_t>(n)] = static_cast<float>(
                (0.2 + 0.1 * c) * std::sin(2 * std::numbers::pi * (220.0 + 330.0 * c) * n / 48000));
    return planes;
}

// Runs the effect over the planes in place, in pieces of `piece` frames; counts allocations.
int64_t run(PluginEffect& effect, Planes& planes, int piece = 256) {
    std::vector<float*> pointers;
    for (auto& plane : planes)
        pointers.push_back(plane.data());
    const int frames = static_cast<int>(planes.front().size());
    const testing::AllocationCounter counter;
    for (int start = 0; start < frames; start += piece)
        effect.process(ChannelSpan(pointers, std::min(piece, frames - start), start));
    return counter.count();
}

double gainDB(const std::vector<float>& input, const std::vector<float>& output) {
    double in = 0, out = 0;
    for (size_t n = 0; n < input.size(); ++n) {
        in += double(input[n]) * input[n];
        out += double(output[n]) * output[n];
    }
    return 10 * std::log10(out / in);
}

const double doubling = 20 * std::log10(2.0);

TEST(Lv2EffectTest, FindsTheAmplifierAndListsEffectsByName) {
    REQUIRE_SWH();
    const auto all = PluginEffect::installedPlugins();
    const auto found = std::ranges::find(all, amp.id, &PluginDescriptor::id);
    ASSERT_NE(found, all.end());
    EXPECT_EQ(found->name, amp.name);
    const auto lower = [](std::string s) {
        std::ranges::transform(s, s.begin(), [](unsigned char c) { return std::tolower(c); });
        return s;
    };
    for (size_t i = 1; i < all.size(); ++i)
        EXPECT_LE(lower(all[i - 1].name), lower(all[i].name)) << all[i].id;
}

TEST(Lv2EffectTest, AmplifierDoublesAndDescribesItsControl) {
    REQUIRE_SWH();
    const auto effect = PluginEffect::instantiate(amp);
    ASSERT_EQ(effect->parameters().size(), 1u);
    const PluginParameter& gain = effect->parameters()[0];
    EXPECT_EQ(gain.symbol, "gain");
    EXPECT_FLOAT_EQ(gain.minimum, -70);
    EXPECT_FLOAT_EQ(gain.maximum, 70);
    EXPECT_FLOAT_EQ(gain.defaultValue, 0);
    EXPECT_FALSE(gain.isToggle || gain.isInteger);
    EXPECT_EQ(effect->latencyFrames(), 0);
    EXPECT_EQ(effect->tailFrames(), 0);

    effect->setParameter("gain", static_cast<float>(doubling));
    effect->prepare(48000, 1, 512);
    const Planes input = sines(1, 4000);
    Planes output = input;
    EXPECT_EQ(run(*effect, output, 700), 0); // pieces longer than maxFrames are cut by the base
    EXPECT_NEAR(gainDB(input[0], output[0]), doubling, 0.01);
}

TEST(Lv2EffectTest, MatchesChannelsToPorts) {
    REQUIRE_SWH();
    // A mono plug-in on stereo: one instance per channel, no crosstalk.
    const auto mono = PluginEffect::instantiate(amp);
    mono->setParameter("gain", static_cast<float>(doubling));
    mono->prepare(48000, 2, 512);
    EXPECT_EQ(dynamic_cast<Lv2Effect&>(*mono).instanceCount(), 2);
    const Planes input = sines(2, 2048);
    Planes output = input;
    EXPECT_EQ(run(*mono, output), 0);
    for (size_t c = 0; c < 2; ++c)
        for (size_t n = 0; n < input[c].size(); ++n)
            ASSERT_NEAR(output[c][n], 2 * input[c][n], 1e-5) << c << " " << n;

    // A stereo plug-in on stereo runs once, with both channels on its ports in order.
    const auto matrix = PluginEffect::instantiate(stereoToMidSide);
    matrix->prepare(48000, 2, 512);
    EXPECT_EQ(dynamic_cast<Lv2Effect&>(*matrix).instanceCount(), 1);
    output = input;
    run(*matrix, output);
    for (size_t n = 0; n < input[0].size(); ++n) {
        ASSERT_NEAR(output[0][n], (input[0][n] + input[1][n]) / 2, 1e-6) << n;
        ASSERT_NEAR(output[1][n], (input[0][n] - input[1][n]) / 2, 1e-6) << n;
    }

    // On mono, both inputs hear the channel and the first output comes back: mid = the input.
    matrix->prepare(48000, 1, 512);
    Planes single = sines(1, 1024);
    const Planes original = single;
    run(*matrix, single);
    for (size_t n = 0; n < original[0].size(); ++n)
        ASSERT_NEAR(single[0][n], original[0][n], 1e-6) << n;
}

TEST(Lv2EffectTest, NewRateMakesNewInstancesAndKeepsControls) {
    REQUIRE_SWH();
    // The limiter looks ahead 5 ms, which it reports as latency in frames of its own rate.
    const auto effect = PluginEffect::instantiate(limiter);
    effect->setParameter("ingain", -6);
    effect->prepare(48000, 2, 512);
    EXPECT_EQ(effect->latencyFrames(), 240);
    effect->prepare(96000, 2, 512);
    EXPECT_EQ(effect->latencyFrames(), 480);
    EXPECT_FLOAT_EQ(dynamic_cast<Lv2Effect&>(*effect).parameterValue("ingain"), -6);

    // Quiet enough not to be limited: the output is the input, 6 dB down, 480 frames late.
    const Planes input = sines(2, 3000);
    Planes output = input;
    run(*effect, output);
    const float down = std::pow(10.0f, -6.0f / 20);
    for (size_t c = 0; c < 2; ++c)
        for (size_t n = 480; n < input[c].size(); ++n)
            ASSERT_NEAR(output[c][n], down * input[c][n - 480], 1e-4) << c << " " << n;

    // Bounds given as fractions of the rate follow it; the value stays in Hz.
    const auto equaliser =
        PluginEffect::instantiate({"http://plugin.org.uk/swh-plugins/singlePara", "Single band parametric"});
    const auto centre = [&] {
        return *std::ranges::find(equaliser->parameters(), std::string("fc"), &PluginParameter::symbol);
    };
    EXPECT_FLOAT_EQ(centre().maximum, 0.4f * 48000);
    EXPECT_FLOAT_EQ(centre().defaultValue, 440);
    equaliser->setParameter("fc", 30000);
    equaliser->prepare(96000, 1, 256);
    EXPECT_FLOAT_EQ(centre().maximum, 0.4f * 96000);
    EXPECT_FLOAT_EQ(dynamic_cast<Lv2Effect&>(*equaliser).parameterValue("fc"), 0.4f * 48000);
    equaliser->setParameter("fc", 30000);
    EXPECT_FLOAT_EQ(dynamic_cast<Lv2Effect&>(*equaliser).parameterValue("fc"), 30000);
    equaliser->prepare(44100, 1, 256);
    EXPECT_FLOAT_EQ(dynamic_cast<Lv2Effect&>(*equaliser).parameterValue("fc"), 0.4f * 44100);

    // The amplifier, too, keeps its gain across a change of rate.
    const auto gain = PluginEffect::instantiate(amp);
    gain->setParameter("gain", static_cast<float>(doubling));
    gain->prepare(48000, 1, 256);
    gain->prepare(44100, 1, 256);
    Planes amplified = sines(1, 1000);
    run(*gain, amplified);
    EXPECT_NEAR(gainDB(sines(1, 1000)[0], amplified[0]), doubling, 0.01);
}

TEST(Lv2EffectTest, StateRoundTripsAndBadStateIsRefused) {
    REQUIRE_SWH();
    const auto first = PluginEffect::instantiate(limiter);
    first->setParameter("ingain", 3.5f);
    first->setParameter("release", 1e9f); // clamped to the port's maximum
    const auto state = first->stateData();
    ASSERT_TRUE(state);
    const auto json = nlohmann::json::parse(*state);
    EXPECT_FLOAT_EQ(json.at("ingain").get<float>(), 3.5f);
    const auto release =
        std::ranges::find(first->parameters(), std::string("release"), &PluginParameter::symbol);
    EXPECT_FLOAT_EQ(json.at("release").get<float>(), release->maximum);
    EXPECT_EQ(json.size(), first->parameters().size());

    const auto second = PluginEffect::instantiate(limiter);
    second->restoreState(R"({"ingain": 3.5, "unknown": 4})");
    second->restoreState(*state);
    EXPECT_EQ(second->stateData(), state);

    for (const char* bad : {"[1, 2]", "not json", R"({"ingain": "loud"})"}) {
        try {
            second->restoreState(bad);
            ADD_FAILURE() << bad;
        } catch (const HarluneError& error) {
            EXPECT_NE(std::string(error.what()).find("Fast Lookahead limiter"), std::string::npos)
                << error.what();
        }
    }
    EXPECT_EQ(second->stateData(), state) << "a refused state leaves the values alone";
}

TEST(Lv2EffectTest, ControlChangesWhileRunningArriveWholeAndAllocateNothing) {
    REQUIRE_SWH();
    const auto effect = PluginEffect::instantiate(amp);
    effect->prepare(48000, 1, 64);
    const std::array<float, 2> gains{-6, 12};
    std::atomic<bool> done{false};
    std::atomic<int64_t> allocations{0};
    std::atomic<int> badBlocks{0};
    std::thread audio([&] {
        std::vector<float> block(64);
        float* pointer = block.data();
        const testing::AllocationCounter counter;
        for (int i = 0; i < 20000 && !done.load(); ++i) {
            std::ranges::fill(block, 1.0f);
            effect->process(ChannelSpan({&pointer, 1}, 64));
            const float level = block[0];
            const bool known =
                std::ranges::any_of(
                    gains, [&](float g) { return std::abs(level - std::pow(10.0f, g / 20)) < 1e-4f; }) ||
                level == 1.0f;
            if (!known || std::ranges::any_of(block, [&](float x) { return x != level; }))
                badBlocks.fetch_add(1);
        }
        allocations.store(counter.count());
    });
    for (int i = 0; i < 5000; ++i) {
        effect->setParameter("gain", gains[static_cast<size_t>(i % 2)]);
        effect->restoreState(i % 3 ? R"({"gain": 12})" : R"({"gain": -6})");
    }
    effect->setParameter("gain", 12);
    done.store(true);
    audio.join();
    EXPECT_EQ(badBlocks.load(), 0);
    EXPECT_EQ(allocations.load(), 0);

    // The last value is what runs once the writer has stopped.
    std::vector<float> block(64, 1.0f);
    float* pointer = block.data();
    effect->process(ChannelSpan({&pointer, 1}, 64));
    EXPECT_NEAR(block[0], std::pow(10.0f, 12.0f / 20), 1e-4);
}

// Whatever is installed either runs (allocation-free, on mono and stereo, after a reset) or is
// refused with a reason.
TEST(Lv2EffectTest, EveryListedPluginRunsOrIsRefused) {
    REQUIRE_SWH();
    int running = 0;
    for (const PluginDescriptor& descriptor : PluginEffect::installedPlugins()) {
        SCOPED_TRACE(descriptor.id);
        std::shared_ptr<PluginEffect> effect;
        try {
            effect = PluginEffect::instantiate(descriptor);
        } catch (const HarluneError& error) {
            EXPECT_NE(std::string(error.what()).find(descriptor.name), std::string::npos) << error.what();
            continue;
        }
        for (const int channels : {1, 2}) {
            effect->prepare(44100, channels, 512);
            effect->reset();
            Planes signal = sines(channels, 1500);
            EXPECT_EQ(run(*effect, signal), 0);
        }
        EXPECT_GE(effect->latencyFrames(), 0);
        ++running;
    }
    EXPECT_GT(running, 0);
}

TEST(Lv2EffectTest, AbsentPluginIsAClearError) {
    for (const char* uri : {"http://example.invalid/no-such-plugin", "not a uri at all", ""}) {
        try {
            PluginEffect::instantiate({uri, "Nothing"});
            ADD_FAILURE() << uri;
        } catch (const HarluneError& error) {
            EXPECT_NE(std::string(error.what()).find("isn\u2019t installed"), std::string::npos)
                << error.what();
        }
    }
}

// A search path of made-up bundles: one that is not Turtle at all, one whose library is missing,
// one that needs a host feature, and one with an event port.
class PrivatePathTest : public ::testing::Test {
protected:
    void SetUp() override {
        root_ = std::filesystem::temp_directory_path() / ("harlune-lv2-" + std::to_string(::getpid()));
        std::filesystem::remove_all(root_);
        write("broken.lv2/manifest.ttl",
              "@prefix lv2: <http://lv2plug.in/ns/lv2core#> .\n<urn:x> a lv2:Plugin ;;; [[[");
        writeBundle("hollow", "");
        writeBundle("needy", "lv2:requiredFeature <http://lv2plug.in/ns/ext/worker#schedule> ;");
        writeBundle("chatty",
                    "lv2:port [ a lv2:InputPort, <http://lv2plug.in/ns/ext/atom#AtomPort> ; lv2:index 2 ;"
                    " lv2:symbol \"events\" ; lv2:name \"Events\" ] ;");
    }
    void TearDown() override { std::filesystem::remove_all(root_); }

    void write(const std::string& relative, const std::string& text) {
        const auto path = root_ / relative;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path) << text;
    }

    void writeBundle(const std::string& name, const std::string& extra) {
        const std::string prefixes = "@prefix lv2: <http://lv2plug.in/ns/lv2core#> .\n"
                                     "@prefix doap: <http://usefulinc.com/ns/doap#> .\n"
                                     "@prefix rdfs: <http://www.w3.org/2000/01/rdf-schema#> .\n";
        write(name + ".lv2/manifest.ttl", prefixes + "<urn:harlune:test:" + name +
                                              "> a lv2:Plugin ;\n lv2:binary <" + name +
                                              ".so> ;\n rdfs:seeAlso <plugin.ttl> .\n");
        write(name + ".lv2/plugin.ttl", prefixes + "<urn:harlune:test:" + name +
                                            "> a lv2:Plugin ;\n doap:name \"" + name + "\" ;\n" + extra +
                                            "\n lv2:port [ a lv2:InputPort, lv2:AudioPort ; lv2:index 0 ; "
                                            "lv2:symbol \"in\" ; lv2:name \"In\" ] ,"
                                            "\n [ a lv2:OutputPort, lv2:AudioPort ; lv2:index 1 ; lv2:symbol "
                                            "\"out\" ; lv2:name \"Out\" ] .\n");
        write(name + ".lv2/" + name + ".so", "not a library");
    }

    std::filesystem::path root_;
};

TEST_F(PrivatePathTest, BrokenBundlesAreSurvivedAndRefusedWithAReason) {
    const auto world = std::make_shared<Lv2World>(root_.string());
    const auto found = world->installedPlugins();
    std::vector<std::string> names;
    for (const auto& descriptor : found)
        names.push_back(descriptor.name);
    EXPECT_EQ(names, (std::vector<std::string>{"chatty", "hollow", "needy"}));

    const auto refusal = [&](const std::string& name) -> std::string {
        try {
            instantiateLv2Effect(world, {"urn:harlune:test:" + name, name});
        } catch (const HarluneError& error) {
            return error.what();
        }
        return "no error";
    };
    EXPECT_NE(refusal("hollow").find("\u201Chollow\u201D couldn\u2019t be loaded"), std::string::npos)
        << refusal("hollow");
    EXPECT_NE(refusal("needy").find("worker#schedule"), std::string::npos) << refusal("needy");
    EXPECT_NE(refusal("chatty").find("can\u2019t feed: events"), std::string::npos) << refusal("chatty");
    EXPECT_NE(refusal("broken").find("isn\u2019t installed"), std::string::npos) << refusal("broken");
}

} // namespace
} // namespace harlune
