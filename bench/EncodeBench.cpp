// Benchmarks of the encode chain: every writer on ten minutes of stereo 48 kHz noise that holds
// 24-bit values, encoded from memory into the temporary folder (TMPDIR; bench/encode-vs-tools.sh
// points it at a tmpfs, so the disk does not set the pace). Bytes processed are float input.
#include "base/AudioSource.h"
#include "io/AudioEncoder.h"
#include "io/EncodePipeline.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdint>
#include <filesystem>
#include <random>
#include <vector>

namespace harlune {
namespace {

constexpr double rate = 48000;
constexpr int64_t tenMinutes = 10 * 60 * 48000;

const ArraySource& tenMinutesOfNoise() {
    static const ArraySource source = [] {
        std::mt19937 generator(2024);
        std::uniform_int_distribution<int32_t> codes(-(1 << 22), (1 << 22) - 1); // half scale, 24-bit steps
        std::vector<std::vector<float>> planes(2, std::vector<float>(static_cast<size_t>(tenMinutes)));
        for (auto& plane : planes)
            for (auto& x : plane)
                x = static_cast<float>(codes(generator)) / 8388608.0f;
        return ArraySource(std::move(planes), rate);
    }();
    return source;
}

void encode(benchmark::State& state, ExportFormat format, PCMBitDepth depth, DitherMode dither, int kbps) {
    const ArraySource& source = tenMinutesOfNoise();
    EncodeSettings settings = EncodeSettings::defaults(format);
    settings.bitDepth = depth;
    settings.dither = dither;
    settings.bitRateKbps = kbps;
    const auto destination = std::filesystem::temp_directory_path() /
                             ("harlune-bench-encode." + std::string(fileExtension(format)));
    for (auto _ : state)
        AudioEncoder::write(source, std::nullopt, destination, settings);
    std::filesystem::remove(destination);
    state.SetBytesProcessed(state.iterations() * tenMinutes * 2 * static_cast<int64_t>(sizeof(float)));
}

// The quantizer alone: 24 bits with TPDF dither, chunk by chunk as the writers call it.
void quantize24WithDither(benchmark::State& state) {
    const ArraySource& source = tenMinutesOfNoise();
    std::vector<int32_t> codes(32768 * 2);
    for (auto _ : state) {
        Quantizer quantizer(24, true);
        source.forEachChunk(std::nullopt, 32768, [&](ChunkViews chunk, int64_t) {
            quantizer.quantize(chunk, codes);
            benchmark::DoNotOptimize(codes.data());
        });
    }
    state.SetBytesProcessed(state.iterations() * tenMinutes * 2 * static_cast<int64_t>(sizeof(float)));
}
BENCHMARK(quantize24WithDither)->Unit(benchmark::kMillisecond)->Iterations(3);

double minimum(const std::vector<double>& values) {
    return *std::min_element(values.begin(), values.end());
}

// The machine is shared: each figure is the fastest of five runs.
#define HARLUNE_ENCODE_BENCH(name, ...)                                                                      \
    BENCHMARK_CAPTURE(encode, name, __VA_ARGS__)                                                             \
        ->Unit(benchmark::kMillisecond)                                                                      \
        ->UseRealTime()                                                                                      \
        ->Iterations(1)                                                                                      \
        ->Repetitions(5)                                                                                     \
        ->ComputeStatistics("min", minimum)                                                                  \
        ->ReportAggregatesOnly(true)

HARLUNE_ENCODE_BENCH(wav_float, ExportFormat::wav, PCMBitDepth::float32, DitherMode::none, 0);
HARLUNE_ENCODE_BENCH(wav_24_tpdf, ExportFormat::wav, PCMBitDepth::int24, DitherMode::tpdf, 0);
HARLUNE_ENCODE_BENCH(flac_16_tpdf, ExportFormat::flac, PCMBitDepth::int16, DitherMode::tpdf, 0);
HARLUNE_ENCODE_BENCH(flac_24, ExportFormat::flac, PCMBitDepth::int24, DitherMode::tpdf, 0);
HARLUNE_ENCODE_BENCH(mp3_320, ExportFormat::mp3, PCMBitDepth::int24, DitherMode::none, 320);
HARLUNE_ENCODE_BENCH(opus_160, ExportFormat::opus, PCMBitDepth::int24, DitherMode::none, 160);

} // namespace
} // namespace harlune
