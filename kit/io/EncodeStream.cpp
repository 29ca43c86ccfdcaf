#include "io/EncodeStream.h"

#include "base/HarluneError.h"
#include "io/ChannelLayouts.h"
#include "io/ChunkHandoff.h"

#include <algorithm>
#include <limits>
#include <thread>

namespace harlune {

namespace {

constexpr int64_t chunkFrames = 32768;

int converterThreads(int channels) {
    return std::clamp(static_cast<int>(std::thread::hardware_concurrency()), 1, channels);
}

// The depth whose dither the writer of `plan` draws, if any: integer PCM, FLAC and ALAC files
// of 16 or 24 bits with TPDF dither (ALAC carries every depth above 16 as 24).
std::optional<int> ditheredBits(const EncodePlan& plan) {
    const EncodeSettings& settings = plan.settings;
    if (settings.dither != DitherMode::tpdf)
        return std::nullopt;
    switch (settings.format) {
    case ExportFormat::alac:
        return settings.bitDepth == PCMBitDepth::int16 ? 16 : 24;
    case ExportFormat::wav:
    case ExportFormat::aiff:
    case ExportFormat::caf:
    case ExportFormat::flac:
        if (settings.bitDepth == PCMBitDepth::int16)
            return 16;
        if (settings.bitDepth == PCMBitDepth::int24)
            return 24;
        return std::nullopt;
    default:
        return std::nullopt;
    }
}

} // namespace

EncodeChain makeEncodeChain(const EncodePlan& plan, const std::filesystem::path& path, bool threaded) {
    // Threaded, the dither is drawn on the thread ahead of the writer's, which then only rounds.
    const std::optional<int> gridBits = threaded ? ditheredBits(plan) : std::nullopt;
    EncodePlan writerPlan = plan;
    if (gridBits)
        writerPlan.settings.dither = DitherMode::none;
    EncodeChain chain;
    chain.head = writerPlan.makeWriter(path);
    const bool converts = plan.outputRate != plan.sourceRate;
    const bool mixes = plan.outputChannels != plan.sourceChannels;
    if (threaded && (gridBits || converts || mixes))
        chain.head = std::make_unique<ChunkHandoff>(plan.outputChannels, std::move(chain.head));
    if (gridBits)
        chain.head = std::make_unique<GridQuantizer>(*gridBits, plan.outputChannels, std::move(chain.head));
    if (converts) {
        auto enforcer =
            std::make_unique<LengthEnforcer>(plan.outputFrames, plan.outputChannels, std::move(chain.head));
        chain.enforcer = enforcer.get();
        chain.head = std::make_unique<ResamplerStage>(plan.sourceRate, plan.outputRate, plan.outputChannels,
                                                      chunkFrames, std::move(enforcer),
                                                      threaded ? converterThreads(plan.outputChannels) : 1);
    }
    if (mixes)
        chain.head = std::make_unique<ChannelMixer>(
            ChannelLayouts::downmixMatrix(plan.sourceChannels, plan.outputChannels), std::move(chain.head));
    if (threaded)
        chain.head = std::make_unique<ChunkHandoff>(plan.sourceChannels, std::move(chain.head));
    return chain;
}

EncodeStream::EncodeStream(const std::filesystem::path& destination, const EncodeSettings& settings,
                           double sourceRate, int sourceChannels, int64_t estimatedFrames,
                           FileReplacement::Naming naming)
    : plan_(EncodePlan::make(sourceRate, sourceChannels, std::max<int64_t>(estimatedFrames, 1), std::nullopt,
                             settings)),
      temporary_(destination, plan_.settings.format, naming) {
    chain_ = makeEncodeChain(plan_, temporary_.writePath(), true);
    // The length is known only at the end: no cut until then.
    if (chain_.enforcer != nullptr)
        chain_.enforcer->setExpected(std::numeric_limits<int64_t>::max());
    chain_.head = std::make_unique<Rechunker>(plan_.sourceChannels, chunkFrames, std::move(chain_.head));
}

EncodeStream::~EncodeStream() {
    if (!done_ && chain_.head != nullptr)
        chain_.head->abort();
}

void EncodeStream::consume(ChunkViews chunk) {
    HARLUNE_PRECONDITION(!done_, "EncodeStream fed after its end");
    if (chunk.empty() || chunk.front().empty())
        return;
    try {
        chain_.head->consume(chunk);
    } catch (...) {
        done_ = true;
        chain_.head->abort();
        throw;
    }
    // Every few megabytes, the disk gets what is written so far while the rest is encoded.
    constexpr int64_t writebackFrames = 1 << 20;
    const int64_t before = frames_;
    frames_ += static_cast<int64_t>(chunk.front().size());
    if (before / writebackFrames != frames_ / writebackFrames)
        temporary_.startWriteback();
}

void EncodeStream::finish() {
    HARLUNE_PRECONDITION(!done_, "EncodeStream finished twice");
    done_ = true;
    try {
        if (frames_ == 0)
            throw HarluneError::encodeFailed("there\u2019s no audio to export (the range is empty)");
        plan_.range = FrameRange{0, frames_};
        plan_.outputFrames = plan_.outputFrameCount(frames_);
        if (chain_.enforcer != nullptr)
            chain_.enforcer->setExpected(plan_.outputFrames);
        chain_.head->finish();
    } catch (...) {
        chain_.head->abort();
        throw;
    }
    chain_.head.reset();
    temporary_.commit();
}

} // namespace harlune
