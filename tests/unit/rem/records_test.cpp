#include <gtest/gtest.h>

#include "rem.h"

TEST(EventCharacters, NumbersAndCharactersMatch) {
    const struct {
        char c;
        int number;
    } cases[] = {{'1', 1},  {'9', 9}, {'a', 10}, {'z', 35}, {'A', 36}, {'Z', 61},
                 {',', -1}, {'0', 0}, {'+', 0},  {'-', 0},  {' ', 0},  {'\n', 0}};
    for (const auto &k : cases) {
        EXPECT_EQ(REM_EventNumberFromChar(k.c), k.number) << int(k.c);
        if (k.number < 1) continue;
        char back = 0;
        EXPECT_EQ(REM_EventCharFromInteger(k.number, &back), 0);
        EXPECT_EQ(back, k.c);
        EXPECT_EQ(REM_EventChar(k.number), k.c);
    }
    for (int bad : {0, -1, 62}) {
        char c = 'x';
        EXPECT_EQ(REM_EventCharFromInteger(bad, &c), 1) << bad;
        EXPECT_EQ(c, 'x') << bad;
    }
}
