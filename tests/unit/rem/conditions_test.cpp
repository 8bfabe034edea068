#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "rem.h"

namespace {

// A model of one file with one event per character of names.
void define_events(const char *names) {
    REM.nfiles = 1;
    REM_input.file_weight[0] = 1.0f;
    REM.nevents = 0;
    for (const char *n = names; *n; ++n) {
        REM.event_number[REM.nevents] = REM_EventNumberFromChar(*n);
        REM.event_nranges[REM.nevents] = 1;
        REM.nevents++;
    }
    REMInternal_define_design_matrix();
    REM.initialized = 1;
}

using Rows = std::vector<std::vector<int>>;

}  // namespace

TEST(Conditions, ContrastsFromText) {
    struct Case {
        const char *text;
        std::vector<Rows> contrasts;  // columns p c d
    } cases[] = {
        {"p c p-c\n", {{{1, 0, 0}}, {{0, 1, 0}}, {{1, -1, 0}}}},
        {"p,c", {{{1, 0, 0}, {0, 1, 0}}}},
        {"p-cd", {{{1, -1, -1}}}},
        {"pc\tc-p,d", {{{1, 1, 0}}, {{-1, 1, 0}, {0, 0, 1}}}},
        {"pp -p", {{{1, 0, 0}}, {{-1, 0, 0}}}},
    };
    define_events("pcd");
    for (const Case &k : cases) {
        int count = -1;
        ASSERT_EQ(REM_define_conditions(k.text, &count), 0) << k.text;
        ASSERT_EQ(count, static_cast<int>(k.contrasts.size())) << k.text;
        EXPECT_EQ(REM.nconditions, count);
        for (int c = 0; c < count; ++c) {
            const Rows &rows = k.contrasts[c];
            ASSERT_EQ(REM.condition_nrows[c], static_cast<int>(rows.size())) << k.text;
            for (size_t r = 0; r < rows.size(); ++r)
                for (int e = 0; e < 3; ++e)
                    EXPECT_EQ(REM.condition_contrast[c][r][e], rows[r][e])
                        << k.text << " condition " << c << " row " << r << " event " << e;
        }
        // Slots beyond the new definition were cleared by the redefinition.
        EXPECT_EQ(REM.condition_contrast[count], nullptr) << k.text;
        EXPECT_EQ(REM.condition_nrows[count], 0) << k.text;
    }
    char name[REM_NAME_LENGTH];
    ASSERT_EQ(REM_get_condition_string(1, name), 0);
    EXPECT_STREQ(name, "-p");
}

TEST(Conditions, OneCharacterSetsEveryEventOfThatName) {
    define_events("pcp");
    int count = 0;
    ASSERT_EQ(REM_define_conditions("p", &count), 0);
    EXPECT_EQ(REM.condition_contrast[0][0][0], 1);
    EXPECT_EQ(REM.condition_contrast[0][0][1], 0);
    EXPECT_EQ(REM.condition_contrast[0][0][2], 1);
}

TEST(Conditions, Errors) {
    struct Case {
        const char *text;
        int result;
        int count;
        const char *output;
    } cases[] = {
        {"p+c", 1, 1, "Error: one of the events in the conditions (0) is not defined.\n"},
        {"p q", 1, 2, "Error: one of the events in the conditions (26) is not defined.\n"},
        {"", 0, 0, ""},
        {" \t\n", 0, 0, ""},
    };
    define_events("pc");
    for (const Case &k : cases) {
        int count = -1;
        testing::internal::CaptureStdout();
        EXPECT_EQ(REM_define_conditions(k.text, &count), k.result) << k.text;
        EXPECT_EQ(testing::internal::GetCapturedStdout(), k.output) << k.text;
        EXPECT_EQ(count, k.count) << k.text;
        EXPECT_EQ(REM.nconditions, k.count) << k.text;
    }

    std::string many;
    for (int i = 0; i < 101; ++i) many += "p ";
    int count = -1;
    testing::internal::CaptureStdout();
    EXPECT_EQ(REM_define_conditions(many.c_str(), &count), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Error: 101 conditions are given; at most 100 can be tested.\n");

    REM.initialized = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(REM_define_conditions("p", &count), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Error: the REM basis functions should be defined before the conditions.\n");
}
