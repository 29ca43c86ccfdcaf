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

} // namespace

EncodeChain makeEncodeChain(const EncodePlan& plan, std::unique_ptr<ChunkSink> writer, bool threaded) {
    EncodeChain chain;
    chain.head = std::move(writer);
    const bool converts = plan.outputRate != plan.sourceRate;
    if (converts) {
        if (threaded)
            chain.head = std::make_unique<ChunkHandoff>(plan.outputChannels, std::move(chain.head));
        auto enforcer =
            std::make_unique<LengthEnforcer>(plan.outputFrames, plan.outputChannels, std::move(chain.head));
        chain.enforcer = enforcer.get();
        chain.head = std::make_unique<ResamplerStage>(plan.sourceRate, plan.outputRate, plan.outputChannels,
                                                      chunkFrames, std::move(enforcer),
                                                      threaded ? converterThreads(plan.outputChannels) : 1);
    }
    if (plan.outputChannels != plan.sourceChannels)
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
    chain_ = makeEncodeChain(plan_, plan_.makeWriter(temporary_.writePath()), true);
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
    frames_ += static_cast<int64_t>(chunk.front().size());
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
