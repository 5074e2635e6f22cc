#include <gtest/gtest.h>

#include <Quor/Quor.h>

TEST(Framework, Builds) { EXPECT_EQ(Quor::endOfTime, Quor::endOfTime); }
