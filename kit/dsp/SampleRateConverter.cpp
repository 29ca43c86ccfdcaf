#include "dsp/SampleRateConverter.h"

#include "base/DoubleText.h"
#include "base/HarluneError.h"

#include <algorithm>
#include <cmath>
#include <soxr.h>
#include <string>
#include <utility>

namespace harlune {

namespace {

void check(soxr_error_t error) {
    if (error != nullptr)
        throw HarluneError::encodeFailed(*error != '\0' ? std::string(error)
                                                        : "Sample rate conversion failed");
}

} // namespace

SampleRateConverter::SampleRateConverter(int channelCount, double inputRate, double outputRate)
    : channelCount_(channelCount), inputRate_(inputRate), outputRate_(outputRate) {
    if (channelCount < 1)
        throw HarluneError::unsupportedFormat(std::to_string(channelCount) + " channels");
    const auto rateError = [&] {
        return HarluneError::unsupportedFormat(doubleText(inputRate) + " Hz -> " + doubleText(outputRate) +
                                               " Hz");
    };
    if (!(inputRate > 0) || !(outputRate > 0) || !std::isfinite(inputRate) || !std::isfinite(outputRate))
        throw rateError();

    const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_S, SOXR_FLOAT32_S);
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_VHQ, 0);
    const soxr_runtime_spec_t runtime = soxr_runtime_spec(1); // parallelism is the segment plan's job
    soxr_error_t error = nullptr;
    converter_ = soxr_create(inputRate, outputRate, static_cast<unsigned>(channelCount), &error, &io,
                             &quality, &runtime);
    if (converter_ == nullptr || error != nullptr) {
        soxr_delete(converter_);
        converter_ = nullptr;
        throw rateError();
    }

    const auto channels = static_cast<size_t>(channelCount);
    scratch_.assign(channels, std::vector<float>(static_cast<size_t>(maxOutputChunk)));
    scratchPointers_.resize(channels);
    for (size_t c = 0; c < channels; ++c)
        scratchPointers_[c] = scratch_[c].data();
    inputPointers_.resize(channels);
    views_.resize(channels);
}

SampleRateConverter::~SampleRateConverter() {
    soxr_delete(converter_);
}

SampleRateConverter::SampleRateConverter(SampleRateConverter&& other) noexcept
    : channelCount_(other.channelCount_), inputRate_(other.inputRate_), outputRate_(other.outputRate_),
      converter_(std::exchange(other.converter_, nullptr)), inputFrames_(other.inputFrames_),
      outputFrames_(other.outputFrames_), scratch_(std::move(other.scratch_)),
      scratchPointers_(std::move(other.scratchPointers_)), inputPointers_(std::move(other.inputPointers_)),
      views_(std::move(other.views_)) {}

SampleRateConverter& SampleRateConverter::operator=(SampleRateConverter&& other) noexcept {
    if (this != &other) {
        soxr_delete(converter_);
        channelCount_ = other.channelCount_;
        inputRate_ = other.inputRate_;
        outputRate_ = other.outputRate_;
        converter_ = std::exchange(other.converter_, nullptr);
        inputFrames_ = other.inputFrames_;
        outputFrames_ = other.outputFrames_;
        scratch_ = std::move(other.scratch_);
        scratchPointers_ = std::move(other.scratchPointers_);
        inputPointers_ = std::move(other.inputPointers_);
        views_ = std::move(other.views_);
    }
    return *this;
}

int64_t SampleRateConverter::outputFrameCount(int64_t inputFrames, double inputRate, double outputRate) {
    return static_cast<int64_t>(std::round(outputRate * static_cast<double>(inputFrames) / inputRate));
}

void SampleRateConverter::process(ChunkViews input, Output output) {
    HARLUNE_PRECONDITION(static_cast<int>(input.size()) == channelCount_,
                         "converter fed the wrong channel count");
    const int64_t frames = static_cast<int64_t>(input.front().size());
    if (frames == 0)
        return;
    for (size_t c = 0; c < input.size(); ++c) {
        HARLUNE_PRECONDITION(static_cast<int64_t>(input[c].size()) == frames,
                             "converter fed uneven channels");
        inputPointers_[c] = input[c].data();
    }

    int64_t consumed = 0;
    while (true) {
        size_t taken = 0;
        size_t produced = 0;
        check(soxr_process(converter_, inputPointers_.data(), static_cast<size_t>(frames - consumed), &taken,
                           scratchPointers_.data(), static_cast<size_t>(maxOutputChunk), &produced));
        consumed += static_cast<int64_t>(taken);
        for (auto& pointer : inputPointers_)
            pointer += taken;
        deliver(static_cast<int64_t>(produced), output);
        // A full output buffer may leave more behind; otherwise stop once all input is in.
        if (static_cast<int64_t>(produced) < maxOutputChunk && consumed >= frames)
            break;
        if (taken == 0 && produced == 0)
            throw HarluneError::encodeFailed("Sample rate conversion failed"); // stalled: input would be lost
    }
    inputFrames_ += frames;
}

void SampleRateConverter::finish(Output output) {
    const int64_t target = outputFrameCount(inputFrames_, inputRate_, outputRate_);
    while (outputFrames_ < target) {
        size_t produced = 0;
        check(soxr_process(converter_, nullptr, 0, nullptr, scratchPointers_.data(),
                           static_cast<size_t>(maxOutputChunk), &produced));
        if (produced == 0)
            break;
        deliver(std::min(static_cast<int64_t>(produced), target - outputFrames_), output);
    }
    // Whatever the filter did not deliver is silence after the end of the input.
    while (outputFrames_ < target) {
        const int64_t n = std::min(maxOutputChunk, target - outputFrames_);
        for (auto& channel : scratch_)
            std::fill_n(channel.begin(), n, 0.0f);
        deliver(n, output);
    }
}

void SampleRateConverter::reset() {
    check(soxr_clear(converter_));
    inputFrames_ = 0;
    outputFrames_ = 0;
}

void SampleRateConverter::deliver(int64_t frames, Output output) {
    if (frames <= 0)
        return;
    for (size_t c = 0; c < scratch_.size(); ++c)
        views_[c] = std::span<const float>(scratch_[c].data(), static_cast<size_t>(frames));
    outputFrames_ += frames;
    output(ChunkViews(views_));
}

} // namespace harlune
