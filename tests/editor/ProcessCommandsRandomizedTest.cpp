// Process and envelope commands mixed with edits, undo and redo, and cancelled jobs, checked
// step by step against plain arrays edited the obvious way.

#include "editor/EditorModel.h"
#include "editor/EditorTestSupport.h"
#include "support/TestAudio.h"

#include <QUndoStack>
#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <string>

namespace harlune {
namespace {

using testing::Planes;

struct Reference {
    Planes audio;
    std::optional<FrameRange> selection;
    ChannelSet active;
    std::vector<double> trims; ///< dB per channel

    int channels() const { return static_cast<int>(audio.size()); }
    int64_t frames() const { return static_cast<int64_t>(audio.front().size()); }
    FrameRange scope() const { return selection.value_or(FrameRange{0, frames()}); }

    template <class Change> void eachActive(Change&& change) {
        const FrameRange range = scope();
        for (const int c : active)
            change(audio[static_cast<size_t>(c)], range);
    }
};

TEST(ProcessCommandsRandomized, MixedCommandsMatchPlainArrays) {
    testing::clearPreferences();
    std::mt19937_64 random(20261126);
    auto pick = [&random](int64_t lo, int64_t hi) {
        return std::uniform_int_distribution<int64_t>(lo, hi)(random);
    };
    std::uniform_real_distribution<float> sample(-0.8f, 0.8f);

    Reference ref;
    ref.audio.assign(2, std::vector<float>(1500));
    for (auto& plane : ref.audio)
        for (float& v : plane)
            v = sample(random);
    ref.active = {0, 1};
    ref.trims = {0, 0};

    EditorModel model(AudioContent(ref.audio, 48000), std::nullopt);
    QUndoStack stack;
    model.setUndoManager(&stack);
    std::vector<std::string> errors;
    model.setPresentError([&](const std::exception& e) { errors.emplace_back(e.what()); });

    std::vector<Reference> undo, redo;
    std::map<std::string, int> done;
    std::string what;
    const auto committed = [&](const Reference& before) {
        undo.push_back(before);
        redo.clear();
        ++done[what];
    };
    const auto finish = [&] {
        ASSERT_TRUE(QTest::qWaitFor([&] { return !model.busy(); }, 20000));
        QCoreApplication::processEvents();
    };

    for (int step = 0; step < 3000; ++step) {
        const Reference before = ref;
        const int64_t frames = ref.frames();
        switch (pick(0, 13)) {
        case 0:
        case 1: {
            what = "select";
            std::optional<FrameRange> range;
            if (pick(0, 4) > 0) {
                const int64_t a = pick(0, frames), b = pick(0, frames);
                range = FrameRange{std::min(a, b), std::max(a, b)};
            }
            ChannelSet channels = allChannels(ref.channels());
            if (pick(0, 2) == 0)
                channels = {static_cast<int>(pick(0, 1))};
            model.setSelection(range, channels);
            ref.selection = range && !range->isEmpty() ? range : std::nullopt;
            ref.active = channels;
            break;
        }
        case 2: {
            what = "gain";
            const double db = static_cast<double>(pick(-120, 60)) / 10;
            model.applyGain(db);
            finish();
            const auto gain = static_cast<float>(std::pow(10.0, db / 20));
            ref.eachActive([&](std::vector<float>& p, FrameRange r) {
                for (int64_t i = r.lower; i < r.upper; ++i)
                    p[static_cast<size_t>(i)] *= gain;
            });
            committed(before);
            break;
        }
        case 3: {
            what = "invert or reverse";
            const bool invert = pick(0, 1) == 1;
            invert ? model.invert() : model.reverse();
            finish();
            ref.eachActive([&](std::vector<float>& p, FrameRange r) {
                if (invert)
                    for (int64_t i = r.lower; i < r.upper; ++i)
                        p[static_cast<size_t>(i)] = -p[static_cast<size_t>(i)];
                else if (r.length() >= 2)
                    std::reverse(p.begin() + r.lower, p.begin() + r.upper);
            });
            committed(before);
            break;
        }
        case 4: {
            what = "silence";
            model.silence();
            finish();
            if (!ref.selection)
                break;
            ref.eachActive([](std::vector<float>& p, FrameRange r) {
                std::fill(p.begin() + r.lower, p.begin() + r.upper, 0.0f);
            });
            committed(before);
            break;
        }
        case 5: {
            what = "remove DC or normalize";
            const bool dc = pick(0, 1) == 1;
            dc ? model.removeDC() : model.normalizePeak(-1, false);
            finish();
            if (dc) {
                ref.eachActive([](std::vector<float>& p, FrameRange r) {
                    if (r.isEmpty())
                        return;
                    double mean = 0;
                    for (int64_t i = r.lower; i < r.upper; ++i)
                        mean += p[static_cast<size_t>(i)];
                    mean /= static_cast<double>(r.length());
                    for (int64_t i = r.lower; i < r.upper; ++i)
                        p[static_cast<size_t>(i)] = static_cast<float>(p[static_cast<size_t>(i)] - mean);
                });
            } else {
                float peak = 0;
                ref.eachActive([&](std::vector<float>& p, FrameRange r) {
                    for (int64_t i = r.lower; i < r.upper; ++i)
                        peak = std::max(peak, std::abs(p[static_cast<size_t>(i)]));
                });
                if (peak > 0) {
                    const auto gain = static_cast<float>(std::pow(10.0, -1.0 / 20) / peak);
                    ref.eachActive([&](std::vector<float>& p, FrameRange r) {
                        for (int64_t i = r.lower; i < r.upper; ++i)
                            p[static_cast<size_t>(i)] *= gain;
                    });
                }
            }
            committed(before);
            break;
        }
        case 6: {
            what = "swap";
            model.swapChannels();
            std::swap(ref.audio[0], ref.audio[1]);
            committed(before);
            break;
        }
        case 7: { // a trim drag: live writes, then one step
            what = "trim drag";
            const EnvelopeSet original = model.envelopes();
            const int channel = static_cast<int>(pick(0, 1));
            double value = 0;
            for (int64_t moves = pick(0, 3); moves > 0; --moves) {
                value = static_cast<double>(pick(-60, 60)) / 10;
                EnvelopeSet live = model.envelopes();
                live.setTrim(channel, value, 2);
                model.setEnvelopes(live);
            }
            model.endChannelTrimEdit(original);
            if (model.envelopes() == original)
                break;
            ref.trims[static_cast<size_t>(channel)] = value;
            committed(before);
            break;
        }
        case 8: {
            what = "apply envelope";
            const bool flat =
                std::all_of(ref.trims.begin(), ref.trims.end(), [](double t) { return t == 0; });
            const bool empty = model.envelopes().isEmpty();
            model.applyEnvelope();
            finish();
            if (flat && empty)
                break;
            for (size_t c = 0; c < 2; ++c) {
                const auto gain = static_cast<float>(std::pow(10.0, ref.trims[c] / 20));
                if (ref.trims[c] != 0)
                    for (float& v : ref.audio[c])
                        v *= gain;
            }
            ref.trims = {0, 0};
            committed(before);
            break;
        }
        case 9: {
            what = "delete";
            model.deleteNamed(QStringLiteral("Delete"));
            if (!ref.selection || ref.active != allChannels(2)) {
                if (ref.selection) { // restricted: silences instead
                    ref.eachActive([](std::vector<float>& p, FrameRange r) {
                        std::fill(p.begin() + r.lower, p.begin() + r.upper, 0.0f);
                    });
                    committed(before);
                }
                break;
            }
            const FrameRange r = *ref.selection;
            for (auto& p : ref.audio)
                p.erase(p.begin() + r.lower, p.begin() + r.upper);
            ref.selection.reset();
            committed(before);
            break;
        }
        case 10: {
            what = "insert silence";
            const int64_t n = pick(1, 300);
            model.insertSilence(n);
            const int64_t at = ref.selection ? ref.selection->lower : model.selection()->lower;
            for (auto& p : ref.audio)
                p.insert(p.begin() + at, static_cast<size_t>(n), 0.0f);
            ref.selection = FrameRange{at, at + n};
            committed(before);
            break;
        }
        case 11: {
            what = "cancelled gain";
            model.applyGain(6);
            if (model.busy())
                model.busy()->token->cancel();
            finish();
            break;
        }
        case 12:
            what = "undo";
            stack.undo();
            if (!undo.empty()) {
                redo.push_back(ref);
                ref = undo.back();
                undo.pop_back();
            }
            break;
        case 13:
            what = "redo";
            stack.redo();
            if (!redo.empty()) {
                undo.push_back(ref);
                ref = redo.back();
                redo.pop_back();
            }
            break;
        }
        if (ref.selection) {
            const FrameRange clamped = ref.selection->clamped({0, ref.frames()});
            ref.selection = clamped.isEmpty() ? std::nullopt : std::optional(clamped);
        }

        SCOPED_TRACE("step " + std::to_string(step) + ": " + what);
        ASSERT_TRUE(errors.empty()) << errors.front();
        const Planes audio = testing::planesOf(model.content());
        ASSERT_EQ(audio.size(), ref.audio.size());
        for (size_t c = 0; c < audio.size(); ++c) {
            ASSERT_EQ(audio[c].size(), ref.audio[c].size());
            for (size_t i = 0; i < audio[c].size(); ++i)
                ASSERT_NEAR(audio[c][i], ref.audio[c][i], 2e-5f + 2e-5f * std::abs(ref.audio[c][i]))
                    << "channel " << c << " frame " << i;
        }
        ASSERT_EQ(model.selection(), ref.selection);
        ASSERT_EQ(model.activeChannels(), ref.active);
        for (int c = 0; c < 2; ++c)
            ASSERT_NEAR(model.envelopes().trim(c), ref.trims[static_cast<size_t>(c)], 1e-12) << c;
        ASSERT_EQ(stack.index(), static_cast<int>(undo.size()));
        ASSERT_EQ(stack.count(), static_cast<int>(undo.size() + redo.size()));
    }
    for (const char* kind : {"gain", "invert or reverse", "silence", "remove DC or normalize", "swap",
                             "trim drag", "apply envelope", "delete", "insert silence"})
        EXPECT_GT(done[kind], 40) << kind;
}

} // namespace
} // namespace harlune
