#include "dsp/Resampler.h"

#include "base/HarluneError.h"
#include "dsp/ParallelFor.h"
#include "dsp/SampleRateConverter.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <numeric>
#include <thread>

namespace harlune::Resampler {

namespace {

constexpr int64_t copyChunkFrames = 32768;
constexpr int64_t feedChunkFrames = 16384;
constexpr double defaultSegmentSeconds = 5.0;

bool isWholeRate(double rate) {
    return rate > 0 && rate < 10000000.0 && rate == std::floor(rate);
}

/// Where a worker leaves the output of one segment.
struct SegmentResult {
    std::vector<std::vector<float>> channels;
    std::exception_ptr error;
};

/// One conversion of a range: makes a fresh converter for each segment.
struct ConversionJob {
    const AudioSource& source;
    FrameRange range;
    double to;

    void convert(int64_t start, const Segment& segment, Emit emit,
                 FunctionRef<void(int64_t)> afterChunk) const;
};

/// Runs one converter over the range from `start - warmupFrames` on, throws away the first
/// `warmupOutputFrames` of its output and passes on exactly `outputFrames`. Past the end of the
/// range the converter sees silence. `afterChunk` gets the frames delivered after every chunk fed.
void ConversionJob::convert(int64_t start, const Segment& segment, Emit emit,
                            FunctionRef<void(int64_t)> afterChunk) const {
    const int channels = source.channelCount();
    SampleRateConverter converter(channels, source.sampleRate(), to);

    std::vector<std::vector<float>> buffers(static_cast<size_t>(channels),
                                            std::vector<float>(static_cast<size_t>(feedChunkFrames)));
    std::vector<float*> pointers(buffers.size());
    for (size_t c = 0; c < buffers.size(); ++c)
        pointers[c] = buffers[c].data();
    std::vector<std::span<const float>> views(buffers.size());
    std::vector<std::span<const float>> passed(buffers.size());

    int64_t discard = segment.warmupOutputFrames;
    int64_t wanted = segment.outputFrames;
    const auto take = [&](ChunkViews output) {
        const auto n = static_cast<int64_t>(output.front().size());
        const int64_t skip = std::min(discard, n);
        discard -= skip;
        const int64_t keep = std::min(n - skip, wanted);
        if (keep <= 0)
            return;
        for (size_t c = 0; c < output.size(); ++c)
            passed[c] = output[c].subspan(static_cast<size_t>(skip), static_cast<size_t>(keep));
        wanted -= keep;
        emit(ChunkViews(passed));
    };

    for (int64_t position = start - segment.warmupFrames; wanted > 0 && position < range.upper;) {
        const int64_t n = std::min(feedChunkFrames, range.upper - position);
        source.read({position, position + n}, pointers);
        for (size_t c = 0; c < views.size(); ++c)
            views[c] = std::span<const float>(buffers[c].data(), static_cast<size_t>(n));
        converter.process(ChunkViews(views), take);
        position += n;
        afterChunk(segment.outputFrames - wanted);
    }
    if (wanted > 0)
        converter.finish(take);
    // A segment always delivers its count, whatever the filter's tail gave.
    for (auto& buffer : buffers)
        std::fill(buffer.begin(), buffer.end(), 0.0f);
    while (wanted > 0) {
        const int64_t n = std::min(feedChunkFrames, wanted);
        for (size_t c = 0; c < views.size(); ++c)
            views[c] = std::span<const float>(buffers[c].data(), static_cast<size_t>(n));
        wanted -= n;
        emit(ChunkViews(views));
    }
}

} // namespace

int64_t outputFrameCount(int64_t inputFrames, double from, double to) {
    return SampleRateConverter::outputFrameCount(inputFrames, from, to);
}

std::optional<std::vector<Segment>> segmentPlan(int64_t frames, double from, double to, int64_t target,
                                                double segmentSeconds) {
    if (!(segmentSeconds > 0) || !isWholeRate(from) || !isWholeRate(to))
        return std::nullopt;
    const auto g = std::gcd(static_cast<int64_t>(from), static_cast<int64_t>(to));
    const int64_t inStep = static_cast<int64_t>(from) / g;
    const int64_t outStep = static_cast<int64_t>(to) / g;

    const auto wanted = static_cast<int64_t>(from * segmentSeconds);
    if (inStep > wanted || frames <= 2 * wanted)
        return std::nullopt;
    const int64_t step = (wanted / inStep) * inStep;
    const int64_t minimumWarmup = std::max<int64_t>(static_cast<int64_t>(from * 0.25), 8192);
    const int64_t warm = (minimumWarmup + inStep - 1) / inStep * inStep;

    std::vector<Segment> plan;
    int64_t done = 0;
    for (int64_t start = 0;; start += step) {
        Segment segment;
        segment.inputStart = start;
        segment.warmupFrames = std::min(start, warm);
        segment.warmupOutputFrames = segment.warmupFrames / inStep * outStep;
        const int64_t next = start + step;
        if (next < frames && frames - next >= step / 4) {
            segment.outputFrames = step / inStep * outStep;
            plan.push_back(segment);
            done += segment.outputFrames;
            continue;
        }
        // The last segment takes in a short tail.
        segment.outputFrames = target - done;
        plan.push_back(segment);
        return plan;
    }
}

void resample(const AudioSource& source, std::optional<FrameRange> range, double to, Progress progress,
              Emit emit) {
    resample(source, range, to, defaultSegmentSeconds, progress, emit);
}

void resample(const AudioSource& source, std::optional<FrameRange> range, double to, double segmentSeconds,
              Progress progress, Emit emit) {
    const FrameRange walk = range.value_or(source.fullRange()).clamped(source.fullRange());
    const double from = source.sampleRate();
    const int channels = source.channelCount();
    if (channels <= 0 || walk.isEmpty() || !(to > 0) || !(from > 0))
        return;
    const int64_t target = outputFrameCount(walk.length(), from, to);
    const auto report = [&](int64_t done) {
        const double fraction =
            std::min(static_cast<double>(done) / static_cast<double>(std::max<int64_t>(target, 1)), 1.0);
        if (progress && !(*progress)(fraction))
            throw HarluneError::cancelled();
    };
    report(0);

    if (to == from) {
        // No filter at all: the samples pass unchanged.
        int64_t done = 0;
        source.forEachChunk(walk, copyChunkFrames, [&](ChunkViews chunk, int64_t) {
            emit(chunk);
            done += static_cast<int64_t>(chunk.front().size());
            report(done);
        });
        return;
    }

    const ConversionJob job{source, walk, to};
    const auto plan = segmentPlan(walk.length(), from, to, target, segmentSeconds);
    if (!plan || plan->size() < 2) {
        const Segment whole{0, 0, 0, target};
        job.convert(walk.lower, whole, emit, [&](int64_t delivered) { report(delivered); });
        return;
    }

    const auto cores = static_cast<size_t>(std::max(1u, std::thread::hardware_concurrency()));
    std::vector<std::span<const float>> views(static_cast<size_t>(channels));
    int64_t done = 0;
    for (size_t first = 0; first < plan->size(); first += cores) {
        const size_t count = std::min(cores, plan->size() - first);
        std::vector<SegmentResult> results(count);
        parallelFor(static_cast<int64_t>(count), count > 1, [&](int64_t i) {
            const Segment& segment = (*plan)[first + static_cast<size_t>(i)];
            SegmentResult& result = results[static_cast<size_t>(i)];
            try {
                result.channels.assign(static_cast<size_t>(channels), {});
                for (auto& channel : result.channels)
                    channel.reserve(static_cast<size_t>(segment.outputFrames));
                const auto collect = [&](ChunkViews chunk) {
                    for (size_t c = 0; c < chunk.size(); ++c)
                        result.channels[c].insert(result.channels[c].end(), chunk[c].begin(), chunk[c].end());
                };
                job.convert(walk.lower + segment.inputStart, segment, collect, [](int64_t) {});
            } catch (...) {
                result.error = std::current_exception();
            }
        });
        for (const auto& result : results)
            if (result.error)
                std::rethrow_exception(result.error);
        for (auto& result : results) {
            for (size_t c = 0; c < views.size(); ++c)
                views[c] = result.channels[c];
            emit(ChunkViews(views));
            done += static_cast<int64_t>(result.channels.front().size());
            result.channels = {}; // hand the memory back before the next segment is emitted
        }
        report(done);
    }
}

} // namespace harlune::Resampler
