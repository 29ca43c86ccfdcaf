#pragma once

#include "base/AudioFormats.h"
#include "io/ChunkSink.h"
#include "io/EncodePipeline.h"

#include <filesystem>
#include <optional>
#include <vector>

struct sf_private_tag;

namespace harlune {

/// The end stage for the plain containers and FLAC, written through libsndfile. Integer files
/// get the `Quantizer`'s codes as integers, so rounding, dither and clipping are ours and not the
/// library's (which scales floats differently and does not clip).
class SndFileWriter final : public ChunkSink {
public:
    enum class Container { wave, rf64, aiff, caf, flac };

    /// What the plan fills in.
    struct Spec {
        Container container = Container::wave;
        double sampleRate = 48000; ///< Hz
        int channels = 2;
        PCMBitDepth bitDepth = PCMBitDepth::int24;
        bool dither = false;
        /// FLAC only: 0 (fastest) to 8 (smallest).
        int compressionLevel = 5;
    };

    /// Creates the file, erasing what is there. Throws `HarluneError.encodeFailed`
    /// "Creating the LABEL file failed (REASON)".
    SndFileWriter(const std::filesystem::path& path, const Spec& spec);
    ~SndFileWriter() override;

    void consume(ChunkViews chunk) override;
    void finish() override;
    void abort() noexcept override;

    /// Whether the file carries a speaker layout (false when there is none for the channel
    /// count, or the container refused it).
    bool hasChannelLayout() const { return hasLayout_; }
    /// "WAVE", "RF64", "AIFF", "CAF", "FLAC".
    static const char* label(Container container);

private:
    sf_private_tag* file_ = nullptr;
    int channels_;
    std::optional<Quantizer> quantizer_;
    std::vector<int32_t> intBuffer_;
    std::vector<float> floatBuffer_;
    bool hasLayout_ = false;
};

} // namespace harlune
