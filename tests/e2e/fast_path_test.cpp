// Whole runs on the fast, parallel voxel passes against the plain passes
// (FMRI_REM_PLAIN=1): every file written and the whole standard output must
// be identical, with one thread, two threads and more threads than cores (5).
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "study.h"
#include "test_support.h"

using test_support::read_file;
using test_support::read_floats;
using test_support::run_command;
using test_support::run_fmri_rem;
using test_support::shell_quote;
using test_support::TempDir;
using test_support::write_floats;

namespace {

struct Setting {
    std::string env;
    const char *label;
};

const std::vector<Setting> plain_and_fast = {{"FMRI_REM_PLAIN=1 OMP_NUM_THREADS=1", "plain"},
                                             {"OMP_NUM_THREADS=1", "fast, 1 thread"},
                                             {"OMP_NUM_THREADS=2", "fast, 2 threads"},
                                             {"OMP_NUM_THREADS=5", "fast, 5 threads"}};

// Runs fmri-rem with args once per setting, each in its own folder (after
// the shell command prepare, when given, has run there on a copy of the small
// study), and compares every file (hidden ones too) and the output with the
// first run's.
void compare_runs(const TempDir &dir, const std::vector<std::string> &args,
                  const std::vector<Setting> &runs = plain_and_fast,
                  const std::string &prepare = "", int status = 0) {
    if (!prepare.empty() && !test_support::file_exists(dir.file("study"))) {
        std::filesystem::create_directory(dir.file("study"));
        e2e::small_study().write(dir.file("study"));
    }
    std::map<std::string, std::string> reference, files;
    std::string reference_out;
    for (const Setting &run : runs) {
        const std::string folder = dir.file(std::string("run-") + std::to_string(&run - &runs[0]));
        std::filesystem::create_directory(folder);
        ASSERT_TRUE(prepare.empty() ||
                    run_command("cp ../study/* . && " + prepare, folder).status == 0)
            << prepare;
        // The runs share their FFTW plans, so that they transform alike.
        const auto result = run_fmri_rem(
            args, folder, "", run.env + " FMRI_REM_FFTW_WISDOM=" + shell_quote(dir.file("wisdom")));
        ASSERT_EQ(result.status, status) << run.label << "\n" << result.out;
        EXPECT_EQ(result.err, "") << run.label;
        files.clear();
        for (const auto &entry : std::filesystem::directory_iterator(folder))
            files[entry.path().filename().string()] = read_file(entry.path().string());
        if (&run == &runs[0]) reference = files, reference_out = result.out;
        EXPECT_GE(files.size(), status == 0 ? 8u : 3u);
        EXPECT_EQ(result.out, reference_out) << run.label;
        ASSERT_EQ(files.size(), reference.size()) << run.label;
        for (const auto &[name, contents] : reference)
            EXPECT_TRUE(files[name] == contents) << run.label << ": " << name << " differs";
    }
}

}  // namespace

// A study of one file ends at the first test with the incomplete beta
// function's message, printed once, after the progress lines of the voxels
// before it; a design with a value that is not a number (a ramp over one
// file) sends every voxel to the reference kernel; signal files that the run
// overwrites with a result before the second pass ("sigma2" and, through a
// link, "basis.dat") must keep the data they had when the run began, as in
// the plain passes, which hold every file in memory.  Every route and thread
// count ends the same way.
TEST(FastPath, FatalEndReferenceKernelAndOverwrittenSignalFiles) {
#ifndef FMRI_REM_OPENMP
    GTEST_SKIP() << "fmri-rem is built without OpenMP: single-threaded";
#endif
    const struct {
        const char *analysis, *prepare;
        int status;
    } cases[] = {
        {"one.rem", "printf 'smoothing 0 4\\nconditions a\\nevent a\\na1.bfloat\\n' > one.rem", 1},
        {"ramp.rem",
         "printf 'smoothing 0 4\\nconditions a b a-b\\nevent a\\n0 2\\n\\nevent b\\n3 "
         "5\\n\\nevent r ramp\\n4 4\\n\\nmeasurements\\na1.bfloat\\na2.bfloat\\n"
         "a3.bfloat\\nb1.bfloat\\nb2.bfloat\\nb3.bfloat\\n' > ramp.rem",
         0},
        {"study.rem",
         "mv a3.bfloat sigma2.bfloat && mv a3.hdr sigma2.hdr && "
         "sed -i s/a3.bfloat/sigma2.bfloat/ study.rem",
         0},
        {"study.rem",
         "mv b2.bfloat basis.dat && ln -s basis.dat b2.bfloat && mv a1.bfloat x && "
         "ln -s x sigma2.bfloat && ln -s x a1.bfloat",
         0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.prepare);
        TempDir dir;
        compare_runs(dir, {c.analysis}, plain_and_fast, c.prepare, c.status);
    }
}

// Simulated studies: more voxels than one chunk of the parallel passes, no
// ratio smoothing (the second pass fits the raw REML variances), residues;
// values that send voxels down the kernel's general route (zero, negative,
// infinite and not-a-number effects and errors, tiny and huge errors) with
// ratio smoothing and a correction for multiple comparisons; and many files.
// The fast passes read the signal data a chunk of voxels at a time, and the
// more files there are, the fewer voxels a chunk has; with few file
// descriptors allowed, the data are held in memory instead, from the start
// or once the limit is near.
TEST(FastPath, SimulatedStudiesGiveThePlainPassesFilesAndOutput) {
    const float inf = std::numeric_limits<float>::infinity();
    const float specials[] = {0.0f, -0.0f, -2.0f, inf, -inf, NAN, 1e-30f, 1e20f, 1e-40f, 3e38f};
    const struct {
        const char *options;
        std::vector<std::string> args;
        std::vector<Setting> runs;
    } cases[] = {
        {"--size 24 20 10 --subjects 6 --smoothing 4 0 --seed 3",
         {"-r", "-i", "../study/analysis.rem"},
         plain_and_fast},
        {"--size 20 12 8 --subjects 5 --smoothing 3 6 --seed 4 --no-mask",
         {"-r", "../study/analysis.rem"},
         plain_and_fast},
        {"--size 24 16 10 --subjects 70 --smoothing 4 6 --seed 5",
         {"../study/analysis.rem"},
         {{"ulimit -n 20; OMP_NUM_THREADS=2", "in memory"},
          {"OMP_NUM_THREADS=1", "read on demand, 1 thread"},
          {"OMP_NUM_THREADS=2", "read on demand, 2 threads"},
          {"ulimit -n 90; OMP_NUM_THREADS=2", "read on demand, then in memory"}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.options);
        TempDir dir;
        ASSERT_EQ(run_command(shell_quote(FMRI_REM_BUILD_DIR "/fmri-rem-simulate") +
                                  " -o study --prefix ../study/ " + c.options,
                              dir.path())
                      .status,
                  0);
        if (&c == &cases[1]) {
            int f = 0;
            for (const auto &entry : std::filesystem::directory_iterator(dir.file("study"))) {
                if (entry.path().extension() != ".bfloat") continue;
                std::vector<float> data = read_floats(entry.path().string());
                const size_t nv = data.size() / 2;
                for (size_t v = 37 + 11 * f; v < nv; v += 97 + f)
                    data[v % 3 == 0 ? v : nv + v] = specials[(v / 7 + f) % 10];
                write_floats(entry.path().string(), data);
                ++f;
            }
            test_support::write_file(
                dir.file("study/analysis.rem"),
                "multiple-comparisons 120\n" + read_file(dir.file("study/analysis.rem")));
        }
        compare_runs(dir, c.args, c.runs);
    }
}
