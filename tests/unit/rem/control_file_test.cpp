#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "rem.h"
#include "test_support.h"

namespace {

const char *const kExample =
    "\nExample input file:\n\n"
    "smoothing 0.5 1.5  # [prior smoothing (mm)] [smoothing for var. ratio]\n"
    "conditions p c p-c # mandatory; Statistical tests MUST be included\n"
    "event p # pre-treated group\n"
    "../group1/subject1/S-1.bfloat # any previous output file\n"
    "../group1/subject2/S-1.bfloat # same output file, but diffent analysis\n"
    "../group1/subjectn/S-1.bfloat\n"
    "event c # control group../group2/subject1/S-1.bfloat\n"
    "../group2/subject2/S-1.bfloat\n"
    "../group2/subjectn/S-1.bfloat\n"
    "...\n"
    "\nOR\n\n"
    "\nExample input file:\n\n"
    "smoothing 0.5 1.5  # [prior smoothing (mm)] [smoothing for var. ratio]\n"
    "conditions p c p-c # mandatory; Statistical tests MUST be included\n"
    "event p square # pre-treated group, DC level\n"
    "0 7            # start, stop files; there could be more entries below\n"
    "event P ramp   # pre-treated group, linear change over time0 7            # start, stop "
    "files\n"
    "event c square # pre-treated group, DC level\n"
    "8 15           # start, stop files\n"
    "event C ramp   # pre-treated group, linear change over time8 15           # start, stop "
    "files\n"
    "measurements:../group1/subject1/S-1.bfloat\n"
    "../group1/subject2/S-1.bfloat\n"
    "../group1/subject3/S-1.bfloat\n"
    "...\n"
    "../group1/subjectn/S-1.bfloat\n"
    "../group1/subjectn/S-1.bfloat\n"
    "../group2/subject1/S-1.bfloat\n"
    "../group2/subject2/S-1.bfloat\n"
    "../group2/subject3/S-1.bfloat\n"
    "...\n"
    "../group2/subjectn/S-1.bfloat\n"
    "...\n";

struct Outcome {
    int result;
    std::string out;
};

// Reads text as a control file; "@" in the output stands for the file's path.
Outcome read_text(const std::string &text) {
    static test_support::TempDir dir;
    const std::string path = dir.file("analysis.txt");
    test_support::write_file(path, text);
    testing::internal::CaptureStdout();
    int result = REM_read_control_file(path.c_str());
    std::string out = testing::internal::GetCapturedStdout();
    for (size_t at = out.find(path); at != std::string::npos; at = out.find(path, at + 1))
        out.replace(at, path.size(), "@");
    return {result, out};
}

std::string repeat(const std::string &s, int n) {
    std::string r;
    while (n-- > 0) r += s;
    return r;
}

std::string header_error(int line) {
    return "Error reading line " + std::to_string(line) + " of file '@':\n" + kExample;
}

}  // namespace

TEST(ControlFile, ListedLayout) {
    Outcome o = read_text(
        "# two groups\n"
        "multiple-comparisons 12\n"
        "\n"
        "smooth 0.5 1.5\n"
        "conditions p c\tp-c # the tests\n"
        "event p ramp\n"
        "a.bfloat 2\n"
        "conditions  # not a keyword any more\n"
        "   \n"
        "subjects c anything\n"
        "c.bfloat\n");
    EXPECT_EQ(o.result, 0);
    EXPECT_EQ(o.out,
              "\nSQUARE event p has 2 samples:\n"
              "file[0] = a.bfloat , magnitude = 2\n"
              "file[1] = conditions , magnitude = 1\n"
              "\nSQUARE event c has 1 samples:\n"
              "file[0] = c.bfloat , magnitude = 1\n");
    EXPECT_EQ(REM_input.multiple_comparisons, 12);
    EXPECT_EQ(REM_input.prior_smoothing, 0.5f);
    EXPECT_EQ(REM_input.ratio_smoothing, 1.5f);
    EXPECT_STREQ(REM_input.conditions, "p c\tp-c ");
    EXPECT_EQ(REM_input.weights_given, 1);
    EXPECT_EQ(REM.initialized, 1);
    EXPECT_EQ(REM.design[0][0], 4.0f / 3.0f);  // weight 2 over the mean weight 1.5
}

TEST(ControlFile, OverlappingLayout) {
    Outcome o = read_text(
        "conditions p P\n"
        "event p square\n"
        "0 1\n"
        "2 2   \n"
        "\n"
        "event P ramp # rising\n"
        "0 2\n"
        "# a comment line ends the list\n"
        "4 4\n"
        "stray line\n"
        "measurements: anything\n"
        "a.bfloat 2\n"
        "event x\n"
        "c.bfloat\n"
        "\n"
        "d.bfloat\n"
        "e.bfloat 0.5\n");
    EXPECT_EQ(o.result, 0);
    EXPECT_EQ(o.out,
              "Warning: file 3 [ d.bfloat ] is not included in any events!\n"
              "Warning: file 4 [ e.bfloat ] is not included in any events!\n"
              "\nSQUARE event p has 3 samples:\n0 1   (ON, OFF)\n2 2   (ON, OFF)\n"
              "\nRAMP event P has 3 samples:\n0 2   (ON, OFF)\n"
              "measurement files:\n"
              "file[0] = a.bfloat , magnitude = 2\n"
              "file[1] = event , magnitude = 1\n"
              "file[2] = c.bfloat , magnitude = 1\n"
              "file[3] = d.bfloat , magnitude = 1\n"
              "file[4] = e.bfloat , magnitude = 0.5\n");
    EXPECT_EQ(REM_input.weights_given, 0);
    EXPECT_EQ(REM.design[0][1], -1.5f);  // weight 2 over the mean weight 4/3
    EXPECT_EQ(REM.design[4][0], 0.0f);
}

// An event line without files gives an event of 0 samples; a file without any
// event line ends with one event numbered 0, which has no character, so the
// input description stops the process, as it does for an event named ",".
TEST(ControlFile, EventsWithoutFiles) {
    Outcome o = read_text("event p\nevent c\na\n");
    EXPECT_EQ(o.result, 0);
    EXPECT_EQ(o.out,
              "\nSQUARE event p has 0 samples:\n"
              "\nSQUARE event c has 1 samples:\n"
              "file[0] = a , magnitude = 1\n");

    // The child runs the test afresh, so that its exit removes only its own
    // temporary files.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    test_support::TempDir dir;
    const std::string path = dir.file("no-event.txt");
    test_support::write_file(path, "smoothing 1 2\nconditions p\n");
    EXPECT_EXIT(
        {
            dup2(2, 1);  // match the message on standard error
            REM_read_control_file(path.c_str());
        },
        testing::ExitedWithCode(1),
        "^Programming error: event number 0 apparently is not defined!\n$");

    // The comma is no event character but has a number (-1): the event line
    // is taken, and describing it ends the run.
    test_support::write_file(path, "event p\na\nsessions ,\n");
    EXPECT_EXIT(
        {
            dup2(2, 1);
            REM_read_control_file(path.c_str());
        },
        testing::ExitedWithCode(1),
        "^\nSQUARE event p has 1 samples:\nfile\\[0\\] = a , magnitude = 1\n"
        "Programming error: event number -1 apparently is not defined!\n$");
}

// Each refusal with its message; at the capacities themselves the file is read.
TEST(ControlFile, RefusalsAndCapacities) {
    struct Case {
        const char *what;
        std::string text;
        std::string out;  // for a refusal
        int result = 1;
    } cases[] = {
        {"one smoothing width", "smoothing 1\n",
         "Error: `smoothing' requires 2 arguments (mm).\n"
         "1) width of smoothing kernel in prior analysis,\n"
         "2) width of smoothing kernel used to boost random-effects DOF\n" +
             header_error(1)},
        {"unknown word", "smooth 1 2\n# note\nconditions p\n\nfoo 1\nevent p\n", header_error(3)},
        {"no integer", "multiple-comparisons x\n",
         "Error: `multiple-comparisons' requires an integer argument.\n" + header_error(1)},
        {"event 0", "event 0\na\n",
         "Error: event 0 is not an allowed event character.\n" + header_error(1)},
        {"event cut by a comment", "smooth 1 2\nevent # p\n",
         "Error: 'subjects' or 'sessions' or 'events' requires a character argument.\n" +
             header_error(2)},
        {"event then line end", "sessions\n",
         "Error: event \n is not an allowed event character.\n" + header_error(1)},
        {"unknown shape", "event p flat\n",
         "Error: the only defined shapes are 'square' and 'ramp'\n" + header_error(1)},
        {"measurements in the header", "measurements\nevent p\n0 0\n", header_error(1)},
        {"listed: event without character", "event p\na\nevent #x\n",
         "Error: `event' requires a character argument.\n"},
        {"index list not ended", "event p\n0 1\n\nevent c\nmeasurements\na\nb\n",
         "The start and stop indices for files should follow event c\n"},
        {"event without ranges", "event p\n\nmeasurements\na\n",
         "Error: event p has no starting and ending file indicators.\n"},
        {"overlapping: unknown shape", "event p\n0 0\n\nevent c wave\n0 0\n\nmeasurements\na\n",
         "Error: the only defined shapes are 'square' and 'ramp'\n"},
        {"overlapping: event without character", "event p\n0 0\n\nevent\t\nmeasurements\na\n",
         "Error: event \n is not an allowed event character.\n"},
        {"stop beyond the files", "event p\n0 2\n\nmeasurements\na\nb\n",
         "Error: the file range 0 2 of event p reaches beyond the last of the 2 files.\n"},
        {"start after stop", "event p\n0 0\n3 2\n\nmeasurements\na\n",
         "Error: the file range 3 2 of event p (line 3 of file '@') must have 0 <= start <= "
         "stop.\n"},
        {"negative start", "event p\n-1 0\n\nmeasurements\na\n",
         "Error: the file range -1 0 of event p (line 2 of file '@') must have 0 <= start <= "
         "stop.\n"},
        {"101 ranges", "event p\n" + repeat("0 0\n", 101) + "\nmeasurements\na\n",
         "Error: event p has more than 100 file ranges (line 102 of file '@').\n"},
        {"101 events", repeat("event p\na\n", 101),
         "Error: line 201 of file '@' defines more than 100 events.\n"},
        {"201 files", "event p\n" + repeat("a\n", 201),
         "Error: line 202 of file '@' lists more than 200 files.\n"},
        {"1024-character line", "event p\n" + std::string(1024, 'a') + "\n",
         "Error: line 2 of file '@' is longer than 1023 characters.\n"},
        {"101 conditions", "conditions" + repeat(" p", 101) + "\nevent p\na\n",
         "Error: 101 conditions are given; at most 100 can be tested.\n" + header_error(1)},
        {"100 events", repeat("event p\na\n", 100), "", 0},
        {"200 files", "event p\n" + repeat("a\n", 200), "", 0},
        {"100 ranges", "event p\n" + repeat("0 0\n", 100) + "\nmeasurements\na\n", "", 0},
        {"1023-character name", "event p\n" + std::string(1023, 'n') + "\n", "", 0},
    };
    for (const Case &k : cases) {
        Outcome o = read_text(k.text);
        EXPECT_EQ(o.result, k.result) << k.what;
        if (k.result != 0) {
            EXPECT_EQ(o.out, k.out) << k.what;
        }
    }
    EXPECT_EQ(std::string(REM_input.file_name[0]), std::string(1023, 'n'));

    testing::internal::CaptureStdout();
    EXPECT_EQ(REM_read_control_file("/nonexistent/analysis.txt"), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Error: cannot open the file /nonexistent/analysis.txt.\n");
}

// The example analysis files of the help pages (indented blocks of
// rem-format.txt, one per menu entry) must read without an error.
TEST(ControlFile, HelpExamplesRead) {
    std::istringstream doc(
        test_support::read_file(std::string(FMRI_REM_SOURCE_DIR) + "/documentation/rem-format.txt"));
    std::vector<std::string> examples;
    std::string line, block;
    while (std::getline(doc, line)) {
        if (!line.empty() && line[0] == '!') {
            if (!block.empty()) examples.push_back(block);
            block.clear();
        } else if (line.compare(0, 3, "   ") == 0 || (line.empty() && !block.empty())) {
            block += (line.empty() ? "" : line.substr(3)) + "\n";
        }
    }
    if (!block.empty()) examples.push_back(block);

    int read = 0;
    for (const std::string &text : examples) {
        if (text.find("\nevent ") == std::string::npos) continue;  // not an analysis file
        SCOPED_TRACE(text);
        EXPECT_EQ(read_text(text).result, 0);
        ++read;
    }
    EXPECT_GE(read, 2);
}
