#pragma once

#include "io/ChunkSink.h"
#include "io/LameLibrary.h"

#include <filesystem>
#include <memory>
#include <vector>

namespace harlune {

/// The end stage for MP3: constant bit rate through LAME, with the Xing/LAME tag frame written
/// back over the first frame at the end, so players know the exact length (encoder delay and
/// padding) and play gaplessly.
class MP3Writer final : public ChunkSink {
public:
    /// `channels` is 1 or 2; the rate one of 32000, 44100, 48000 Hz. Creates the file, erasing
    /// what is there. Throws `HarluneError.encodeFailed`.
    MP3Writer(const std::filesystem::path& path, std::shared_ptr<const LameLibrary> lib, double sampleRate,
              int channels, int bitRateKbps);
    ~MP3Writer() override;

    void consume(ChunkViews chunk) override;
    void finish() override;
    void abort() noexcept override;

private:
    void ensureBuffer(size_t frames);
    void emit(int n, const char* what);
    void release() noexcept;

    std::shared_ptr<const LameLibrary> lib_;
    LameLibrary::Handle gfp_ = nullptr;
    int channels_;
    int fd_ = -1;
    std::vector<unsigned char> mp3buf_;
};

} // namespace harlune
