#include "audio/timeline/SampleRing.h"

#include <gtest/gtest.h>
#include <thread>
#include <vector>

using namespace tavrel;

// Through a small ring, full and wrapping all the time.
TEST(SampleRing, aProducerAndAConsumerThreadSeeEverySampleInOrder) {
    SampleRing ring(1000);
    EXPECT_EQ(ring.capacity(), 1024u) << "rounded up to a power of two";
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
