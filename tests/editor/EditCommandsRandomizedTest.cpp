// Thousands of mixed commands on a model, checked step by step against a plain model of the
// same document on std::vector<float> and a list of markers; and the memory a long session of
// cuts and pastes keeps alive.

#include "core/AudioBlock.h"
#include "core/AudioContentBuilder.h"
#include "editor/EditorModel.h"
#include "editor/EditorTestSupport.h"
#include "support/TestAudio.h"

#include <QUndoStack>
#include <algorithm>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <string>

namespace harlune {
namespace {

using testing::Planes;

int64_t framesOf(const Planes& planes) {
    return planes.empty() ? 0 : static_cast<int64_t>(planes.front().size());
}

void stableSortByFrame(std::vector<Marker>& list) {
    std::stable_sort(list.begin(), list.end(),
                     [](const Marker& a, const Marker& b) { return a.frame < b.frame; });
}

/// The document as plain arrays, edited the obvious way.
struct Reference {
    Planes audio;
    std::vector<Marker> markers;
    std::optional<FrameRange> selection;
    int64_t cursor = 0;
    ChannelSet active;

    int channels() const { return static_cast<int>(audio.size()); }
    int64_t frames() const { return framesOf(audio); }
    bool restricted() const { return active != allChannels(channels()); }

    // What restoring a state does to the positions.
    void settle() {
        if (selection) {
            const FrameRange clamped = selection->clamped({0, frames()});
            selection = clamped.isEmpty() ? std::nullopt : std::optional<FrameRange>(clamped);
        }
        cursor = std::min(cursor, frames());
    }

    void moveMarkers(FrameRange range, int64_t newLength) {
        std::vector<Marker> result;
        for (Marker marker : markers) {
            if (marker.frame >= range.upper)
                marker.frame += newLength - range.length();
            else if (marker.frame >= range.lower && newLength == 0)
                continue;
            result.push_back(marker);
        }
        markers = result;
    }

    void replace(FrameRange range, const Planes& with) {
        for (size_t c = 0; c < audio.size(); ++c) {
            auto& plane = audio[c];
            plane.erase(plane.begin() + range.lower, plane.begin() + range.upper);
            plane.insert(plane.begin() + range.lower, with[c].begin(), with[c].end());
        }
    }
};

/// A clip brought to `channels`: fewer by the mean of d, d + n...; more by repeating.
Planes conformed(const Planes& clip, int channels) {
    const auto n = static_cast<size_t>(channels);
    if (clip.size() == n)
        return clip;
    Planes result(n);
    for (size_t d = 0; d < n; ++d) {
        if (clip.size() > n) {
            std::vector<float> mix = clip[d];
            int count = 1;
            for (size_t s = d + n; s < clip.size(); s += n, ++count)
                for (size_t i = 0; i < mix.size(); ++i)
                    mix[i] += clip[s][i];
            for (float& value : mix)
                value *= 1.0f / static_cast<float>(count);
            result[d] = mix;
        } else {
            result[d] = clip[d % clip.size()];
        }
    }
    return result;
}

class EditCommandsRandomizedTest : public ::testing::Test {
protected:
    void SetUp() override { testing::clearPreferences(); }
};

TEST_F(EditCommandsRandomizedTest, MixedCommandsMatchAPlainModel) {
    std::mt19937_64 random(20261122);
    std::uniform_real_distribution<float> sampleValue(-1.0f, 1.0f);
    auto pick = [&random](int64_t lo, int64_t hi) { // inclusive
        return std::uniform_int_distribution<int64_t>(lo, hi)(random);
    };

    Reference ref;
    ref.audio.assign(2, std::vector<float>(3000));
    for (auto& plane : ref.audio)
        for (float& value : plane)
            value = sampleValue(random);
    ref.active = {0, 1};
    const AudioContent original(ref.audio, 48000);

    auto model = std::make_unique<EditorModel>(original, std::nullopt);
    QUndoStack stack;
    model->setUndoManager(&stack);

    std::vector<Reference> undo;
    std::vector<Reference> redo;
    std::optional<Planes> clipboard;
    std::map<std::string, int> steps; // commands that made an undo step, by kind
    std::string what;
    int64_t longest = 0;
    const auto committed = [&](const Reference& before) {
        undo.push_back(before);
        redo.clear();
        ++steps[what];
    };

    const auto check = [&](int step, const std::string& command) {
        SCOPED_TRACE("step " + std::to_string(step) + ": " + command);
        ASSERT_EQ(model->content().channelCount(), ref.channels());
        ASSERT_EQ(model->content().frameCount(), ref.frames());
        const Planes audio = testing::planesOf(model->content());
        for (size_t c = 0; c < audio.size(); ++c)
            for (size_t i = 0; i < audio[c].size(); ++i)
                ASSERT_NEAR(audio[c][i], ref.audio[c][i], 1e-6f) << "channel " << c << " frame " << i;
        ASSERT_EQ(model->markers(), ref.markers);
        ASSERT_EQ(model->selection(), ref.selection);
        ASSERT_EQ(model->cursor(), ref.cursor);
        ASSERT_EQ(model->activeChannels(), ref.active);
        ASSERT_EQ(stack.count(), static_cast<int>(undo.size() + redo.size()));
        ASSERT_EQ(stack.index(), static_cast<int>(undo.size()));
        const auto& clip = model->clipboard().content();
        ASSERT_EQ(clip ? std::optional(testing::planesOf(*clip)) : std::nullopt, clipboard);
    };

    const auto randomMarkerId = [&]() {
        if (ref.markers.empty() || pick(0, 9) == 0)
            return Uuid::random();
        return ref.markers[static_cast<size_t>(pick(0, static_cast<int64_t>(ref.markers.size()) - 1))].id;
    };

    for (int step = 0; step < 4000; ++step) {
        const Reference before = ref;
        const int64_t frames = ref.frames();
        longest = std::max(longest, frames);
        switch (pick(0, 15)) {
        case 0:
        case 1: { // select, sometimes on one channel only
            what = "select";
            std::optional<FrameRange> range;
            if (pick(0, 5) > 0) {
                const int64_t a = pick(-20, frames + 20);
                const int64_t b = pick(-20, frames + 20);
                range = FrameRange{std::min(a, b), std::max(a, b)};
            }
            ChannelSet channels = allChannels(ref.channels());
            if (ref.channels() == 2 && pick(0, 2) == 0)
                channels = {static_cast<int>(pick(0, 1))};
            model->setSelection(range, channels);
            ref.selection = range ? std::optional(range->clamped({0, frames})) : std::nullopt;
            if (ref.selection && ref.selection->isEmpty())
                ref.selection.reset();
            ref.active = channels;
            if (ref.selection)
                ref.cursor = ref.selection->lower;
            break;
        }
        case 2: {
            what = "cursor";
            const int64_t at = pick(0, frames);
            model->setCursor(at);
            ref.cursor = at;
            break;
        }
        case 3: {
            what = "copy";
            model->copy();
            if (ref.selection) {
                Planes clip;
                for (const int c : ref.active) {
                    const auto& plane = ref.audio[static_cast<size_t>(c)];
                    clip.emplace_back(plane.begin() + ref.selection->lower,
                                      plane.begin() + ref.selection->upper);
                }
                clipboard = clip;
            }
            break;
        }
        case 4: {
            what = "delete";
            model->deleteNamed(pick(0, 1) ? QStringLiteral("Cut") : QStringLiteral("Delete"));
            if (!ref.selection)
                break;
            const FrameRange range = *ref.selection;
            if (ref.restricted()) {
                for (const int c : ref.active)
                    std::fill(ref.audio[static_cast<size_t>(c)].begin() + range.lower,
                              ref.audio[static_cast<size_t>(c)].begin() + range.upper, 0.0f);
            } else {
                ref.replace(range, Planes(ref.audio.size()));
                ref.moveMarkers(range, 0);
                ref.selection.reset();
                ref.cursor = range.lower;
            }
            committed(before);
            break;
        }
        case 5: {
            what = "trim";
            model->trimToSelection();
            if (!ref.selection)
                break;
            const FrameRange range = *ref.selection;
            for (auto& plane : ref.audio)
                plane = std::vector<float>(plane.begin() + range.lower, plane.begin() + range.upper);
            std::vector<Marker> kept;
            for (Marker marker : ref.markers)
                if (range.contains(marker.frame)) {
                    marker.frame -= range.lower;
                    kept.push_back(marker);
                }
            ref.markers = kept;
            ref.selection.reset();
            ref.cursor = 0;
            committed(before);
            break;
        }
        case 6:
        case 7: {
            what = "paste";
            model->paste();
            if (!clipboard || clipboard->front().empty())
                break;
            const int64_t n = framesOf(*clipboard);
            if (frames == 0) {
                ref.audio = *clipboard;
                ref.selection = FrameRange{0, n};
                ref.active = allChannels(ref.channels());
            } else {
                const FrameRange range = ref.selection.value_or(FrameRange{ref.cursor, ref.cursor});
                ref.replace(range, conformed(*clipboard, ref.channels()));
                ref.moveMarkers(range, n);
                ref.selection = FrameRange{range.lower, range.lower + n};
            }
            committed(before);
            break;
        }
        case 8: {
            what = "paste mix";
            model->pasteMix();
            if (!clipboard || clipboard->front().empty() || frames == 0)
                break;
            const int64_t at = ref.selection ? ref.selection->lower : ref.cursor;
            const Planes clip = conformed(*clipboard, ref.channels());
            const int64_t n = framesOf(clip);
            const int64_t length = std::max(frames, at + n);
            for (size_t c = 0; c < ref.audio.size(); ++c) {
                auto& plane = ref.audio[c];
                plane.resize(static_cast<size_t>(length), 0.0f);
                for (int64_t i = 0; i < n; ++i)
                    plane[static_cast<size_t>(at + i)] =
                        clip[c][static_cast<size_t>(i)] + plane[static_cast<size_t>(at + i)];
            }
            ref.selection = FrameRange{at, at + n};
            committed(before);
            break;
        }
        case 9: {
            what = "insert silence";
            const int64_t n = pick(0, 3) == 0 ? 0 : pick(1, 400);
            model->insertSilence(n);
            if (n == 0)
                break;
            const int64_t at = ref.selection ? ref.selection->lower : ref.cursor;
            ref.replace({at, at}, Planes(ref.audio.size(), std::vector<float>(static_cast<size_t>(n))));
            ref.moveMarkers({at, at}, n);
            ref.selection = FrameRange{at, at + n};
            committed(before);
            break;
        }
        case 10: {
            what = "add marker";
            const std::optional<int64_t> at = pick(0, 1) ? std::optional(pick(0, frames)) : std::nullopt;
            model->addMarker(at);
            Marker marker;
            marker.frame = at ? *at : ref.selection ? ref.selection->lower : ref.cursor;
            marker.name = QStringLiteral("Marker %1").arg(ref.markers.size() + 1);
            // The identity is the model's own; everything else is predicted.
            for (const Marker& made : model->markers())
                if (std::none_of(ref.markers.begin(), ref.markers.end(),
                                 [&](const Marker& known) { return known.id == made.id; }))
                    marker.id = made.id;
            ref.markers.push_back(marker);
            stableSortByFrame(ref.markers);
            committed(before);
            break;
        }
        case 11: {
            what = "remove marker";
            const Uuid id = randomMarkerId();
            model->removeMarker(id);
            if (std::erase_if(ref.markers, [&](const Marker& m) { return m.id == id; }) > 0) {
                stableSortByFrame(ref.markers);
                committed(before);
            }
            break;
        }
        case 12: {
            what = "move or rename marker";
            const Uuid id = randomMarkerId();
            const auto found = std::find_if(ref.markers.begin(), ref.markers.end(),
                                            [&](const Marker& m) { return m.id == id; });
            if (pick(0, 1)) {
                const int64_t to = pick(-50, frames + 50);
                model->moveMarker(id, to, true);
                if (found != ref.markers.end()) {
                    found->frame = std::clamp<int64_t>(to, 0, frames);
                    stableSortByFrame(ref.markers);
                    committed(before);
                }
            } else {
                const QString name = pick(0, 1) ? QStringLiteral("Verse") : QStringLiteral("Chorus");
                model->renameMarker(id, name);
                if (found != ref.markers.end() && found->name != name) {
                    found->name = name;
                    stableSortByFrame(ref.markers);
                    committed(before);
                }
            }
            break;
        }
        case 13: { // a drag: live moves without undo, then one step
            what = "drag marker";
            const std::vector<Marker> dragStart = model->markers();
            const Uuid id = randomMarkerId();
            std::vector<Marker> live = ref.markers;
            for (int64_t move = pick(0, 4); move > 0; --move) {
                const int64_t to = pick(-10, frames + 10);
                model->moveMarker(id, to, false);
                for (Marker& m : live)
                    if (m.id == id) {
                        m.frame = std::clamp<int64_t>(to, 0, frames);
                        break;
                    }
                ASSERT_EQ(model->markers(), live);
            }
            model->endMarkerDrag(dragStart);
            if (live != dragStart) {
                stableSortByFrame(live);
                ref.markers = live;
                committed(before);
            }
            break;
        }
        case 14: {
            what = "undo";
            stack.undo();
            if (!undo.empty()) {
                redo.push_back(ref);
                ref = undo.back();
                undo.pop_back();
            }
            break;
        }
        case 15: {
            what = "redo";
            stack.redo();
            if (!redo.empty()) {
                undo.push_back(ref);
                ref = redo.back();
                redo.pop_back();
            }
            break;
        }
        }
        ref.settle();
        check(step, what);
        if (HasFatalFailure())
            return;
    }

    // Every kind of edit happened often enough to matter, and the content stayed small.
    for (const char* kind : {"delete", "trim", "paste", "paste mix", "insert silence", "add marker",
                             "remove marker", "move or rename marker", "drag marker"})
        EXPECT_GT(steps[kind], 40) << kind;
    EXPECT_LT(longest, 100000);

    // Back to the start: the very blocks the model began with.
    while (stack.canUndo())
        stack.undo();
    if (!undo.empty())
        ref = undo.front();
    redo.insert(redo.end(), undo.rbegin(), undo.rend());
    undo.clear();
    check(-1, "undo everything");
    const auto& segments = model->content().segments();
    const auto& first = original.segments();
    ASSERT_EQ(segments.size(), first.size());
    for (size_t i = 0; i < segments.size(); ++i) {
        EXPECT_EQ(segments[i].block, first[i].block);
        EXPECT_EQ(segments[i].offset, first[i].offset);
        EXPECT_EQ(segments[i].count, first[i].count);
    }
    EXPECT_TRUE(model->markers().empty());
}

TEST_F(EditCommandsRandomizedTest, CutsAndPastesShareBlocksInsteadOfCopying) {
    // Ten minutes of stereo at 44.1 kHz, made chunk by chunk so no second copy exists.
    const int64_t liveBefore = AudioBlock::liveBytes();
    constexpr double rate = 44100;
    constexpr int64_t frames = 600 * 44100;
    AudioContent content(2, rate);
    {
        AudioContentBuilder builder(2, rate);
        std::vector<std::vector<float>> chunk(
            2, std::vector<float>(static_cast<size_t>(AudioBlock::preferredFrameCount)));
        for (int64_t at = 0; at < frames; at += AudioBlock::preferredFrameCount) {
            const int64_t n = std::min(AudioBlock::preferredFrameCount, frames - at);
            for (auto& plane : chunk) {
                plane.resize(static_cast<size_t>(n));
                for (int64_t i = 0; i < n; ++i)
                    plane[static_cast<size_t>(i)] = static_cast<float>((at + i) % 977) * 0.001f;
            }
            builder.append(chunk);
        }
        content = builder.build();
    }
    const auto floatBytes = static_cast<double>(frames * 2 * static_cast<int64_t>(sizeof(float)));

    auto model = std::make_unique<EditorModel>(content, std::nullopt);
    content = AudioContent(2, rate);
    QUndoStack stack;
    model->setUndoManager(&stack);

    std::mt19937_64 random(99);
    auto pick = [&random](int64_t lo, int64_t hi) {
        return std::uniform_int_distribution<int64_t>(lo, hi)(random);
    };
    double most = 0;
    for (int step = 0; step < 1000; ++step) {
        const int64_t length = model->content().frameCount();
        switch (pick(0, 2)) {
        case 0: {
            const int64_t start = pick(0, length - 1);
            const int64_t end = std::min(length, start + pick(1, 10 * 44100));
            model->setSelection(FrameRange{start, end}, std::nullopt);
            model->copy();
            model->deleteNamed(QStringLiteral("Cut"));
            break;
        }
        case 1:
            model->selectNone();
            model->setCursor(pick(0, length));
            model->paste();
            break;
        default:
            stack.undo();
        }
        most = std::max(most, static_cast<double>(AudioBlock::liveBytes() - liveBefore));
    }
    EXPECT_GT(stack.count(), 300);
    EXPECT_LT(most, 1.2 * floatBytes) << "most " << most / floatBytes << " of the audio's float size";
    RecordProperty("mostLiveBytesOverAudioBytes", std::to_string(most / floatBytes));
}

} // namespace
} // namespace harlune
