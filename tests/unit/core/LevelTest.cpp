#include "core/Level.h"

#include <gtest/gtest.h>

using namespace tavrel;

TEST(Level, mapsDecibelsLinearlyFromMinusFiftyToZero) {
    EXPECT_EQ(levelFromDecibels(-60.0f), 0.0f);
    EXPECT_EQ(levelFromDecibels(-50.0f), 0.0f);
    EXPECT_FLOAT_EQ(levelFromDecibels(-25.0f), 0.5f);
    EXPECT_FLOAT_EQ(levelFromDecibels(-10.0f), 0.8f);
    EXPECT_EQ(levelFromDecibels(0.0f), 1.0f);
    EXPECT_EQ(levelFromDecibels(3.0f), 1.0f);
}
