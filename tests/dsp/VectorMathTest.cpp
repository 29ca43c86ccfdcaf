#include "dsp/VectorMath.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <vector>

namespace harlune {
namespace {

TEST(VectorMathTest, ExponentialIsAccurateToOnePartInAMillion) {
    std::vector<float> x;
    for (float v = -87.0f; v <= 88.0f; v += 0.00137f)
        x.push_back(v);
    const std::vector<float> arguments = x;
    vec::expInPlace(x.data(), static_cast<int64_t>(x.size()));
    double worst = 0;
    for (size_t i = 0; i < x.size(); ++i) {
        const double exact = std::exp(static_cast<double>(arguments[i]));
        worst = std::max(worst, std::abs(x[i] - exact) / exact);
    }
    EXPECT_LT(worst, 1e-6);
}

TEST(VectorMathTest, ExponentialEdgesAndOddLengths) {
    std::vector<float> x{0.0f, -1000.0f, 1000.0f, std::numeric_limits<float>::quiet_NaN(), 1.0f};
    vec::expInPlace(x.data(), 5);
    EXPECT_FLOAT_EQ(x[0], 1.0f);
    EXPECT_NEAR(x[1], std::exp(-87.0f), 1e-43);
    EXPECT_FLOAT_EQ(x[2], std::exp(88.0f));
    EXPECT_TRUE(std::isnan(x[3]));
    EXPECT_NEAR(x[4], std::exp(1.0f), 3e-6);
}

TEST(VectorMathTest, RampScaleMultiply) {
    std::vector<float> x(37);
    vec::ramp(x.data(), 37, 2.0f, 0.5f);
    for (size_t i = 0; i < x.size(); ++i)
        EXPECT_EQ(x[i], 2.0f + static_cast<float>(i) * 0.5f);
    std::vector<float> y(37, 3.0f);
    vec::multiply(x.data(), y.data(), 37);
    vec::scale(x.data(), 37, 0.25f);
    for (size_t i = 0; i < x.size(); ++i)
        EXPECT_EQ(x[i], (2.0f + static_cast<float>(i) * 0.5f) * 3.0f * 0.25f);
}

} // namespace
} // namespace harlune
