// Whole runs of fmri-rem on small studies: the printed sequence, the files
// written with their headers and sizes, the viewer start-up file, skipped
// voxels, residues and degenerate studies.
#include <gtest/gtest.h>

#include <algorithm>
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

bool contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

// The analysis file as a bare word; 200 voxels: progress every second voxel.  Smoothed degrees of
// freedom: r = 8^0.3333 = 1.99986, 4 (32 / r^2 + 1)^1.5 = 108.02, 1/(1/108.02 + 1/120) = 56.85.
TEST(Run, PrintedSequence) {
    TempDir dir;
    e2e::small_study().write(dir.path());
    auto r = run_fmri_rem({"study.rem"}, dir.path());
    std::string expected;
    for (char event : {'a', 'b'}) {
        expected += std::string("\nSQUARE event ") + event + " has 3 samples:\n";
        for (int k = 0; k < 3; ++k) {
            expected += "file[" + std::to_string(k) + "] = " + event + std::to_string(k + 1) +
                        ".bfloat , magnitude = 1\n";
        }
    }
    expected +=
        "\nInput files: 6 samples of dimension (x,y,z) = (10,5,4).\n"
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

// Every result volume with its header (the first signal file's geometry)
// and data size; -r adds the residue series of one frame per file.  Without
// ratio smoothing the variance volume holds two frames under a three-frame
// header.  Degrees of freedom, with ratio smoothing:
// r = (sqrt(5) sqrt(5) sqrt(7.25))^0.3333 = 2.3787, 4 (18 / r^2 + 1)^1.5 = 34.20,
// 1/(1/34.20 + 1/120) = 26.61; without: rint(1/(1/4 + 1/120)) = 4.
// ".vistra" names the analysis file (bare or after -i) unless it exists.
TEST(Run, ResultFilesAndHeaders) {
    struct Case {
        std::vector<std::string> args;
        const char *smoothing;
        int dof, sigma2_frames;
        const char *vistra_before, *vistra_after;
    };
    const Case cases[] = {
        {{"-r", "study.rem"}, "smoothing 1 3", 27, 3, nullptr, "vt -r study.rem\n"},
        {{"-i", "study.rem"}, "smoothing 3 0", 4, 2, "kept\n", "kept\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.smoothing);
        const bool residue = c.args[0] == "-r";
        TempDir dir;
        e2e::study s = e2e::small_study();
        s.g = e2e::geometry{10, 5, 4, {2, 2, 2.5f}, {1.5f, -2, 3}, {1, -1, 1}};
        s.smoothing = c.smoothing;
        s.write(dir.path());
        if (c.vistra_before) test_support::write_file(dir.file(".vistra"), c.vistra_before);
        auto r = run_fmri_rem(c.args, dir.path());
        ASSERT_EQ(r.status, 0) << r.out;
        EXPECT_TRUE(contains(r.out, "random = 4, smoothed = " + std::to_string(c.dof) + "\n"));
        EXPECT_EQ(contains(r.out, "smoothing variance ratio"), c.sigma2_frames == 3);
        EXPECT_EQ(read_file(dir.file(".vistra")), c.vistra_after);
        EXPECT_EQ(read_file(dir.file("basis.dat")).substr(0, 16), "x eventa eventb ");
        EXPECT_EQ(file_exists(dir.file("residue.hdr")), residue);
        std::vector<std::pair<std::string, int>> files = {{"sigma2", 3}};
        for (const char *cond : {"a", "b", "a-b"}) {
            for (auto kind :
                 {std::make_pair("P-", 1), std::make_pair("T-", 1), std::make_pair("S-", 2)})
                files.emplace_back(kind.first + std::string(cond), kind.second);
        }
        if (residue) files.emplace_back("residue", 6);
        for (const auto &f : files) {
            EXPECT_EQ(read_file(dir.file(f.first + ".hdr")),
                      "x 10\ny 5\nz 4\nt " + std::to_string(f.second) +
                          "\nbyte-order 1\nresolution 2 2 2.5\norigin 1.5 -2 3\ndirection 1 -1 1\n"
                          "degrees-of-freedom " +
                          std::to_string(c.dof) + "\n")
                << f.first;
            int frames = f.first == "sigma2" ? c.sigma2_frames : f.second;
            EXPECT_EQ(read_file(dir.file(f.first + ".bfloat")).size(), frames * 200u * 4)
                << f.first;
        }
    }
}

// A voxel where one file has no error estimate is skipped, with zeros in
// every frame of every map and in the residues; a study of only such voxels
// runs to the end.  Elsewhere the residue of a file is its effect minus the
// fitted value, which is one value per square event, so the residues of an
// event differ exactly as the effects do.
TEST(Run, SkippedVoxelsGiveZerosAndResiduesFollowTheFit) {
    for (bool all : {false, true}) {
        SCOPED_TRACE(all ? "every voxel skipped" : "three voxels skipped");
        TempDir dir;
        e2e::study s = e2e::small_study();
        s.smoothing = all ? "smoothing 0 4" : "smoothing 0 0";
        std::vector<int> skipped = {0, 57, 199};
        for (int i : skipped) s.files[4].error[i] = 0.0f;
        if (all) {
            for (auto &f : s.files) f.error.assign(200, 0.0f);
            for (int i = 0; i < 200; ++i) skipped.push_back(i);
        }
        s.write(dir.path());
        ASSERT_EQ(run_fmri_rem({"-r", "study.rem"}, dir.path()).status, 0);
        std::vector<float> residue = read_floats(dir.file("residue.bfloat"));
        ASSERT_EQ(residue.size(), 6u * 200);
        std::vector<std::string> names = {"sigma2", "residue"};
        for (const char *c : {"a", "b", "a-b"}) {
            for (const char *kind : {"P-", "T-", "S-"}) names.push_back(kind + std::string(c));
        }
        for (const std::string &name : names) {
            std::vector<float> v = read_floats(dir.file(name + ".bfloat"));
            for (int i : skipped) {
                for (size_t k = i; k < v.size(); k += 200)
                    ASSERT_EQ(v[k], 0.0f) << name << " " << k;
            }
            if (!all) {
                EXPECT_NE(v[1], 0.0f) << name;
            }
        }
        for (int i = 0; i < 200; ++i) {
            if (std::count(skipped.begin(), skipped.end(), i)) continue;
            for (int k : {1, 2, 4, 5}) {
                int first = k < 3 ? 0 : 3;
                ASSERT_NEAR(s.files[k].effect[i] - residue[k * 200 + i],
                            s.files[first].effect[i] - residue[first * 200 + i], 1e-5)
                    << "voxel " << i << " file " << k;
            }
        }
    }
}

}  // namespace
