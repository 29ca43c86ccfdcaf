// The yardstick of the decode benchmark: the plainest way to read a file with libsndfile into
// one float buffer and build the same 256-frame min/max/sum-of-squares summaries the editor's
// blocks carry. harlune-cli info --decode is timed against it.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sndfile.h>
#include <vector>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: harlune-decode-reference FILE\n");
        return 2;
    }
    SF_INFO info{};
    SNDFILE* file = sf_open(argv[1], SFM_READ, &info);
    if (!file) {
        std::fprintf(stderr, "harlune-decode-reference: %s\n", sf_strerror(nullptr));
        return 1;
    }
    const auto channels = static_cast<size_t>(info.channels);
    const auto frames = static_cast<size_t>(info.frames);
    std::vector<float> samples(frames * channels);
    const auto got = static_cast<size_t>(sf_readf_float(file, samples.data(), info.frames));
    sf_close(file);

    constexpr size_t stride = 256;
    const size_t points = (got + stride - 1) / stride;
    std::vector<std::vector<float>> mins(channels, std::vector<float>(points));
    std::vector<std::vector<float>> maxs(channels, std::vector<float>(points));
    std::vector<std::vector<float>> sums(channels, std::vector<float>(points));
    for (size_t p = 0; p < points; ++p) {
        const size_t end = std::min(got, (p + 1) * stride);
        for (size_t c = 0; c < channels; ++c) {
            float low = samples[p * stride * channels + c];
            float high = low;
            float energy = 0;
            for (size_t i = p * stride; i < end; ++i) {
                const float x = samples[i * channels + c];
                low = std::min(low, x);
                high = std::max(high, x);
                energy += x * x;
            }
            mins[c][p] = low;
            maxs[c][p] = high;
            sums[c][p] = energy;
        }
    }
    double peak = 0;
    for (size_t c = 0; c < channels; ++c)
        for (size_t p = 0; p < points; ++p)
            peak =
                std::max({peak, std::abs(static_cast<double>(mins[c][p])), static_cast<double>(maxs[c][p])});
    std::printf("%zu frames, peak %.2f dBFS\n", got, 20 * std::log10(peak));
    return 0;
}
