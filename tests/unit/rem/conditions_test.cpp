#include <gtest/gtest.h>

#include "rem_test_model.h"

namespace {

// A model of one file with one event per character of names.
void define_events(const std::string &names) {
    rem_test::build_model(1, std::vector<rem_test::Event>(names.size(), {0, {{0, 0}}}));
    for (size_t e = 0; e < names.size(); ++e)
        REM.event_number[e] = REM_EventNumberFromChar(names[e]);
}

}  // namespace

TEST(Conditions, ContrastsFromText) {
    using Rows = std::vector<std::vector<float>>;
    const struct {
        const char *text;
        std::vector<Rows> contrasts;  // columns p c d p (two events are named p)
    } cases[] = {
        {"p c p-c\n", {{{1, 0, 0, 1}}, {{0, 1, 0, 0}}, {{1, -1, 0, 1}}}},
        {"p,c", {{{1, 0, 0, 1}, {0, 1, 0, 0}}}},
        {"p-cd", {{{1, -1, -1, 1}}}},
        {"cd\tc-p,d", {{{0, 1, 1, 0}}, {{-1, 1, 0, -1}, {0, 0, 1, 0}}}},
        // Coefficients: a number before "*" scales its one event character.
        {"0.5*p+0.5*c", {{{0.5f, 0.5f, 0, 0.5f}}}},
        {"p-2*cd", {{{1, -2, -1, 1}}}},
        {"-1.25*d,.5*c+p 10*p", {{{0, 0, -1.25f, 0}, {1, 0.5f, 0, 1}}, {{10, 0, 0, 10}}}},
        {"pp -p", {{{1, 0, 0, 1}}, {{-1, 0, 0, -1}}}},
    };
    define_events("pcdp");
    for (const auto &k : cases) {
        SCOPED_TRACE(k.text);
        int count = -1;
        ASSERT_EQ(REM_define_conditions(k.text, &count), 0);
        ASSERT_EQ(count, static_cast<int>(k.contrasts.size()));
        for (int c = 0; c < count; ++c) {
            ASSERT_EQ(REM.condition_nrows[c], static_cast<int>(k.contrasts[c].size()));
            for (size_t r = 0; r < k.contrasts[c].size(); ++r)
                for (int e = 0; e < 4; ++e)
                    EXPECT_EQ(REM.condition_contrast[c][r][e], k.contrasts[c][r][e])
                        << "condition " << c << " row " << r << " event " << e;
        }
        // Slots beyond the new definition were cleared by the redefinition.
        EXPECT_EQ(REM.condition_contrast[count], nullptr);
    }
    char name[REM_NAME_LENGTH] = "untouched";
    EXPECT_EQ(REM_get_condition_string(2, name), 1);
    EXPECT_STREQ(name, "untouched");
    ASSERT_EQ(REM_get_condition_string(1, name), 0);
    EXPECT_STREQ(name, "-p");
}

// The message of too many conditions is checked with the analysis file.
TEST(Conditions, Errors) {
    define_events("pc");
    const struct {
        const char *text;
        const char *message;
    } cases[] = {
        {"p*c", "Error: one of the events in the conditions (0) is not defined.\n"},
        {"p-2*q", "Error: one of the events in the conditions (26) is not defined.\n"},
        {"p-2*",
         "Error: the coefficient 2* in condition p-2* must be followed by an event character.\n"},
        {"1.2.3*p",
         "Error: the coefficient 1.2.3 in condition 1.2.3*p is not a finite decimal number.\n"},
        {"1000000000000000000000000000000000000000*p",
         "Error: the coefficient 1000000000000000000000000000000000000000 in condition "
         "1000000000000000000000000000000000000000*p is not a finite decimal number.\n"},
    };
    int count = -1;
    for (const auto &k : cases) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(REM_define_conditions(k.text, &count), 1);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), k.message) << k.text;
    }
    // Digits name events unless a "*" follows them.
    define_events("p2");
    ASSERT_EQ(REM_define_conditions("p-2,2*2", &count), 0);
    EXPECT_EQ(REM.condition_contrast[0][0][1], -1.0f);
    EXPECT_EQ(REM.condition_contrast[0][1][1], 2.0f);

    testing::internal::CaptureStdout();
    EXPECT_EQ(REM_define_conditions(" \t\n", &count), 0);
    EXPECT_EQ(count, 0);
    REM.initialized = 0;
    EXPECT_EQ(REM_define_conditions("p", &count), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Error: the REM basis functions should be defined before the conditions.\n");
}
