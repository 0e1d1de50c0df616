#include "audio/timeline/SampleRing.h"

#include <gtest/gtest.h>
#include <thread>
#include <vector>

using namespace tavrel;

TEST(SampleRing, keepsWholeFramesWhenFullAndAcrossTheWrap) {
    SampleRing ring(8);
    ASSERT_EQ(ring.capacity(), 8u);
    const std::vector<float> frames{1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    // Stereo frames: 10 samples offered, 8 fit.
    EXPECT_EQ(ring.push(frames.data(), 10, 2), 8u);
    EXPECT_EQ(ring.push(frames.data(), 2, 2), 0u);
    std::vector<float> out(16);
    EXPECT_EQ(ring.pop(out.data(), 5, 2), 4u); // never half a frame
    EXPECT_EQ(out[0], 1);
    EXPECT_EQ(out[3], 4);
    EXPECT_EQ(ring.push(frames.data() + 8, 2, 2), 2u); // wraps
    EXPECT_EQ(ring.available(), 6u);
    EXPECT_EQ(ring.pop(out.data(), 16, 2), 6u);
    EXPECT_EQ((std::vector<float>(out.begin(), out.begin() + 6)), (std::vector<float>{5, 6, 7, 8, 9, 10}));
    EXPECT_EQ(ring.available(), 0u);
}

TEST(SampleRing, aProducerAndAConsumerThreadSeeEverySampleInOrder) {
    SampleRing ring(1024);
    constexpr int kTotal = 200000;
    std::thread producer([&] {
        std::vector<float> block(97);
        int next = 0;
        while (next < kTotal) {
            const int n = std::min<int>(97, kTotal - next);
            for (int i = 0; i < n; ++i)
                block[static_cast<size_t>(i)] = static_cast<float>(next + i);
            next += static_cast<int>(ring.push(block.data(), static_cast<size_t>(n)));
        }
    });
    std::vector<float> received;
    received.reserve(kTotal);
    std::vector<float> buffer(61);
    while (received.size() < static_cast<size_t>(kTotal)) {
        const size_t n = ring.pop(buffer.data(), buffer.size());
        received.insert(received.end(), buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(n));
    }
    producer.join();
    for (int i = 0; i < kTotal; ++i)
        ASSERT_EQ(received[static_cast<size_t>(i)], static_cast<float>(i)) << "at " << i;
}
