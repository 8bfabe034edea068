// The command lines of the companion programs: a bad value gives one
// "Error: ..." line and status 1 and leaves nothing behind, nor does a failed
// write; --version names the program and the project's version; a study
// written into a folder that exists replaces its files of the same names only,
// and the same seed gives the same study.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "test_support.h"

namespace {

using namespace test_support;

const std::string kSimulate = shell_quote(FMRI_REM_BUILD_DIR "/fmri-rem-simulate");
const std::string kSummary = shell_quote(FMRI_REM_BUILD_DIR "/fmri-rem-summary");
const std::string kImport = shell_quote(FMRI_REM_BUILD_DIR "/fmri-rem-import");
const std::string kExport = shell_quote(FMRI_REM_BUILD_DIR "/fmri-rem-export");
const std::string kReport = shell_quote(FMRI_REM_BUILD_DIR "/fmri-rem-report");

TEST(Companions, BadValuesAndVersion) {
    const struct {
        std::string command;
        int status;
        std::string start;  // of the error line, or the whole output for status 0
    } cases[] = {
        {kSimulate + " -o s --voxel 0.0009", 1, "Error: --voxel: '0.0009' is not"},
        {kSimulate + " -o s --groups 27", 1, "Error: --groups: '27' is not"},
        {kSimulate + " -o s --size 8 6", 1, "Error: --size: needs 3 values"},
        {kSimulate + " -o s --size 8 6 1025", 1, "Error: --size: '1025' is not"},
        {kSimulate + " -o s --smoothing 6 -1", 1, "Error: --smoothing: '-1' is not"},
        {kSimulate + " -o s --seed 7x", 1, "Error: --seed: '7x' is not"},
        {kSimulate + " -o s --groups 3 --subjects 67", 1, "Error: at most 200 subjects in all"},
        {kSimulate + " -o s --converged --subjects 500001", 1, "Error: at most 1000000 subjects"},
        {kSimulate + " -o s --mask", 1, "Error: The following argument was not expected: --mask"},
        // A subject file that cannot be written whole: its temporary folder is removed.
        {"trap '' XFSZ; ulimit -f 16; " + kSimulate + " -o s", 1, "Error: writing s.tmp-"},
        {kSummary + " s", 1, "Error: cannot read folder s"},
        {kSummary + " . s", 1, "Error: The following argument was not expected: s"},
        {kSimulate + " --version", 0, "fmri-rem-simulate " FMRI_REM_PROJECT_VERSION "\n"},
        {kSummary + " --version", 0, "fmri-rem-summary " FMRI_REM_PROJECT_VERSION "\n"},
        {kImport + " --version", 0, "fmri-rem-import " FMRI_REM_PROJECT_VERSION "\n"},
        {kExport + " --version", 0, "fmri-rem-export " FMRI_REM_PROJECT_VERSION "\n"},
        {kReport + " --version", 0, "fmri-rem-report " FMRI_REM_PROJECT_VERSION "\n"},
        {kImport + " t.tsv -c p -s 6 8 --bogus", 1,
         "Error: The following argument was not expected: --bogus"},
        {kExport + " --bogus", 1, "Error: The following argument was not expected: --bogus"},
        {kReport + " --bogus", 1, "Error: The following argument was not expected: --bogus"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.command);
        TempDir dir;
        CommandResult r = run_command(c.command, dir.path());
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(r.status == 0 ? r.out : r.err.substr(0, c.start.size()), c.start);
        if (r.status != 0) {
            EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
            EXPECT_EQ(r.out, "");
        }
        EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
    }
}

TEST(Companions, StudyIntoExistingFolder) {
    TempDir dir;
    ASSERT_EQ(run_command("mkdir s", dir.path()).status, 0);
    write_file(dir.file("s/keep.txt"), "mine");
    write_file(dir.file("s/analysis.rem"), "old");
    for (const char *o : {"-o s --seed 5", "-o b --seed 5", "-o c --seed 6"})
        ASSERT_EQ(run_command(kSimulate + " --size 4 3 2 --subjects 1 " + o, dir.path()).status, 0);
    EXPECT_EQ(read_file(dir.file("s/keep.txt")), "mine");
    EXPECT_EQ(read_file(dir.file("s/analysis.rem")).substr(0, 11), "# Synthetic");
    const std::string a = read_file(dir.file("s/subject-c01.bfloat"));
    EXPECT_EQ(a.size(), 4u * 3 * 2 * 2 * 4);
    EXPECT_EQ(a, read_file(dir.file("b/subject-c01.bfloat")));
    EXPECT_NE(a, read_file(dir.file("c/subject-c01.bfloat")));
    // Nothing beside the studies: their temporary folders are gone.
    auto entries = std::filesystem::directory_iterator(dir.path());
    EXPECT_EQ(std::distance(begin(entries), end(entries)), 3);
}

}  // namespace
