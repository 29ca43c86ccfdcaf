#pragma once

#include "base/AudioFormats.h"
#include "base/FunctionRef.h"
#include "io/DecodeCallbacks.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

struct sf_private_tag;

namespace harlune {

/// The native decode road on Linux: a file opened with libsndfile, described in the container
/// and codec labels of `FormatCodes`, and streamed as float planes of at most 32768 frames.
///
/// Any refusal before the first chunk is `SndFileCannotDecode`, so that the decoder may hand
/// the file to the tool road; a failure after samples went out is `HarluneError::decodeFailed`.
/// One reader serves one thread at a time.
class SndFileReader {
public:
    /// Opens the file or throws `SndFileCannotDecode`.
    explicit SndFileReader(std::filesystem::path url);
    ~SndFileReader();
    SndFileReader(const SndFileReader&) = delete;
    SndFileReader& operator=(const SndFileReader&) = delete;

    /// Frames per channel that the header announces.
    int64_t lengthFrames() const { return lengthFrames_; }
    AudioFileInfo info(int64_t frameCount) const;
    /// Streams the whole file once from the start; returns the info with the frames delivered.
    AudioFileInfo decode(DecodeProgress progress, DecodeFormatCallback onFormat, DecodeChunkCallback onChunk);

    /// Whether a seek lands on exactly the frame asked for (plain PCM and float in the
    /// uncompressed containers, and FLAC), so that a file may be read in parts at once.
    bool seeksExactly() const;
    /// Whether the file is FLAC, which the parts of a long read take straight to libFLAC.
    bool isFlac() const;
    /// Seeks to `start` and streams up to `count` frames (all to the end when absent). `tick`
    /// takes the frames of each chunk delivered and answers whether to go on; false throws
    /// `HarluneError::cancelled`. A failed seek or read throws `HarluneError::decodeFailed`.
    /// Returns the frames delivered.
    int64_t decodeFrom(int64_t start, std::optional<int64_t> count, DecodeChunkCallback onChunk,
                       FunctionRef<bool(int64_t)> tick);

    /// The extensions of the major formats libsndfile reads, lower-case.
    static std::vector<std::string> libraryExtensions();

private:
    std::filesystem::path url_;
    sf_private_tag* file_ = nullptr;
    int format_ = 0; ///< libsndfile's major format ORed with its subtype
    int channels_ = 0;
    double sampleRate_ = 0;
    int64_t lengthFrames_ = 0;
    std::optional<uint32_t> fileType_; ///< four-character container code, where one fits
    std::optional<uint32_t> formatID_; ///< four-character codec code, where one fits
};

} // namespace harlune
