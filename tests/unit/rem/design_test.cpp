#include <gtest/gtest.h>

#include "rem_test_model.h"

using rem_test::Event;

namespace {

// Builds the design of the events (named 1, 2, ...) over files with the given
// weights and returns what the design step printed.
std::string build(const std::vector<float> &weights, const std::vector<Event> &events) {
    testing::internal::CaptureStdout();
    rem_test::build_model(static_cast<int>(weights.size()), events, weights);
    return testing::internal::GetCapturedStdout();
}

}  // namespace

TEST(DesignMatrix, ColumnsScaledByMeanWeightOfLastRange) {
    const struct {
        const char *what;
        std::vector<float> weights;
        std::vector<Event> events;
        std::vector<std::vector<float>> rows;
    } cases[] = {
        {"weights 2 2 4", {2, 2, 4}, {{0, {{0, 2}}}}, {{0.75f}, {0.75f}, {1.5f}}},
        {"negative weights keep their sign", {-2, -2}, {{0, {{0, 1}}}}, {{-1}, {-1}}},
        {"file 2 in no event",
         {1, 1, 1, 1},
         {{0, {{0, 1}}}, {0, {{3, 3}}}},
         {{1, 0}, {1, 0}, {0, 0}, {0, 1}}},
        {"the last range sets the scale",
         {1, 1, 4, 4},
         {{0, {{0, 1}, {2, 3}}}},
         {{0.25f}, {0.25f}, {1}, {1}}},
        {"overlapping ramp ranges: the last decides",
         {1, 1, 1, 1, 1},
         {{1, {{0, 4}, {2, 3}}}},
         {{-1}, {-0.5f}, {-1}, {1}, {1}}},
    };
    for (const auto &k : cases) {
        build(k.weights, k.events);
        for (size_t i = 0; i < k.rows.size(); ++i)
            for (size_t e = 0; e < k.rows[i].size(); ++e)
                EXPECT_EQ(REM.design[i][e], k.rows[i][e]) << k.what << " (" << i << "," << e << ")";
    }
}

TEST(DesignMatrix, DegenerateScalesWarnButKeepTheirValues) {
    EXPECT_EQ(build({1, 1, 1}, {{1, {{0, 1}, {2, 2}}}}),
              "Warning: ramp event 1 has a range of the single file 2; its design value is "
              "not a number.\n");
    EXPECT_EQ(REM.design[0][0], -1.0f);
    EXPECT_TRUE(std::isnan(REM.design[2][0]));

    EXPECT_EQ(build({0, 0, 1}, {{0, {{0, 1}}}}),
              "Warning: the file weights of event 1 average 0 over files 0 to 1; its "
              "design values are not finite.\n");
    EXPECT_TRUE(std::isnan(REM.design[0][0]));
    EXPECT_EQ(REM.design[2][0], 0.0f);
}
