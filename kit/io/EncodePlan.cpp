#include "io/EncodePlan.h"

#include <algorithm>
#include <cmath>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "base/HarluneError.h"
#include "io/FlacWriter.h"
#include "io/LameLibrary.h"
#include "io/M4aWriter.h"
#include "io/MP3Writer.h"
#include "io/OggOpusWriter.h"

namespace harlune {

namespace {

int bytesPerSample(PCMBitDepth depth) {
    switch (depth) {
    case PCMBitDepth::int16:
        return 2;
    case PCMBitDepth::int24:
        return 3;
    case PCMBitDepth::int32:
    case PCMBitDepth::float32:
        return 4;
    }
    return 4;
}

} // namespace

double CodecCapabilities::nearest(double rate, std::span<const double> rates) {
    double best = rates.empty() ? rate : rates.front();
    double bestDistance = std::abs(best - rate);
    for (const double candidate : rates) {
        const double distance = std::abs(candidate - rate);
        if (distance < bestDistance || (distance == bestDistance && candidate > best)) {
            best = candidate;
            bestDistance = distance;
        }
    }
    return best;
}

std::optional<std::vector<double>> CodecCapabilities::encodeSampleRates(ExportFormat format) {
    if (format != ExportFormat::aac)
        return std::nullopt;
    const AVCodec* codec = avcodec_find_encoder_by_name("aac");
    if (codec == nullptr || codec->supported_samplerates == nullptr)
        return std::nullopt;
    std::vector<double> rates;
    for (const int* rate = codec->supported_samplerates; *rate != 0; ++rate)
        rates.push_back(*rate);
    if (rates.empty())
        return std::nullopt;
    return rates;
}

double EncodePlan::resolveRate(ExportFormat format, double requested) {
    if (!(requested > 0))
        return 48000;
    const auto supported = supportedSampleRates(format);
    if (format == ExportFormat::aac && supported) {
        if (const auto encoderRates = CodecCapabilities::encodeSampleRates(format)) {
            std::vector<double> both;
            for (const double rate : *supported)
                if (std::find(encoderRates->begin(), encoderRates->end(), rate) != encoderRates->end())
                    both.push_back(rate);
            if (!both.empty())
                return CodecCapabilities::nearest(requested, both);
        }
    }
    if (!supported || supported->empty())
        return requested;
    return CodecCapabilities::nearest(requested, *supported);
}

EncodePlan EncodePlan::make(const AudioSource& source, std::optional<FrameRange> range,
                            const EncodeSettings& settings) {
    return make(source.sampleRate(), source.channelCount(), source.frameCount(), range, settings);
}

EncodePlan EncodePlan::make(double sourceRate, int sourceChannels, int64_t frames,
                            std::optional<FrameRange> range, const EncodeSettings& settings) {
    EncodePlan plan;
    plan.settings = settings.normalized();
    // libavcodec's ALAC encoder stops at 24 bits.
    if (plan.settings.format == ExportFormat::alac && plan.settings.bitDepth == PCMBitDepth::int32)
        plan.settings.bitDepth = PCMBitDepth::int24;

    plan.sourceRate = sourceRate;
    plan.sourceChannels = sourceChannels;
    if (!(plan.sourceRate > 0) || plan.sourceChannels <= 0)
        throw HarluneError::encodeFailed("the source has no audio");

    plan.range = range.value_or(FrameRange{0, frames});
    if (plan.range.lower < 0 || plan.range.upper > frames)
        throw HarluneError::encodeFailed("range " + std::to_string(plan.range.lower) + "..<" +
                                         std::to_string(plan.range.upper) + " is outside the audio (0..<" +
                                         std::to_string(frames) + ")");
    if (plan.range.isEmpty())
        throw HarluneError::encodeFailed("there\u2019s no audio to export (the range is empty)");

    plan.outputChannels = std::min(plan.sourceChannels, maxChannels(plan.settings.format));
    plan.outputRate = resolveRate(plan.settings.format, plan.settings.sampleRate.value_or(plan.sourceRate));
    plan.outputFrames = plan.outputFrameCount(plan.range.length());
    return plan;
}

int64_t EncodePlan::outputFrameCount(int64_t inputFrames) const {
    return outputRate == sourceRate
               ? inputFrames
               : static_cast<int64_t>(std::round(outputRate * static_cast<double>(inputFrames) / sourceRate));
}

SndFileWriter::Container EncodePlan::pcmFileType() const {
    switch (settings.format) {
    case ExportFormat::aiff:
        return SndFileWriter::Container::aiff;
    case ExportFormat::caf:
        return SndFileWriter::Container::caf;
    default: {
        constexpr int64_t rf64Threshold = 0xFFF00000LL;
        const int64_t bytes = outputFrames * outputChannels * bytesPerSample(settings.bitDepth);
        return bytes >= rf64Threshold ? SndFileWriter::Container::rf64 : SndFileWriter::Container::wave;
    }
    }
}

std::unique_ptr<ChunkSink> EncodePlan::makeWriter(const std::filesystem::path& path) const {
    const bool dither = settings.dither == DitherMode::tpdf;
    switch (settings.format) {
    case ExportFormat::flac:
        if (settings.bitDepth == PCMBitDepth::int16 || settings.bitDepth == PCMBitDepth::int24) {
            FlacWriter::Spec spec;
            spec.sampleRate = outputRate;
            spec.channels = outputChannels;
            spec.bitDepth = settings.bitDepth;
            spec.dither = dither;
            return std::make_unique<FlacWriter>(path, spec);
        }
        [[fallthrough]];
    case ExportFormat::wav:
    case ExportFormat::aiff:
    case ExportFormat::caf: {
        SndFileWriter::Spec spec;
        spec.container =
            settings.format == ExportFormat::flac ? SndFileWriter::Container::flac : pcmFileType();
        spec.sampleRate = outputRate;
        spec.channels = outputChannels;
        spec.bitDepth = settings.bitDepth;
        spec.dither = dither;
        return std::make_unique<SndFileWriter>(path, spec);
    }
    case ExportFormat::alac:
    case ExportFormat::aac: {
        M4aWriter::Spec spec;
        spec.codec = settings.format == ExportFormat::alac ? M4aWriter::Codec::alac : M4aWriter::Codec::aac;
        spec.sampleRate = outputRate;
        spec.channels = outputChannels;
        spec.bitDepth = settings.bitDepth;
        spec.dither = dither;
        if (settings.format == ExportFormat::aac)
            spec.bitRate = settings.bitRateKbps * 1000;
        return std::make_unique<M4aWriter>(path, spec);
    }
    case ExportFormat::mp3: {
        auto lame = LameLibrary::shared();
        if (lame == nullptr)
            throw HarluneError::codecUnavailable("MP3 export needs the LAME library (libmp3lame)");
        return std::make_unique<MP3Writer>(path, std::move(lame), outputRate, outputChannels,
                                           settings.bitRateKbps);
    }
    case ExportFormat::opus:
        return std::make_unique<OggOpusWriter>(path, outputChannels, settings.bitRateKbps * 1000);
    }
    throw HarluneError::encodeFailed("unknown export format");
}

} // namespace harlune
