#include <gtest/gtest.h>
#include <unistd.h>

#include "rem_test_model.h"

using rem_test::Outcome;
using rem_test::read_text;
using test_support::repeat;

namespace {

// The example text printed after an error in the header.  Some of its lines
// have no line end, so that the next one follows on the same output line.
// In `subjects`, "." stands for a line "...".
std::string example() {
    auto files = [](int group, const std::string &subjects) {
        std::string r;
        for (char c : subjects)
            r += c == '.' ? std::string("...\n")
                          : "../group" + std::to_string(group) + "/subject" + c + "/S-1.bfloat\n";
        return r;
    };
    const std::string head =
        "\nExample input file:\n\n"
        "smoothing 0.5 1.5  # [prior smoothing (mm)] [smoothing for var. ratio]\n"
        "conditions p c p-c # mandatory; Statistical tests MUST be included\n";
    return head + "event p # pre-treated group\n" +
           "../group1/subject1/S-1.bfloat # any previous output file\n"
           "../group1/subject2/S-1.bfloat # same output file, but diffent analysis\n" +
           files(1, "n") + "event c # control group" + files(2, "12n.") + "\nOR\n\n" + head +
           "event p square # pre-treated group, DC level\n"
           "0 7            # start, stop files; there could be more entries below\n"
           "event P ramp   # pre-treated group, linear change over time"
           "0 7            # start, stop files\n"
           "event c square # pre-treated group, DC level\n"
           "8 15           # start, stop files\n"
           "event C ramp   # pre-treated group, linear change over time"
           "8 15           # start, stop files\n"
           "measurements:" +
           files(1, "123.nn") + files(2, "123.n.");
}

}  // namespace

// Files listed under their events: header keywords only before the first
// event line, every event square, an event line without files gives an event
// of 0 samples.
TEST(ControlFile, ListedLayout) {
    Outcome o = read_text(
        "# two groups\nmultiple-comparisons 12\nreml classic\nreml converged\n\nsmooth 0.5 1.5\n"
        "smoothness stated\nsmoothness  estimated # from the data\n"
        "conditions p c\tp-c # the tests\n"
        "event p ramp\na.bfloat 0.5\nconditions  # not a keyword any more\n   \n"
        "event q\nsubjects c anything\nc.bfloat\n");
    EXPECT_EQ(o.result, 0);
    EXPECT_EQ(o.out,
              "\nSQUARE event p has 2 samples:\n"
              "file[0] = a.bfloat , magnitude = 0.5\nfile[1] = conditions , magnitude = 1\n"
              "\nSQUARE event q has 0 samples:\n"
              "\nSQUARE event c has 1 samples:\nfile[0] = c.bfloat , magnitude = 1\n");
    EXPECT_EQ(REM_input.multiple_comparisons, 12);
    EXPECT_EQ(REM_input.prior_smoothing, 0.5f);
    EXPECT_EQ(REM_input.ratio_smoothing, 1.5f);
    EXPECT_STREQ(REM_input.conditions, "p c\tp-c ");
    EXPECT_EQ(REM_input.weights_given, 1);
    EXPECT_EQ(REM_input.reml_method, REM_REML_CONVERGED);
    EXPECT_EQ(REM_input.smoothness_method, REM_SMOOTHNESS_ESTIMATED);
    EXPECT_EQ(REM.initialized, 1);
    EXPECT_EQ(REM.design[0][0], 2.0f / 3.0f);  // weight 0.5 over the mean weight 0.75
}

// Events as ranges of file indices: a blank or comment line ends a range list,
// stray lines are ignored until "measurements", after which every line is a
// file; files in no event draw a warning.
TEST(ControlFile, OverlappingLayout) {
    Outcome o = read_text(
        "conditions p P\nevent p square\n0 1\n2 2   \n\n"
        "event P ramp # rising\n0 2\n# a comment line ends the list\n4 4\n"
        "stray line\nmeasurements: anything\n"
        "a.bfloat 2\nevent x\nc.bfloat\n\nd.bfloat\n");
    EXPECT_EQ(o.result, 0);
    EXPECT_EQ(o.out,
              "Warning: file 3 [ d.bfloat ] is not included in any events!\n"
              "\nSQUARE event p has 3 samples:\n0 1   (ON, OFF)\n2 2   (ON, OFF)\n"
              "\nRAMP event P has 3 samples:\n0 2   (ON, OFF)\n"
              "measurement files:\n"
              "file[0] = a.bfloat , magnitude = 2\nfile[1] = event , magnitude = 1\n"
              "file[2] = c.bfloat , magnitude = 1\nfile[3] = d.bfloat , magnitude = 1\n");
    EXPECT_EQ(REM_input.weights_given, 0);
    EXPECT_EQ(REM_input.reml_method, REM_REML_CLASSIC);  // without the line
    EXPECT_EQ(REM_input.smoothness_method, REM_SMOOTHNESS_STATED);
    EXPECT_EQ(REM.design[0][1], -1.5f);  // weight 2 over the mean weight 4/3
}

// A file without any event line ends with one event numbered 0, which has no
// character, so the input description stops the process, as it does for an
// event named "," (no event character, but a number, -1: the line is taken).
TEST(ControlFile, EventsWithoutCharacterEndTheRun) {
    // The child runs the test afresh, so that its exit removes only its own
    // temporary files.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    test_support::TempDir dir;
    const std::string path = dir.file("no-event.txt");
    const std::pair<const char *, const char *> cases[] = {
        {"smoothing 1 2\nconditions p\n",
         "^Programming error: event number 0 apparently is not defined!\n$"},
        {"event p\na\nsessions ,\n",
         "^\nSQUARE event p has 1 samples:\nfile\\[0\\] = a , magnitude = 1\n"
         "Programming error: event number -1 apparently is not defined!\n$"},
    };
    for (const auto &c : cases) {
        test_support::write_file(path, c.first);
        // The messages go to standard output; send them to standard error.
        EXPECT_EXIT((fflush(stdout), dup2(2, 1), REM_read_control_file(path.c_str())),
                    testing::ExitedWithCode(1), c.second);
    }
}

// Each refusal with its message; a header error adds the line number of the
// non-blank line and the example text.  At the capacities the file is read.
TEST(ControlFile, RefusalsAndCapacities) {
    const std::string kReml = "Error: `reml' requires one argument: classic or converged.\n";
    const std::string pc = "design p c\nmeasurements\n";
    const std::string event_line =
        " is an event line; with a `design' line the files follow `measurements', each with "
        "one value per design column.\n";
    const std::string not_finite = "' of design column c is not a finite number.\n";
    const struct {
        std::string text, out;
        int header_line = 0;
    } cases[] = {
        {"smoothing 1\n",
         "Error: `smoothing' requires 2 arguments (mm).\n"
         "1) width of smoothing kernel in prior analysis,\n"
         "2) width of smoothing kernel used to boost random-effects DOF\n",
         1},
        {"smooth 1 2\n# note\nconditions p\n\nfoo 1\nevent p\n", "", 3},
        {"smooth -INF 1e39\nevent p\na\n",
         "Error: the `smoothing' widths must be finite numbers (mm), not -inf and inf.\n", 1},
        {"multiple-comparisons x\n",
         "Error: `multiple-comparisons' requires an integer argument.\n", 1},
        {"smooth 1 2\nreml fast\n", kReml, 2},
        {"reml converged classic\n", kReml, 1},
        {"smooth 1 2\nsmoothness Estimated\n",
         "Error: `smoothness' requires one argument: stated or estimated.\n", 2},
        {"event 0\na\n", "Error: event 0 is not an allowed event character.\n", 1},
        {"smooth 1 2\nevent # p\n",
         "Error: 'subjects' or 'sessions' or 'events' requires a character argument.\n", 2},
        {"sessions\n", "Error: event \n is not an allowed event character.\n", 1},
        {"event p flat\n", "Error: the only defined shapes are 'square' and 'ramp'\n", 1},
        {"measurements\nevent p\n0 0\n", "", 1},
        {"conditions" + repeat(" p", 101) + "\nevent p\na\n",
         "Error: 101 conditions are given; at most 100 can be tested.\n", 1},
        // The layout readers.
        {"event p\na\nevent #x\n", "Error: `event' requires a character argument.\n"},
        {"event p\n0 1\n\nevent c\nmeasurements\na\nb\n",
         "The start and stop indices for files should follow event c\n"},
        {"event p\n\nmeasurements\na\n",
         "Error: event p has no starting and ending file indicators.\n"},
        {"event p\n0 0\n\nevent c wave\n0 0\n\nmeasurements\na\n",
         "Error: the only defined shapes are 'square' and 'ramp'\n"},
        {"event p\n0 0\n\nevent\t\nmeasurements\na\n",
         "Error: event \n is not an allowed event character.\n"},
        // File counts beyond the int range are refused like any range too far.
        {"event p\n0 0\n0 2147483647\n\nmeasurements\na\n",
         "Error: the file range 0 2147483647 of event p reaches beyond the last of the 1 "
         "files.\n"},
        {"event p\n0 0\n3 2\n\nmeasurements\na\n",
         "Error: the file range 3 2 of event p (line 3 of file '@') must have 0 <= start <= "
         "stop.\n"},
        {"event p\n-1 0\n\nmeasurements\na\n",
         "Error: the file range -1 0 of event p (line 2 of file '@') must have 0 <= start <= "
         "stop.\n"},
        {"event p\n" + repeat("0 0\n", 101) + "\nmeasurements\na\n",
         "Error: event p has more than 100 file ranges (line 102 of file '@').\n"},
        {repeat("event p\na\n", 101),
         "Error: line 201 of file '@' defines more than 100 events.\n"},
        {"event p\n" + repeat("a\n", 201),
         "Error: line 202 of file '@' lists more than 200 files.\n"},
        {"event p\n" + std::string(1024, 'a') + "\n",
         "Error: line 2 of file '@' is longer than 1023 characters.\n"},
        // The design layout: one line, before any file is read.
        {"design\n", "Error: `design' requires one event character per design column.\n"},
        {"design p cc\n",
         "Error: the `design' columns are named by single event characters (1-9, a-z, A-Z), "
         "not 'cc'.\n"},
        {"design p 0\n",
         "Error: the `design' columns are named by single event characters (1-9, a-z, A-Z), "
         "not '0'.\n"},
        {"design p c p\n", "Error: event p is named twice in the `design' line.\n"},
        {"design p\nsmoothing 1 2\ndesign c\n",
         "Error: line 3 of file '@' repeats the `design' line.\n"},
        {"design p c\nevent p\na\n", "Error: line 2 of file '@'" + event_line},
        {pc + "a 1 0\nsubjects c\n", "Error: line 4 of file '@'" + event_line},
        {"design p c\nconditions p\n",
         "Error: the `design' line of file '@' must be followed by a `measurements' line and "
         "the files, each with one value per design column.\n"},
        {pc + "\n# none\n", "Error: no files follow the `measurements' line of file '@'.\n"},
        {pc + "a 1 0\nb 1\n",
         "Error: line 4 of file '@' gives 1 values for the 2 design columns (p c).\n"},
        {pc + "a\n", "Error: line 3 of file '@' gives 0 values for the 2 design columns (p c).\n"},
        {pc + "a 1 x\n", "Error: line 3 of file '@': the value 'x" + not_finite},
        {pc + "a 1 1e39\n", "Error: line 3 of file '@': the value '1e39" + not_finite},
        {pc + "a 1 0\nb 1 0\nc 1 -0\n",
         "Error: design column c is 0 for every file: the design cannot be estimated.\n"},
        {pc + "a 1 0\nb 0 1\n",
         "Error: 2 files for 2 design columns leave no degrees of freedom for the "
         "random-effects variance.\n"},
        {"design p c a\nmeasurements\na 1 0 1\nb 1 1 0\nc 1 0 1\nd 1 1 0\n",
         "Error: the design columns of events p, c and a are linearly dependent: the design "
         "cannot be estimated.\n"},
        {"design p\nmeasurements\n" + repeat("a 1\n", 201),
         "Error: line 203 of file '@' lists more than 200 files.\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text.substr(0, 60));
        Outcome o = read_text(c.text);
        EXPECT_EQ(o.result, 1);
        std::string out = c.out;
        if (c.header_line > 0)
            out += "Error reading line " + std::to_string(c.header_line) + " of file '@':\n" +
                   example();
        EXPECT_EQ(o.out, out);
    }
    // 100 events, 200 files (in both layouts), a name of 1023 characters; 100 ranges.
    EXPECT_EQ(read_text("design p\nmeasurements\n" + repeat("a 1\n", 200)).result, 0);
    const std::string name(1023, 'n');
    EXPECT_EQ(read_text("event p\n" + repeat("0 0\n", 100) + "\nmeasurements\na\n").result, 0);
    EXPECT_EQ(read_text("event p\n" + name + "\na\n" + repeat("event p\na\na\n", 99)).result, 0);
    EXPECT_EQ(std::string(REM_input.file_name[0]), name);
    EXPECT_EQ(REM.nevents, 100);
    EXPECT_EQ(REM.nfiles, 200);
    // Negative widths are read as they stand.
    EXPECT_EQ(read_text("smoothing -1.5 -3\nevent p\na\n").result, 0);
    EXPECT_EQ(REM_input.prior_smoothing, -1.5f);
    EXPECT_EQ(REM_input.ratio_smoothing, -3.0f);
}

// The example analysis files of the help pages (indented blocks of
// rem-format.txt, one per menu entry) must read without an error.
TEST(ControlFile, HelpExamplesRead) {
    std::istringstream doc(test_support::read_file(std::string(FMRI_REM_SOURCE_DIR) +
                                                   "/documentation/rem-format.txt") +
                           "\n!");
    std::string line, block;
    int read = 0;
    while (std::getline(doc, line)) {
        if (!line.empty() && line[0] == '!') {
            if (block.find("\nevent ") != std::string::npos ||
                block.find("\ndesign ") != std::string::npos) {  // an analysis file
                SCOPED_TRACE(block);
                EXPECT_EQ(read_text(block).result, 0);
                ++read;
            }
            block.clear();
        } else if (line.compare(0, 3, "   ") == 0 || (line.empty() && !block.empty())) {
            block += (line.empty() ? "" : line.substr(3)) + "\n";
        }
    }
    EXPECT_GE(read, 2);
}

// A design matrix of the user's own: the header goes on after "design" up to
// "measurements"; each file line's values are the design's row as written.
TEST(ControlFile, DesignLayout) {
    Outcome o = read_text(
        "# groups p and c, centred age a\nsmoothing 6 8\nconditions p c p-c a 0.5*p+0.5*c\n"
        "design p c a   # columns\nreml converged\n\nmeasurements:\n"
        "s1.bfloat 1 0 -3.25\ns2.bfloat\t0 1 4.75   \n  # a comment\n"
        "s3.bfloat 1 0 1e-1\ns4.bfloat 0 1 -1.6\ns5.bfloat 0 1 .5\n");
    ASSERT_EQ(o.result, 0) << o.out;
    EXPECT_EQ(o.out,
              "\nDESIGN matrix of 5 files and 3 columns, events p c a:\n"
              "file[0] = s1.bfloat , p = 1 , c = 0 , a = -3.25\n"
              "file[1] = s2.bfloat , p = 0 , c = 1 , a = 4.75\n"
              "file[2] = s3.bfloat , p = 1 , c = 0 , a = 0.1\n"
              "file[3] = s4.bfloat , p = 0 , c = 1 , a = -1.6\n"
              "file[4] = s5.bfloat , p = 0 , c = 1 , a = 0.5\n");
    // The description prints the design as the model holds it.
    EXPECT_EQ(REM.design[3][2], -1.6f);
    EXPECT_EQ(REM_input.reml_method, REM_REML_CONVERGED);
    EXPECT_EQ(REM_get_DOF(), 2);
    // After the first event line "design" stays what it was: a stray line
    // of the overlapping layout.
    o = read_text("event p\n0 1\n\ndesign p\nmeasurements\na\nb\n");
    EXPECT_EQ(o.result, 0);
    EXPECT_EQ(REM_input.design_layout, 0);
}
