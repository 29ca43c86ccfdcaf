#include "core/AudioContent.h"
#include "support/TestAudio.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

namespace harlune {
namespace {

using testing::noisePlanes;
using testing::Planes;

// Four readers copy and read one content while the main thread edits copies of it and drops
// them. Run under ThreadSanitizer this shows that shared blocks and arrays need no lock.
TEST(AudioContentConcurrencyTest, ReadersAndAnEditorShareOneContent) {
    const Planes planes = noisePlanes(2, 400'000, 60);
    const AudioContent shared(planes, 48000);
    std::atomic<bool> stop{false};
    std::atomic<int> mismatches{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 4; ++r) {
        readers.emplace_back([&, r] {
            std::vector<float> a(1000), b(1000);
            float* pointers[] = {a.data(), b.data()};
            int64_t start = r * 7919;
            while (!stop.load()) {
                const AudioContent local = shared; // a copy per pass, as the audio thread makes
                start = (start + 104'729) % (local.frameCount() - 1000);
                local.read({start, start + 1000}, pointers);
                if (a[0] != planes[0][static_cast<size_t>(start)] ||
                    b[999] != planes[1][static_cast<size_t>(start + 999)])
                    mismatches.fetch_add(1);
                (void)local.peaks(r % 2, {start, start + 50'000});
            }
        });
    }
    for (int edit = 0; edit < 300; ++edit) {
        AudioContent copy = shared;
        const int64_t at = (edit * 1'299) % 300'000;
        copy.deleteRange({at, at + 500 + edit});
        copy.insert(shared.slice({edit, edit + 700}), at / 2);
        copy = copy.transformed({at, at + 2000}, std::nullopt, 512,
                                [](std::span<const std::span<float>> channels, int64_t) {
                                    for (auto channel : channels)
                                        for (float& x : channel)
                                            x = -x;
                                });
    }
    stop = true;
    for (auto& reader : readers)
        reader.join();
    EXPECT_EQ(mismatches.load(), 0);
}

} // namespace
} // namespace harlune
