#include "io/DecodeInParts.h"

#include "base/HarluneError.h"
#include "dsp/ParallelFor.h"
#include "io/AudioDecoder.h"
#include "io/FlacReader.h"
#include "io/SndFileCannotDecode.h"
#include "io/SndFileReader.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace harlune {

namespace {

/// Blocks of the content are this long; parts that start on their multiples leave no short
/// blocks between them.
constexpr int64_t partAlignment = 65536;

int partCountFor(const SndFileReader& reader, const AudioDecoder::PartPlan& plan) {
    if (!reader.seeksExactly())
        return 1;
    const int cores = std::clamp(static_cast<int>(std::thread::hardware_concurrency()), 1, 8);
    const int most = plan.maxParts > 0 ? plan.maxParts : cores;
    const int64_t byLength = reader.lengthFrames() / std::max<int64_t>(plan.minPartFrames, 1);
    return static_cast<int>(std::clamp<int64_t>(byLength, 1, most));
}

AudioFileInfo decodeAsOne(const std::filesystem::path& url, DecodeProgress progress,
                          AudioDecoder::DecodePartsFormatCallback onFormat,
                          AudioDecoder::DecodePartChunkCallback onChunk) {
    return AudioDecoder::decode(
        url, progress, [&](const AudioFileInfo& info) { onFormat(info, 1); },
        [&](ChunkViews chunk) { onChunk(0, chunk); });
}

} // namespace

AudioFileInfo AudioDecoder::decodeInParts(const std::filesystem::path& url, DecodeProgress progress,
                                          DecodePartsFormatCallback onFormat, DecodePartChunkCallback onChunk,
                                          PartPlan plan) {
    std::optional<SndFileReader> first;
    try {
        first.emplace(url);
    } catch (const SndFileCannotDecode&) {
        return decodeAsOne(url, progress, onFormat, onChunk); // the tool road, with its messages
    }
    const int64_t length = first->lengthFrames();
    int parts = partCountFor(*first, plan);
    const int64_t perPart = (length / std::max(parts, 1) + partAlignment - 1) / partAlignment * partAlignment;
    // Rounding the parts up to whole blocks may leave fewer of them.
    if (perPart > 0)
        parts = static_cast<int>(std::min<int64_t>(parts, (length + perPart - 1) / perPart));
    if (parts <= 1) {
        first.reset();
        return decodeAsOne(url, progress, onFormat, onChunk);
    }
    onFormat(first->info(length), parts);
    const bool flac = first->isFlac();

    std::vector<int64_t> delivered(static_cast<size_t>(parts), 0);
    std::atomic<int64_t> done{0};
    std::atomic<bool> cancelled{false};   // by the user, through `progress`
    std::atomic<bool> splitFailed{false}; // a part could not be read: start over as one stream
    std::atomic<bool> stopping{false};    // any of these, or a callback's error: every part ends
    std::mutex progressLock;
    const auto tick = [&](int64_t frames) {
        const int64_t total = done.fetch_add(frames) + frames;
        if (stopping.load())
            return false;
        if (progress) {
            const std::lock_guard lock(progressLock);
            const double fraction = std::min(static_cast<double>(total) / static_cast<double>(length), 1.0);
            if (!(*progress)(fraction)) {
                cancelled.store(true);
                stopping.store(true);
                return false;
            }
        }
        return true;
    };
    try {
        parallelFor(parts, true, [&](int64_t part) {
            const int64_t start = part * perPart;
            // The last part reads to the end, whatever the header said.
            const std::optional<int64_t> count =
                part + 1 < parts ? std::optional(std::min(perPart, length - start)) : std::nullopt;
            try {
                const auto partChunk = [&](ChunkViews chunk) {
                    onChunk(static_cast<int>(part), chunk);
                };
                if (flac) {
                    FlacReader reader(url);
                    delivered[static_cast<size_t>(part)] = reader.decodeFrom(start, count, partChunk, tick);
                } else {
                    std::optional<SndFileReader> own;
                    SndFileReader& reader = part == 0 ? *first : own.emplace(url);
                    delivered[static_cast<size_t>(part)] = reader.decodeFrom(start, count, partChunk, tick);
                }
            } catch (const SndFileCannotDecode&) {
                splitFailed.store(true);
                stopping.store(true);
            } catch (const HarluneError& error) {
                if (error.kind() == HarluneError::Kind::decodeFailed) {
                    splitFailed.store(true);
                    stopping.store(true);
                    return;
                }
                if (error.isCancelled() && !cancelled.load())
                    return; // ended by another part, whose own outcome counts
                stopping.store(true);
                throw;
            } catch (...) {
                stopping.store(true);
                throw;
            }
        });
    } catch (...) {
        if (cancelled.load())
            throw HarluneError::cancelled();
        throw;
    }
    if (cancelled.load())
        throw HarluneError::cancelled();
    for (int part = 0; part + 1 < parts && !splitFailed.load(); ++part)
        if (delivered[static_cast<size_t>(part)] != std::min(perPart, length - part * perPart))
            splitFailed.store(true); // a part came up short: the header overstated the length
    if (splitFailed.load()) {
        // A damaged or oddly built file: read it as one stream, which keeps what it can.
        first.reset();
        return decodeAsOne(url, progress, onFormat, onChunk);
    }
    int64_t total = 0;
    for (const int64_t frames : delivered)
        total += frames;
    return first->info(total);
}

} // namespace harlune
