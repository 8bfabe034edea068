// Line reading, comment removal, blank skipping and option scanning.
#include "util.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

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

// The scanner's position is static and never reset, so each scenario runs in
// a child process of its own; this process never calls the scanner itself.
// The child reports four calls, each as its result (a letter, 0 or -1) and
// the index after it (-9: not written).
void run_scenario(std::vector<std::string> words) {
    std::vector<char *> argv;
    for (std::string &w : words) argv.push_back(&w[0]);
    int index = -9;
    for (int call = 0; call < 4; ++call) {
        const int result = my_getopt(static_cast<int>(words.size()), argv.data(), "hHri:", &index);
        fprintf(stderr, result > 0 ? "%c@%d " : "%d@%d ", result, index);
    }
    _exit(0);
}

TEST(MyGetopt, ScenariosInFreshProcesses) {
    const std::pair<std::vector<std::string>, const char *> scenarios[] = {
        {{"prog", "-r", "data.txt"}, "r@1 i@2 0@2 0@2 "},
        {{"prog", "-i"}, "i@2 0@2 0@2 0@2 "},
        {{"prog", "-x"}, "-1@1 -1@1 -1@1 -1@1 "},
        {{"prog"}, "0@-9 0@-9 0@-9 0@-9 "},
        {{"prog", "-i", "a.txt", "-h", "-H"}, "i@2 h@3 H@4 0@4 "},
        {{"prog", "-hx", "-"}, "h@1 -1@2 -1@2 -1@2 "},
    };
    for (const auto &s : scenarios)
        EXPECT_EXIT(run_scenario(s.first), testing::ExitedWithCode(0), s.second) << s.second;
}
