// Line reading, comment removal, blank skipping and option scanning.
#include "util.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "test_support.h"

using test_support::TempDir;
using test_support::write_file;

namespace {

FILE *open_text(const TempDir &dir, const std::string &text) {
    write_file(dir.file("text"), text);
    return fopen(dir.file("text").c_str(), "r");
}

}  // namespace

TEST(GetLine, LongLineArrivesInPiecesOf1023) {
    TempDir dir;
    const std::string first(1023, 'a');
    const std::string rest(477, 'b');
    FILE *f = open_text(dir, first + rest + "\nnext\n");
    ASSERT_NE(f, nullptr);
    char buffer[1024];
    ASSERT_EQ(get_line(f, buffer), buffer);
    EXPECT_EQ(std::string(buffer), first);
    ASSERT_EQ(get_line(f, buffer), buffer);
    EXPECT_EQ(std::string(buffer), rest + "\n");
    ASSERT_NE(get_line(f, buffer), nullptr);
    EXPECT_STREQ(buffer, "next\n");
    EXPECT_EQ(get_line(f, buffer), nullptr);
    fclose(f);
}

TEST(GetLineWithComment, CutsAtFirstHash) {
    struct Case {
        const char *line;
        const char *expected;
    };
    const Case cases[] = {
        {"abc # comment\n", "abc "},
        {"abc\n", "abc\n"},
        {"# only a comment\n", ""},
        {"a#b#c\n", "a"},
        {"\n", "\n"},
        {"last line without end", "last line without end"},
    };
    for (const Case &c : cases) {
        TempDir dir;
        FILE *f = open_text(dir, c.line);
        ASSERT_NE(f, nullptr);
        char buffer[1024];
        EXPECT_NE(get_line_with_comment(f, buffer), 0) << c.line;
        EXPECT_STREQ(buffer, c.expected) << c.line;
        EXPECT_EQ(get_line_with_comment(f, buffer), 0) << "end of file after " << c.line;
        fclose(f);
    }
}

TEST(GetLineWithComment, CommentInSecondPieceOfLongLine) {
    TempDir dir;
    const std::string text = std::string(1100, 'x') + "#" + std::string(300, 'y') + "\n";
    FILE *f = open_text(dir, text);
    ASSERT_NE(f, nullptr);
    char buffer[1024];
    ASSERT_NE(get_line_with_comment(f, buffer), 0);
    EXPECT_EQ(std::string(buffer), std::string(1023, 'x'));
    ASSERT_NE(get_line_with_comment(f, buffer), 0);
    EXPECT_EQ(std::string(buffer), std::string(77, 'x'));
    fclose(f);
}

TEST(NextNonWhite, SkipsOnlyBlanksAndTabs) {
    struct Case {
        const char *text;
        size_t offset;
    };
    const Case cases[] = {
        {"word", 0}, {"  word", 2}, {"\t \tword", 3}, {"   ", 3},
        {"", 0},     {" \n", 1},    {"\r x", 0},     {" \v x", 1},
    };
    for (const Case &c : cases)
        EXPECT_EQ(next_non_white(c.text), c.text + c.offset) << '"' << c.text << '"';
}

// The scanner's position is static and never reset, so every scenario runs
// in a child process of its own (and the test process itself never calls it).
namespace {

struct Call {
    int result;
    int index;  // expected index after the call
};

void run_scenario(const std::vector<std::string> &words, const std::vector<Call> &calls) {
    std::vector<std::string> storage(words);
    std::vector<char *> argv;
    for (std::string &w : storage) argv.push_back(&w[0]);
    argv.push_back(nullptr);
    const int argc = static_cast<int>(words.size());
    int index = -99;
    for (size_t n = 0; n < calls.size(); ++n) {
        const int result = my_getopt(argc, argv.data(), "hHri:", &index);
        if (result != calls[n].result || index != calls[n].index) {
            fprintf(stderr, "call %zu: got %d (index %d), expected %d (index %d)\n", n, result,
                    index, calls[n].result, calls[n].index);
            _exit(1);
        }
    }
    _exit(0);
}

}  // namespace

TEST(MyGetopt, ScenariosInFreshProcesses) {
    struct Scenario {
        std::vector<std::string> words;
        std::vector<Call> calls;
    };
    const Scenario scenarios[] = {
        {{"prog", "-r", "data.txt"}, {{'r', 1}, {'i', 2}, {0, 2}, {0, 2}}},
        {{"prog", "-i"}, {{'i', 2}, {0, 2}}},
        {{"prog", "-x"}, {{-1, 1}, {-1, 1}, {-1, 1}}},
        {{"prog"}, {{0, -99}}},
        {{"prog", "-i", "a.txt", "-h", "-H"}, {{'i', 2}, {'h', 3}, {'H', 4}, {0, 4}}},
        {{"prog", "-hx", "-Hq"}, {{'h', 1}, {'H', 2}, {0, 2}}},
        {{"prog", "-"}, {{-1, 1}, {-1, 1}}},
        {{"prog", "file.txt", "-r"}, {{'i', 1}, {'r', 2}, {0, 2}}},
        {{"prog", "-i", "a", "-i", "b"}, {{'i', 2}, {'i', 4}, {0, 4}}},
        {{"prog", "-r", "-z", "-h"}, {{'r', 1}, {-1, 2}, {-1, 2}}},
        {{"prog", "", "-r"}, {{'i', 1}, {'r', 2}}},
    };
    for (const Scenario &s : scenarios) {
        std::string label;
        for (const std::string &w : s.words) label += "'" + w + "' ";
        EXPECT_EXIT(run_scenario(s.words, s.calls), testing::ExitedWithCode(0), "") << label;
    }
}
