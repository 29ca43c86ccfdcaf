#include "io/FFmpegDecoder.h"

#include "base/HarluneError.h"
#include "base/Uuid.h"
#include "io/Deinterleave.h"
#include "io/FFmpegTool.h"
#include "io/ReadAhead.h"
#include "io/SndFileCannotDecode.h"
#include "io/SndFileReader.h"
#include "io/Subprocess.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cctype>
#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>
#include <set>

namespace harlune {

namespace {

static_assert(std::endian::native == std::endian::little,
              "the raw stream is read as native little-endian floats");

using nlohmann::json;

// ffprobe reads headers only; a minute covers the slowest disk and keeps a stuck probe (a FIFO
// named like an audio file) from holding the caller for ever.
constexpr std::chrono::milliseconds probeTimeout{60000};

// About 12 ms of ffmpeg's output at full speed: enough to ride out the moments when this side is
// not scheduled on a busy machine.
constexpr size_t readAheadBytes = size_t{8} << 20;

std::vector<std::string> pieces(std::string_view text, char separator) {
    std::vector<std::string> result;
    size_t start = 0;
    while (start <= text.size()) {
        const size_t end = std::min(text.find(separator, start), text.size());
        result.emplace_back(text.substr(start, end - start));
        start = end + 1;
    }
    return result;
}

std::optional<double> parseDouble(std::string_view text) {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

std::optional<std::string> text(const json& object, const char* key) {
    const auto found = object.find(key);
    if (found == object.end() || !found->is_string())
        return std::nullopt;
    return found->get<std::string>();
}

std::optional<double> numberAt(const json& object, const char* key) {
    const auto found = object.find(key);
    return found == object.end() ? std::nullopt : FFmpegDecoder::number(*found);
}

std::string failureText(const std::string& prefix, const std::string& stderrText, int status,
                        const std::filesystem::path& url) {
    const std::string message = FFmpegDecoder::toolMessage(stderrText, url);
    return message.empty() ? prefix + "exit status " + std::to_string(status) : prefix + message;
}

// One line of a tool's standard error, cleaned as `toolMessage` tells.
std::string cleanedLine(std::string line, const std::string& input, const std::filesystem::path& url) {
    const auto isSpace = [](char c) {
        return std::isspace(static_cast<unsigned char>(c)) != 0;
    };
    const auto trim = [&] {
        while (!line.empty() && isSpace(line.back()))
            line.pop_back();
        size_t start = 0;
        while (start < line.size() && isSpace(line[start]))
            ++start;
        line.erase(0, start);
    };
    trim();
    // "[mp3 @ 0x55d0c1a2b3c0] " and the like: where in ffmpeg the message came from.
    while (line.starts_with('[')) {
        const size_t close = line.find(']');
        if (close == std::string::npos || line.substr(0, close).find(" @ 0x") == std::string::npos)
            break;
        line.erase(0, close + 1);
        trim();
    }
    if (line.starts_with(input + ": "))
        line.erase(0, input.size() + 2);
    for (size_t at = line.find(input); at != std::string::npos; at = line.find(input, at))
        line.replace(at, input.size(), url.filename().string());
    while (!line.empty() && (line.back() == '.' || isSpace(line.back())))
        line.pop_back();
    if (line.size() > 1 && std::isupper(static_cast<unsigned char>(line[0])) &&
        std::islower(static_cast<unsigned char>(line[1])))
        line[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(line[0])));
    return line;
}

std::optional<int64_t> fileSizeOf(const std::filesystem::path& url) {
    std::error_code error;
    const auto size = std::filesystem::file_size(url, error);
    return error ? std::nullopt : std::optional<int64_t>(static_cast<int64_t>(size));
}

AudioFileInfo rewrittenForSource(AudioFileInfo info, const std::filesystem::path& source) {
    std::string extension = source.extension().string();
    if (!extension.empty())
        extension.erase(0, 1);
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    info.url = source;
    info.containerName = extension;
    info.codecName = "Unknown";
    info.bitDepth.reset();
    info.isFloat = false;
    info.bitRateKbps.reset();
    info.fileSize = fileSizeOf(source);
    info.isLossy = true;
    info.nativeExportFormat.reset();
    info.decoderName = "ffmpeg";
    return info;
}

AudioFileInfo decodeViaTemporaryFile(const std::filesystem::path& url, const std::filesystem::path& ffmpeg,
                                     DecodeProgress progress, DecodeFormatCallback onFormat,
                                     DecodeChunkCallback onChunk) {
    std::error_code error;
    const std::filesystem::path temporary =
        std::filesystem::temp_directory_path(error) / ("Harlune-ffmpeg-" + Uuid::random().string() + ".caf");
    struct Remover {
        const std::filesystem::path& path;
        ~Remover() {
            std::error_code ignored; // a leftover temporary file is no reason to fail the decode
            std::filesystem::remove(path, ignored);
        }
    } remover{temporary};

    const auto result = Subprocess::run(ffmpeg, FFmpegDecoder::temporaryFileArguments(url, temporary));
    if (result.status != 0)
        throw HarluneError::decodeFailed(failureText("ffmpeg: ", result.stderrText, result.status, url));

    std::optional<SndFileReader> reader;
    try {
        reader.emplace(temporary);
    } catch (const std::exception&) {
        throw HarluneError::decodeFailed("ffmpeg produced unreadable output");
    }
    try {
        const AudioFileInfo final = reader->decode(
            progress, [&](const AudioFileInfo& info) { onFormat(rewrittenForSource(info, url)); }, onChunk);
        return rewrittenForSource(final, url);
    } catch (const SndFileCannotDecode& refusal) {
        // The native reader's "not for me" must not leave this road: the tool was the last resort.
        throw HarluneError::decodeFailed(refusal.message);
    }
}

} // namespace

bool FFmpegDecoder::isAvailable() {
    return FFmpegTool::ffmpegURL().has_value();
}

std::optional<double> FFmpegDecoder::number(const json& value) {
    if (value.is_number())
        return value.get<double>();
    if (value.is_string())
        return parseDouble(value.get_ref<const std::string&>());
    return std::nullopt;
}

std::string FFmpegDecoder::toolInput(const std::filesystem::path& url) {
    std::error_code error;
    std::filesystem::path absolute = std::filesystem::absolute(url, error);
    if (error)
        absolute = url;
    return "file:" + absolute.string();
}

std::string FFmpegDecoder::toolMessage(std::string_view stderrText, const std::filesystem::path& url) {
    const std::string input = toolInput(url);
    std::vector<std::string> messages;
    size_t start = 0;
    while (start < stderrText.size()) {
        const size_t end = std::min(stderrText.find_first_of("\r\n", start), stderrText.size());
        std::string line = cleanedLine(std::string(stderrText.substr(start, end - start)), input, url);
        if (!line.empty() && std::find(messages.begin(), messages.end(), line) == messages.end())
            messages.push_back(std::move(line));
        start = end + 1;
    }
    if (messages.size() > 3)
        messages.erase(messages.begin() + 2, messages.end() - 1);
    std::string result;
    for (const auto& message : messages)
        result += (result.empty() ? "" : "; ") + message;
    return result;
}

std::vector<std::string> FFmpegDecoder::probeArguments(const std::filesystem::path& url) {
    return {"-v",   "error", "-select_streams", "a:0", "-show_streams", "-show_format", "-of",
            "json", "--",    toolInput(url)};
}

std::vector<std::string> FFmpegDecoder::streamArguments(const std::filesystem::path& url, int channels,
                                                        double sampleRate) {
    // "-flush_packets 0" lets ffmpeg fill its 32 KB output buffer before writing, instead of
    // writing each 8 KB packet: a quarter of the writes, and of the wake-ups on this side.
    // clang-format off
    return {"-nostdin", "-hide_banner", "-v", "error", "-i", toolInput(url), "-vn", "-map", "0:a:0",
            "-ac", std::to_string(channels), "-ar", std::to_string(std::llround(sampleRate)),
            "-f", "f32le", "-acodec", "pcm_f32le", "-flush_packets", "0", "-"};
    // clang-format on
}

std::vector<std::string> FFmpegDecoder::temporaryFileArguments(const std::filesystem::path& url,
                                                               const std::filesystem::path& temporaryFile) {
    return {"-nostdin", "-hide_banner", "-v",   "error",     "-y", "-i",  toolInput(url),        "-vn",
            "-map",     "0:a:0",        "-c:a", "pcm_f32le", "-f", "caf", temporaryFile.string()};
}

std::string FFmpegDecoder::containerName(std::string_view formatName,
                                         const std::optional<std::string>& formatLong) {
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 15> labels{{
        {"wav", "WAVE"},
        {"w64", "Wave64"},
        {"aiff", "AIFF"},
        {"mov", "MPEG-4"},
        {"mp4", "MPEG-4"},
        {"m4a", "MPEG-4"},
        {"mp3", "MPEG Audio"},
        {"ogg", "Ogg"},
        {"flac", "FLAC"},
        {"asf", "ASF"},
        {"wv", "WavPack"},
        {"matroska", "Matroska"},
        {"webm", "Matroska"},
        {"caf", "CAF"},
        {"ape", "Monkey\u2019s Audio"},
    }};
    const std::string first = pieces(formatName, ',').front();
    for (const auto& [name, label] : labels)
        if (name == first)
            return std::string(label);
    return formatLong.value_or(std::string(formatName));
}

std::string FFmpegDecoder::codecName(std::string_view codec, const std::optional<std::string>& codecLong) {
    if (codec.starts_with("pcm_"))
        return "Linear PCM";
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 18> labels{{
        {"mp3", "MP3"},
        {"mp3float", "MP3"},
        {"mp2", "MPEG Layer II"},
        {"aac", "AAC"},
        {"alac", "Apple Lossless"},
        {"flac", "FLAC"},
        {"opus", "Opus"},
        {"vorbis", "Vorbis"},
        {"wmav1", "WMA"},
        {"wmav2", "WMA"},
        {"wmapro", "WMA Pro"},
        {"wmalossless", "WMA Lossless"},
        {"wavpack", "WavPack"},
        {"ape", "Monkey\u2019s Audio"},
        {"ac3", "AC-3"},
        {"eac3", "E-AC-3"},
        {"dts", "DTS"},
        {"tta", "True Audio"},
    }};
    for (const auto& [name, label] : labels)
        if (name == codec)
            return std::string(label);
    return codecLong.value_or(std::string(codec));
}

std::optional<ExportFormat> FFmpegDecoder::nativeExportFormat(std::string_view formatName,
                                                              std::string_view codec) {
    const auto all = pieces(formatName, ',');
    const std::set<std::string> present(all.begin(), all.end());
    const auto has = [&](const char* name) {
        return present.contains(name);
    };
    const bool pcm = codec.starts_with("pcm_");
    if (has("wav") || has("w64"))
        return pcm ? std::optional(ExportFormat::wav) : std::nullopt;
    if (has("aiff"))
        return pcm ? std::optional(ExportFormat::aiff) : std::nullopt;
    if (has("caf"))
        return ExportFormat::caf;
    if (has("flac"))
        return ExportFormat::flac;
    if (has("mp4") || has("m4a") || has("mov")) {
        if (codec == "alac")
            return ExportFormat::alac;
        if (codec == "aac")
            return ExportFormat::aac;
        return std::nullopt;
    }
    if (has("mp3"))
        return ExportFormat::mp3;
    if (has("ogg"))
        return codec == "opus" ? std::optional(ExportFormat::opus) : std::nullopt;
    return std::nullopt;
}

AudioFileInfo FFmpegDecoder::makeInfo(const std::filesystem::path& url, const json& stream,
                                      const json& format) {
    const auto sampleRate = numberAt(stream, "sample_rate");
    if (!sampleRate || !(*sampleRate > 0))
        throw HarluneError::unsupportedFormat("ffprobe reported no sample rate / channel count");
    const auto channelsValue = numberAt(stream, "channels");
    // Above libsndfile's own limit of 1024 channels a count is corrupt, and its buffers would be huge.
    if (!channelsValue || !(*channelsValue >= 1) || *channelsValue > 1024)
        throw HarluneError::unsupportedFormat("ffprobe reported no sample rate / channel count");
    const int channels = static_cast<int>(*channelsValue);

    const std::string codec = text(stream, "codec_name").value_or("unknown");
    const auto codecLong = text(stream, "codec_long_name");
    const std::string formatName = text(format, "format_name").value_or("");
    const auto formatLong = text(format, "format_long_name");

    const bool pcm = codec.starts_with("pcm_");
    static const std::set<std::string> losslessCodecs{"flac",   "alac", "wavpack", "ape",    "tta",
                                                      "truehd", "mlp",  "tak",     "shorten"};
    const bool lossless = pcm || losslessCodecs.contains(codec);

    AudioFileInfo info;
    info.url = url;
    info.containerName = containerName(formatName, formatLong);
    info.codecName = codecName(codec, codecLong);
    info.sampleRate = *sampleRate;
    info.channelCount = channels;
    if (lossless) {
        if (const auto raw = numberAt(stream, "bits_per_raw_sample"); raw && *raw > 0)
            info.bitDepth = static_cast<int>(*raw);
        else if (const auto bits = numberAt(stream, "bits_per_sample"); bits && *bits > 0)
            info.bitDepth = static_cast<int>(*bits);
    }
    if (codec.starts_with("pcm_f"))
        info.isFloat = true;
    else if (lossless) {
        const std::string sampleFormat = text(stream, "sample_fmt").value_or("");
        info.isFloat = sampleFormat == "flt" || sampleFormat == "fltp" || sampleFormat == "dbl" ||
                       sampleFormat == "dblp";
    }

    double seconds = numberAt(stream, "duration").value_or(numberAt(format, "duration").value_or(0.0));
    if (const auto durationTS = numberAt(stream, "duration_ts")) {
        if (const auto timeBase = text(stream, "time_base")) {
            std::vector<double> parts;
            for (const auto& piece : pieces(*timeBase, '/'))
                if (const auto value = parseDouble(piece))
                    parts.push_back(*value);
            if (parts.size() == 2 && parts[1] > 0)
                seconds = parts[0] * *durationTS / parts[1];
        }
    }
    const double frames = std::round(seconds * *sampleRate);
    info.frameCount = std::isfinite(frames) && frames > 0 ? static_cast<int64_t>(frames) : 0;

    if (!pcm) {
        auto bitRate = numberAt(stream, "bit_rate");
        if (!bitRate)
            bitRate = numberAt(format, "bit_rate");
        if (bitRate && *bitRate > 0)
            info.bitRateKbps = static_cast<int>(std::lround(*bitRate / 1000.0));
    }
    if (const auto size = numberAt(format, "size"))
        info.fileSize = static_cast<int64_t>(*size);
    info.isLossy = !lossless;
    info.nativeExportFormat = nativeExportFormat(formatName, codec);
    info.decoderName = "ffmpeg";
    return info;
}

FFmpegDecoder::ProbeResult FFmpegDecoder::probe(const std::filesystem::path& url) {
    const auto ffprobe = FFmpegTool::ffprobeURL();
    if (!ffprobe)
        throw HarluneError::codecUnavailable("ffprobe isn\u2019t installed");
    const auto result = Subprocess::run(*ffprobe, probeArguments(url), probeTimeout);
    if (result.status != 0) {
        const std::string message = toolMessage(result.stderrText, url);
        throw HarluneError::decodeFailed(
            message.empty() ? "ffprobe failed (status " + std::to_string(result.status) + ")" : message);
    }

    const json parsed = json::parse(result.stdoutData.begin(), result.stdoutData.end(), nullptr, false);
    const auto noStream = [] {
        return HarluneError::unsupportedFormat("no audio stream found");
    };
    if (!parsed.is_object())
        throw noStream();
    const auto streams = parsed.find("streams");
    if (streams == parsed.end() || !streams->is_array() || streams->empty() || !streams->front().is_object())
        throw noStream();
    const auto format = parsed.find("format");
    const json formatObject = format != parsed.end() && format->is_object() ? *format : json::object();
    return {makeInfo(url, streams->front(), formatObject)};
}

AudioFileInfo FFmpegDecoder::decode(const std::filesystem::path& url, DecodeProgress progress,
                                    DecodeFormatCallback onFormat, DecodeChunkCallback onChunk) {
    const auto ffmpeg = FFmpegTool::ffmpegURL();
    if (!ffmpeg)
        throw HarluneError::codecUnavailable("ffmpeg isn\u2019t installed");
    if (!FFmpegTool::ffprobeURL())
        return decodeViaTemporaryFile(url, *ffmpeg, progress, onFormat, onChunk);

    AudioFileInfo info = probe(url).info;
    const auto channels = static_cast<size_t>(info.channelCount);
    const int64_t expected = info.frameCount;

    Subprocess child(*ffmpeg, streamArguments(url, info.channelCount, info.sampleRate));
    child.start();

    const size_t chunk = static_cast<size_t>(decodeChunkFrames);
    const size_t frameBytes = channels * sizeof(float);
    // Each read-ahead buffer is one chunk of interleaved frames, filled to the brim as the single
    // buffer of a plain read loop would be; several of them let ffmpeg run ahead while the
    // caller's chunk work goes on.
    const size_t capacity = channels * chunk * sizeof(float);
    const size_t bufferCount = std::clamp<size_t>(readAheadBytes / capacity, 2, 32);
    std::vector<std::vector<float>> planes(channels, std::vector<float>(chunk));
    std::vector<std::span<const float>> views(channels);
    // Declared after `child`, so that it stops reading before the child is stopped.
    ReadAhead readAhead(child, capacity, bufferCount);

    // An exception from here on leaves through `child`'s destructor, which stops the tool.
    onFormat(info);

    int64_t decoded = 0;
    for (;;) {
        const ReadAhead::Buffer buffer = readAhead.next();
        const size_t frames = buffer.bytes.size() / frameBytes;
        if (buffer.ended && frames < 1)
            break; // the bytes of an incomplete last frame are dropped
        deinterleave(reinterpret_cast<const float*>(buffer.bytes.data()), frames, planes, views);
        readAhead.release();
        onChunk(ChunkViews(views));
        decoded += static_cast<int64_t>(frames);
        if (progress) {
            const double fraction =
                expected < 1 ? 0.0
                             : std::min(static_cast<double>(decoded) / static_cast<double>(expected), 1.0);
            if (!(*progress)(fraction)) {
                readAhead.stop();
                child.terminate();
                throw HarluneError::cancelled();
            }
        }
        if (buffer.ended)
            break;
    }
    readAhead.stop();

    const int status = child.waitForExit();
    if (status != 0)
        throw HarluneError::decodeFailed(failureText("ffmpeg: ", child.stderrText(), status, url));
    if (progress)
        (*progress)(1.0);
    info.frameCount = decoded;
    return info;
}

} // namespace harlune
