// Whole runs of fmri-rem on small studies: the printed sequence, the files
// written with their headers and sizes, the residue series, the viewer
// start-up file, skipped voxels and degenerate studies.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "study.h"
#include "test_support.h"

namespace {

using test_support::file_exists;
using test_support::read_file;
using test_support::read_floats;
using test_support::run_fmri_rem;
using test_support::TempDir;

std::string progress(int nvoxels, const char *what) {
    int step = nvoxels / 100 > 0 ? nvoxels / 100 : 1;
    std::string s;
    for (int i = 0; i < nvoxels; i += step) {
        s += "\r " + std::to_string(i / step) + " percent done computing " + what;
    }
    return s;
}

std::string describe_group(char event, int count) {
    std::string s = std::string("\nSQUARE event ") + event + " has " + std::to_string(count) +
                    " samples:\n";
    for (int k = 0; k < count; ++k) {
        s += "file[" + std::to_string(k) + "] = " + event + std::to_string(k + 1) +
             ".bfloat , magnitude = 1\n";
    }
    return s;
}

// 200 voxels: progress every second voxel.  Smoothed degrees of freedom:
// r = 8^0.3333 = 1.99986, 4 (32 / r^2 + 1)^1.5 = 108.02, 1/(1/108.02 + 1/120) = 56.85.
TEST(Run, PrintedSequence) {
    TempDir dir;
    e2e::small_study().write(dir.path());
    auto r = run_fmri_rem({"study.rem"}, dir.path());
    const std::string expected =
        describe_group('a', 3) + describe_group('b', 3) + "\n" +
        "Input files: 6 samples of dimension (x,y,z) = (10,5,4).\n"
        "Conditions to be tested: a b a-b \n"
        "Effective isotropic resolution    = 2.00 mm\n"
        "Smoothing FWHM for variance ratio = 4 mm\n"
        "Degrees of freedom: fixed = 120, random = 4, smoothed = 57\n"
        "\nAnalyzing random effects ...\n" +
        progress(200, "RE variance") + "\r 100 percent done computing RE variance\n" +
        "\nsmoothing variance ratio\n" +
        "\nCalculating raw pvalues without correction for multiple comparisons.\n" +
        progress(200, "statistics") + "\r 100 percent done computing RE variance\n" +
        "\nResults output to files\n  average.bfloat (average + stdev)\n"
        "  P-a.bfloat, T-a.bfloat, & S-a.bfloat\n"
        "  P-b.bfloat, T-b.bfloat, & S-b.bfloat\n"
        "  P-a-b.bfloat, T-a-b.bfloat, & S-a-b.bfloat\n";
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, expected);
    EXPECT_EQ(r.err, "");
}

// Every result volume with its header and data size; the geometry is the
// first signal file's; -r adds the residue series of one frame per file.
TEST(Run, ResultFilesAndHeaders) {
    TempDir dir;
    e2e::study s = e2e::small_study();
    s.g.origin[0] = 1.5f;
    s.g.origin[1] = -2.0f;
    s.g.origin[2] = 3.0f;
    s.g.direction[1] = -1.0f;
    s.g.resolution[2] = 2.5f;
    s.smoothing = "smoothing 1 3";
    s.write(dir.path());
    auto r = run_fmri_rem({"-r", "study.rem"}, dir.path());
    ASSERT_EQ(r.status, 0) << r.out;

    // dof: r = (sqrt(5) sqrt(5) sqrt(7.25))^0.3333 = 2.3787; 4 (18 / r^2 + 1)^1.5 = 34.20;
    // 1/(1/34.20 + 1/120) = 26.61.
    struct Case {
        const char *stem;
        int frames;
    };
    const Case cases[] = {{"sigma2", 3}, {"P-a", 1}, {"T-a", 1}, {"S-a", 2},   {"P-b", 1},
                          {"T-b", 1},    {"S-b", 2}, {"P-a-b", 1}, {"T-a-b", 1}, {"S-a-b", 2},
                          {"residue", 6}};
    for (const Case &c : cases) {
        EXPECT_EQ(read_file(dir.file(std::string(c.stem) + ".hdr")),
                  "x 10\ny 5\nz 4\nt " + std::to_string(c.frames) +
                      "\nbyte-order 1\nresolution 2 2 2.5\norigin 1.5 -2 3\ndirection 1 -1 1\n"
                      "degrees-of-freedom 27\n")
            << c.stem;
        EXPECT_EQ(read_file(dir.file(std::string(c.stem) + ".bfloat")).size(),
                  static_cast<size_t>(c.frames) * 200 * 4)
            << c.stem;
    }
    EXPECT_EQ(read_file(dir.file("basis.dat")).substr(0, 16), "x eventa eventb ");
    EXPECT_NE(r.out.find("Degrees of freedom: fixed = 120, random = 4, smoothed = 27\n"),
              std::string::npos);
}

// Without ratio smoothing the variance volume holds two frames under a
// three-frame header, and the degrees of freedom are
// rint(1 / (1/Dr + 1/Df)) = rint(1 / (1/4 + 1/120)) = 4.
TEST(Run, NoRatioSmoothing) {
    TempDir dir;
    e2e::study s = e2e::small_study();
    s.smoothing = "smoothing 3 0";
    s.write(dir.path());
    auto r = run_fmri_rem({"study.rem"}, dir.path());
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.out.find("smoothing variance ratio"), std::string::npos);
    EXPECT_NE(r.out.find("Degrees of freedom: fixed = 120, random = 4, smoothed = 4\n"),
              std::string::npos);
    EXPECT_NE(read_file(dir.file("sigma2.hdr")).find("t 3\n"), std::string::npos);
    EXPECT_EQ(read_file(dir.file("sigma2.bfloat")).size(), 2u * 200 * 4);
    EXPECT_FALSE(file_exists(dir.file("residue.hdr")));
}

// The residue of each file is its effect minus the fitted value: with two
// square events the fitted values within an event are equal, so the
// residues of an event differ exactly as the effects do (up to rounding).
TEST(Run, ResidueSeries) {
    TempDir dir;
    e2e::study s = e2e::small_study();
    s.write(dir.path());
    ASSERT_EQ(run_fmri_rem({"-r", "study.rem"}, dir.path()).status, 0);
    std::vector<float> residue = read_floats(dir.file("residue.bfloat"));
    ASSERT_EQ(residue.size(), 6u * 200);
    for (int i = 0; i < 200; ++i) {
        for (int k : {1, 2, 4, 5}) {
            int first = k < 3 ? 0 : 3;
            float fitted_first = s.files[first].effect[i] - residue[first * 200 + i];
            float fitted = s.files[k].effect[i] - residue[k * 200 + i];
            ASSERT_NEAR(fitted, fitted_first, 1e-5) << "voxel " << i << " file " << k;
        }
    }
}

TEST(Run, ViewerFileWrittenOnceAndKept) {
    TempDir dir;
    e2e::small_study().write(dir.path());
    e2e::small_study().write(dir.path(), "other.rem");
    ASSERT_EQ(run_fmri_rem({"-i", "study.rem"}, dir.path()).status, 0);
    EXPECT_EQ(read_file(dir.file(".vistra")), "vt -r study.rem\n");
    ASSERT_EQ(run_fmri_rem({"other.rem"}, dir.path()).status, 0);
    EXPECT_EQ(read_file(dir.file(".vistra")), "vt -r study.rem\n");
}

// A voxel where one file has no error estimate cannot be estimated: it is
// skipped, with zeros in every result map and in the residues.
TEST(Run, SkippedVoxelsGiveZeros) {
    TempDir dir;
    e2e::study s = e2e::small_study();
    s.smoothing = "smoothing 0 0";
    const std::vector<int> skipped = {0, 57, 199};
    for (int i : skipped) s.files[4].error[i] = 0.0f;
    s.write(dir.path());
    ASSERT_EQ(run_fmri_rem({"-r", "study.rem"}, dir.path()).status, 0);
    std::vector<float> sigma2 = read_floats(dir.file("sigma2.bfloat"));
    std::vector<float> residue = read_floats(dir.file("residue.bfloat"));
    for (int i : skipped) {
        EXPECT_EQ(sigma2[i], 0.0f);
        EXPECT_EQ(sigma2[200 + i], 0.0f);
        for (const char *c : {"a", "b", "a-b"}) {
            for (const char *kind : {"P-", "T-", "S-"}) {
                std::vector<float> v = read_floats(dir.file(std::string(kind) + c + ".bfloat"));
                EXPECT_EQ(v[i], 0.0f) << kind << c << " voxel " << i;
                if (kind[0] == 'S') {
                    EXPECT_EQ(v[200 + i], 0.0f) << kind << c << " voxel " << i;
                }
            }
        }
        for (int k = 0; k < 6; ++k) EXPECT_EQ(residue[k * 200 + i], 0.0f);
    }
    // Its neighbours are analysed.
    EXPECT_NE(read_floats(dir.file("T-a.bfloat"))[1], 0.0f);
}

// Degenerate studies end in order: a volume of fewer than 100 voxels
// (progress at every voxel) and a study of only skipped voxels run to the
// end; a single file leaves no degrees of freedom for the test, which the
// incomplete beta function refuses with its domain error and status 1.
TEST(Run, DegenerateStudiesRunToTheEnd) {
    {
        TempDir dir;
        e2e::study s;
        s.g.nx = 3;
        s.g.ny = 3;
        s.g.nz = 2;
        s.add_group('a', 3, 1.0f, 20, 1);
        s.add_group('b', 3, 0.0f, 20, 2);
        s.write(dir.path());
        auto r = run_fmri_rem({"study.rem"}, dir.path());
        EXPECT_EQ(r.status, 0);
        EXPECT_NE(r.out.find(progress(18, "RE variance") + "\r 100 percent"), std::string::npos);
        EXPECT_NE(r.out.find("\r 17 percent done computing statistics\r 100"), std::string::npos);
        EXPECT_EQ(read_floats(dir.file("T-a-b.bfloat")).size(), 18u);
    }
    {
        TempDir dir;
        e2e::study s;
        s.conditions = "conditions a";
        s.add_group('a', 1, 1.0f, 20, 3);
        s.write(dir.path());
        auto r = run_fmri_rem({"-r", "study.rem"}, dir.path());
        EXPECT_EQ(r.status, 1) << r.out;
        EXPECT_NE(r.out.find("Degrees of freedom: fixed = 20, random = 0, smoothed = 0\n"),
                  std::string::npos);
        EXPECT_NE(r.out.find("ibeta: Domain error!, a = 0, b = 0.5\n"), std::string::npos);
        EXPECT_EQ(read_file(dir.file("sigma2.bfloat")).size(), 3u * 200 * 4);
        EXPECT_FALSE(file_exists(dir.file(".vistra")));
    }
    {
        TempDir dir;
        e2e::study s = e2e::small_study();
        for (auto &f : s.files) f.error.assign(f.error.size(), 0.0f);
        s.write(dir.path());
        auto r = run_fmri_rem({"study.rem"}, dir.path());
        EXPECT_EQ(r.status, 0) << r.out;
        for (const char *name : {"P-a-b.bfloat", "T-a.bfloat", "S-b.bfloat", "sigma2.bfloat"}) {
            for (float v : read_floats(dir.file(name))) ASSERT_EQ(v, 0.0f) << name;
        }
    }
}

}  // namespace
