// Benchmarks of the content model: structural edits, peak queries and building.
#include "core/AudioContent.h"
#include "core/AudioContentBuilder.h"

#include <benchmark/benchmark.h>
#include <cmath>
#include <cstring>
#include <malloc.h>
#include <memory>
#include <vector>

namespace harlune {
namespace {

constexpr double rate = 48000;
constexpr int64_t minute = 60 * 48000;

/// One minute of stereo noise-like audio in real blocks.
const AudioContent& minuteOfAudio() {
    static const AudioContent content = [] {
        std::vector<std::vector<float>> planes(2, std::vector<float>(static_cast<size_t>(minute)));
        uint32_t state = 1;
        for (auto& plane : planes)
            for (auto& x : plane) {
                state = state * 1664525u + 1013904223u;
                x = static_cast<float>(static_cast<int32_t>(state)) / 2147483648.0f;
            }
        return AudioContent(std::move(planes), rate);
    }();
    return content;
}

/// `minutes` of audio that shares the one minute's blocks, so a day costs a minute's memory.
AudioContent repeatedMinutes(int64_t minutes) {
    const AudioContent& one = minuteOfAudio();
    std::vector<Segment> segments;
    segments.reserve(static_cast<size_t>(minutes) * one.segments().size());
    for (int64_t m = 0; m < minutes; ++m)
        segments.insert(segments.end(), one.segments().begin(), one.segments().end());
    return AudioContent(2, rate, std::move(segments));
}

void deleteAndUndo(benchmark::State& state, int64_t minutes) {
    const AudioContent content = repeatedMinutes(minutes);
    const int64_t middle = content.frameCount() / 2;
    for (auto _ : state) {
        AudioContent edited = content;
        edited.deleteRange({middle, middle + 10 * 48000});
        benchmark::DoNotOptimize(edited);
        edited = content; // undo: the earlier value comes back
        benchmark::DoNotOptimize(edited);
    }
    state.counters["segments"] = static_cast<double>(content.segmentCount());
    state.counters["ns_per_segment"] =
        benchmark::Counter(static_cast<double>(content.segmentCount()),
                           benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void ContentDelete_1min(benchmark::State& state) {
    deleteAndUndo(state, 1);
}
void ContentDelete_24h(benchmark::State& state) {
    deleteAndUndo(state, 24 * 60);
}
BENCHMARK(ContentDelete_1min)->Name("ContentDelete/1min");
BENCHMARK(ContentDelete_24h)->Name("ContentDelete/24h")->Unit(benchmark::kMicrosecond);

void PeaksOverview_24h(benchmark::State& state) {
    const AudioContent content = repeatedMinutes(24 * 60);
    constexpr int columns = 2000;
    const double perColumn = static_cast<double>(content.frameCount()) / columns;
    for (auto _ : state) {
        for (int x = 0; x < columns; ++x) {
            const FrameRange range{static_cast<int64_t>(x * perColumn),
                                   static_cast<int64_t>((x + 1) * perColumn)};
            for (int c = 0; c < 2; ++c)
                benchmark::DoNotOptimize(content.peaks(c, range));
        }
    }
}
BENCHMARK(PeaksOverview_24h)->Name("PeaksOverview/24h")->Unit(benchmark::kMillisecond);

void PeaksZoomed(benchmark::State& state) {
    // Ten seconds cut into windows of 10007 frames at shifting offsets, so that columns cross
    // segment borders and ragged summary points.
    const AudioContent& one = minuteOfAudio();
    AudioContent content(2, rate);
    for (int64_t start = 0; content.frameCount() < 10 * 48000; start += 10007 + 131)
        content.append(one.slice({start, start + 10007}));
    constexpr int columns = 2000;
    const double perColumn = static_cast<double>(content.frameCount()) / columns;
    for (auto _ : state) {
        for (int x = 0; x < columns; ++x) {
            const FrameRange range{static_cast<int64_t>(x * perColumn),
                                   static_cast<int64_t>((x + 1) * perColumn)};
            for (int c = 0; c < 2; ++c)
                benchmark::DoNotOptimize(content.peaks(c, range));
        }
    }
    state.counters["segments"] = static_cast<double>(content.segmentCount());
}
BENCHMARK(PeaksZoomed)->Unit(benchmark::kMicrosecond);

// Building one hour of stereo audio from 4096-frame chunks of one second of source.
//
// glibc serves a 256 KiB request through mmap until a freed mapping raises its threshold, after
// which such blocks come from the heap and may reuse pages. So that the builder and the floor
// are measured alike, each run fixes the allocator's behaviour: argument 0 maps fresh pages for
// every block (what opening a file costs the first time), argument 1 serves blocks from a heap
// that is never trimmed (what the copying and summaries cost alone).
void setAllocatorMode(int64_t mode) {
    if (mode == 0) {
        mallopt(M_MMAP_THRESHOLD, 128 * 1024);
        mallopt(M_TRIM_THRESHOLD, 128 * 1024);
        malloc_trim(0); // free heap left by an earlier run would otherwise serve the blocks
    } else {
        mallopt(M_MMAP_THRESHOLD, 32 * 1024 * 1024);
        mallopt(M_TRIM_THRESHOLD, 1 << 30);
    }
}

constexpr int64_t hour = 60 * minute;
constexpr int64_t chunk = 4096;

const std::vector<std::vector<float>>& secondOfSource() {
    static const std::vector<std::vector<float>> planes = minuteOfAudio().readChannels({0, 48000});
    return planes;
}

void BuildContent(benchmark::State& state) {
    setAllocatorMode(state.range(0));
    const auto& source = secondOfSource();
    for (auto _ : state) {
        AudioContentBuilder builder(2, rate);
        for (int64_t done = 0; done < hour; done += chunk) {
            const auto at = static_cast<size_t>(done % (48000 - chunk));
            const std::span<const float> views[] = {{source[0].data() + at, chunk},
                                                    {source[1].data() + at, chunk}};
            builder.append(std::span<const std::span<const float>>(views));
        }
        const AudioContent content = builder.build();
        benchmark::DoNotOptimize(content);
    }
    state.SetBytesProcessed(state.iterations() * hour * 2 * static_cast<int64_t>(sizeof(float)));
}
BENCHMARK(BuildContent)->Unit(benchmark::kMillisecond)->Iterations(3)->Arg(0)->Arg(1);

/// The floor: the same bytes copied into freshly allocated 65536-frame buffers, no summaries.
void BuildContentFloor(benchmark::State& state) {
    setAllocatorMode(state.range(0));
    const auto& source = secondOfSource();
    for (auto _ : state) {
        std::vector<std::unique_ptr<float[]>> buffers;
        float* current[2] = {nullptr, nullptr};
        int64_t filled = 65536;
        for (int64_t done = 0; done < hour; done += chunk) {
            if (filled == 65536) {
                for (auto& plane : current) {
                    buffers.emplace_back(new float[65536]);
                    plane = buffers.back().get();
                }
                filled = 0;
            }
            const auto at = static_cast<size_t>(done % (48000 - chunk));
            for (size_t c = 0; c < 2; ++c)
                std::memcpy(current[c] + filled, source[c].data() + at, chunk * sizeof(float));
            filled += chunk;
        }
        benchmark::DoNotOptimize(buffers);
    }
    state.SetBytesProcessed(state.iterations() * hour * 2 * static_cast<int64_t>(sizeof(float)));
}
BENCHMARK(BuildContentFloor)->Unit(benchmark::kMillisecond)->Iterations(3)->Arg(0)->Arg(1);

} // namespace
} // namespace harlune
