// Line reading, comment removal and blank skipping (the option scanning is
// checked through the command line of whole runs).
#include "util.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "test_support.h"

TEST(GetLine, LongLinesArriveInPiecesAndCommentsAreCut) {
    test_support::TempDir dir;
    const std::string a(1023, 'a'), b(477, 'b');
    // 1500-character lines; the second has a comment in its second piece.
    test_support::write_file(dir.file("t"), a + b + "\n" + a + "xx#" + b + "\n" +
                                                "abc # comment\nabc\n# only a comment\na#b#c");
    FILE *f = fopen(dir.file("t").c_str(), "r");
    ASSERT_NE(f, nullptr);
    char buffer[1024];
    ASSERT_EQ(get_line(f, buffer), buffer);
    EXPECT_EQ(std::string(buffer), a);
    ASSERT_EQ(get_line(f, buffer), buffer);
    EXPECT_EQ(std::string(buffer), b + "\n");
    for (const std::string &expected : {a, std::string("xx"), std::string("abc "),
                                        std::string("abc\n"), std::string(""), std::string("a")}) {
        ASSERT_NE(get_line_with_comment(f, buffer), 0) << expected;
        EXPECT_EQ(std::string(buffer), expected);
    }
    EXPECT_EQ(get_line(f, buffer), nullptr);
    EXPECT_EQ(get_line_with_comment(f, buffer), 0);
    fclose(f);
}

TEST(NextNonWhite, SkipsOnlyBlanksAndTabs) {
    const std::pair<const char *, size_t> cases[] = {
        {"word", 0}, {"\t \tword", 3}, {"   ", 3}, {" \n", 1}, {"\r x", 0},
    };
    for (const auto &c : cases) EXPECT_EQ(next_non_white(c.first), c.first + c.second) << c.first;
}
