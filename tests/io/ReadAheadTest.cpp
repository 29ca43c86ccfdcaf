// The read-ahead thread against small shell children: buffers filled to the brim in order with
// nothing lost, the short or empty last buffer, and stopping while the child is silent or while
// the ring is full.
#include "io/ReadAhead.h"

#include "io/IoTestSupport.h"

#include <chrono>
#include <thread>

namespace harlune {
namespace {

using namespace std::chrono_literals;
using testing::TempDir;

const std::filesystem::path shell = "/bin/sh";

std::vector<char> patternBytes(size_t count) {
    std::vector<char> bytes(count);
    for (size_t i = 0; i < count; ++i)
        bytes[i] = static_cast<char>((i * 31 + i / 251) % 256);
    return bytes;
}

std::filesystem::path writeFile(const TempDir& folder, const std::vector<char>& bytes) {
    const auto path = folder / "data";
    std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return path;
}

struct Taken {
    std::vector<size_t> sizes;
    std::vector<char> bytes;
    bool ended = false;
};

Taken takeAll(ReadAhead& readAhead, std::chrono::milliseconds pauseEvery3rd = 0ms) {
    Taken taken;
    for (int i = 0; !taken.ended; ++i) {
        const ReadAhead::Buffer buffer = readAhead.next();
        taken.sizes.push_back(buffer.bytes.size());
        const auto* data = reinterpret_cast<const char*>(buffer.bytes.data());
        taken.bytes.insert(taken.bytes.end(), data, data + buffer.bytes.size());
        taken.ended = buffer.ended;
        readAhead.release();
        if (i % 3 == 2)
            std::this_thread::sleep_for(pauseEvery3rd); // lets the ring fill up
    }
    return taken;
}

TEST(ReadAhead, fillsEachBufferToTheBrimAndKeepsEveryByteInOrder) {
    TempDir folder;
    const auto bytes = patternBytes(100000);
    const auto file = writeFile(folder, bytes);
    // Odd pieces with pauses between them, so that reads come back short.
    Subprocess child(shell, {"-c", "{ head -c 3333; sleep 0.02; head -c 5000; sleep 0.02; cat; } < '" +
                                       file.string() + "'"});
    child.start();
    ReadAhead readAhead(child, 4096, 3);
    const Taken taken = takeAll(readAhead, 5ms);
    EXPECT_EQ(child.waitForExit(), 0);

    ASSERT_EQ(taken.sizes.size(), 25u);
    for (size_t i = 0; i + 1 < taken.sizes.size(); ++i)
        EXPECT_EQ(taken.sizes[i], 4096u) << i;
    EXPECT_EQ(taken.sizes.back(), 100000u - 24 * 4096);
    EXPECT_TRUE(taken.bytes == bytes);
}

TEST(ReadAhead, aStreamOfWholeBuffersEndsWithAnEmptyOne) {
    TempDir folder;
    const auto bytes = patternBytes(8192);
    Subprocess child(shell, {"-c", "cat '" + writeFile(folder, bytes).string() + "'"});
    child.start();
    ReadAhead readAhead(child, 4096, 2);
    const Taken taken = takeAll(readAhead);
    EXPECT_EQ(taken.sizes, (std::vector<size_t>{4096, 4096, 0}));
    EXPECT_TRUE(taken.bytes == bytes);
    EXPECT_EQ(child.waitForExit(), 0);
}

TEST(ReadAhead, stopsPromptlyWhileTheChildIsSilentOrTheRingIsFull) {
    for (const char* script : {"exec sleep 30", "while :; do echo xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx; done"}) {
        SCOPED_TRACE(script);
        Subprocess child(shell, {"-c", script});
        child.start();
        const auto begin = std::chrono::steady_clock::now();
        {
            ReadAhead readAhead(child, 4096, 2);
            std::this_thread::sleep_for(100ms);
            readAhead.stop();
            EXPECT_TRUE(readAhead.next().ended);
        }
        EXPECT_LT(std::chrono::steady_clock::now() - begin, 1s);
        child.terminate();
    }
}

} // namespace
} // namespace harlune
