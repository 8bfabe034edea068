#include <gtest/gtest.h>

#include <cstring>
#include <unistd.h>

#include "rem.h"

TEST(EventCharacters, NumbersAndCharactersMatch) {
    struct Case {
        char c;
        int number;
    } cases[] = {{'1', 1}, {'9', 9}, {'a', 10}, {'p', 25}, {'z', 35},
                 {'A', 36}, {'Z', 61}, {',', -1}, {'0', 0},  {'+', 0},
                 {'-', 0},  {' ', 0},  {'\n', 0}};
    for (const Case &k : cases) {
        EXPECT_EQ(REM_EventNumberFromChar(k.c), k.number) << "character " << int(k.c);
        if (k.number >= 1) {
            char back = 0;
            EXPECT_EQ(REM_EventCharFromInteger(k.number, &back), 0);
            EXPECT_EQ(back, k.c);
            EXPECT_EQ(REM_EventChar(k.number), k.c);
        }
    }
    for (int bad : {0, -1, 62, 100}) {
        char c = 'x';
        EXPECT_EQ(REM_EventCharFromInteger(bad, &c), 1) << bad;
        EXPECT_EQ(c, 'x') << "nothing is stored for " << bad;
    }
}

TEST(EventCharacters, UndefinedNumberIsAProgrammingError) {
    // The message goes to standard output; send it to standard error to match it.
    EXPECT_EXIT(
        {
            dup2(2, 1);
            REM_EventChar(62);
        },
        testing::ExitedWithCode(1), "Programming error: event number 62 apparently is not defined!");
    EXPECT_EXIT(
        {
            dup2(2, 1);
            REM_EventChar(0);
        },
        testing::ExitedWithCode(1), "event number 0 apparently");
}

TEST(Records, EventNumberAndConditionStringByIndex) {
    REM.nevents = 2;
    REM.event_number[0] = 25;
    REM.event_number[1] = 12;
    EXPECT_EQ(REM_get_event_number(0), 25);
    EXPECT_EQ(REM_get_event_number(1), 12);
    EXPECT_EQ(REM_get_event_number(2), 0);
    EXPECT_EQ(REM_get_event_number(-1), 0);

    REM.nconditions = 1;
    std::strcpy(REM.condition_name[0], "p-c");
    std::strcpy(REM.condition_name[1], "stale");
    char text[REM_NAME_LENGTH] = "untouched";
    EXPECT_EQ(REM_get_condition_string(1, text), 1);
    EXPECT_STREQ(text, "untouched");
    EXPECT_EQ(REM_get_condition_string(-1, text), 1);
    EXPECT_EQ(REM_get_condition_string(0, text), 0);
    EXPECT_STREQ(text, "p-c");
}
