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

using test_support::read_file;
using test_support::read_floats;
using test_support::run_fmri_rem;
using test_support::TempDir;

// 200 voxels: progress at every second voxel.
std::string progress(const char *what) {
    std::string s;
    for (int i = 0; i < 100; ++i)
        s += "\r " + std::to_string(i) + " percent done computing " + what;
    return s + "\r 100 percent done computing RE variance\n";
}

// Every result volume with its header (the first signal file's geometry) and
// data size, after the whole printed sequence; -r adds the residue series of
// one frame per file.  Without ratio smoothing the variance volume holds two
// frames under a three-frame header.  Resolution and degrees of freedom:
//   smoothing 1 3: r = (sqrt(5) sqrt(5) sqrt(7.25))^0.3333 = 2.3787,
//     4 (18 / r^2 + 1)^1.5 = 34.20, 1/(1/34.20 + 1/120) = 26.61;
//   smoothing 3 0: r = (sqrt(13) sqrt(13) sqrt(15.25))^0.3333 = 3.7023,
//     rint(1/(1/4 + 1/120)) = 4.
// ".vistra" names the analysis file (bare or after -i) unless it exists.
// A voxel where one file has no error estimate is skipped, with zeros in
// every frame of every map and residue; a study of only such voxels runs to
// the end.  Elsewhere the residue of a file is its effect minus the fitted
// value, one value per square event, so the residues of an event differ
// exactly as the effects do.
TEST(Run, PrintedSequenceResultFilesAndSkippedVoxels) {
    const struct {
        std::vector<std::string> args;
        const char *smoothing, *resolution, *fwhm;
        int dof, sigma2_frames;
        const char *vistra_before, *vistra_after;
    } cases[] = {
        {{"-r", "study.rem"}, "smoothing 1 3", "2.38", "3", 27, 3, nullptr, "vt -r study.rem\n"},
        {{"-i", "study.rem"}, "smoothing 3 0", "3.70", "0", 4, 2, "kept\n", "kept\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.smoothing);
        const bool residue = c.args[0] == "-r";  // and only some voxels skipped
        TempDir dir;
        e2e::study s = e2e::small_study();
        s.g = e2e::geometry{10, 5, 4, {2, 2, 2.5f}, {1.5f, -2, 3}, {1, -1, 1}};
        s.smoothing = c.smoothing;
        std::vector<int> skipped = {0, 57, 199};
        for (int i : skipped) s.files[4].error[i] = 0.0f;
        if (!residue) {
            for (auto &f : s.files) f.error.assign(200, 0.0f);
            for (int i = 0; i < 200; ++i) skipped.push_back(i);
        }
        s.write(dir.path());
        if (c.vistra_before) test_support::write_file(dir.file(".vistra"), c.vistra_before);
        auto r = run_fmri_rem(c.args, dir.path());
        ASSERT_EQ(r.status, 0) << r.out;

        std::string expected;
        for (char event : {'a', 'b'}) {
            expected += std::string("\nSQUARE event ") + event + " has 3 samples:\n";
            for (int k = 0; k < 3; ++k)
                expected += "file[" + std::to_string(k) + "] = " + event + std::to_string(k + 1) +
                            ".bfloat , magnitude = 1\n";
        }
        expected +=
            "\nInput files: 6 samples of dimension (x,y,z) = (10,5,4).\n"
            "Conditions to be tested: a b a-b \nEffective isotropic resolution    = " +
            std::string(c.resolution) + " mm\nSmoothing FWHM for variance ratio = " + c.fwhm +
            " mm\nDegrees of freedom: fixed = 120, random = 4, smoothed = " +
            std::to_string(c.dof) + "\n\nAnalyzing random effects ...\n" + progress("RE variance") +
            (c.sigma2_frames == 3 ? "\nsmoothing variance ratio\n" : "") +
            "\nCalculating raw pvalues without correction for multiple comparisons.\n" +
            progress("statistics") +
            "\nResults output to files\n  average.bfloat (average + stdev)\n";
        std::vector<std::pair<std::string, int>> files = {{"sigma2", 3}};
        for (std::string cond : {"a", "b", "a-b"}) {
            expected += "  P-" + cond + ".bfloat, T-" + cond + ".bfloat, & S-" + cond + ".bfloat\n";
            files.insert(files.end(), {{"P-" + cond, 1}, {"T-" + cond, 1}, {"S-" + cond, 2}});
        }
        EXPECT_EQ(r.out, expected);
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(read_file(dir.file(".vistra")), c.vistra_after);
        EXPECT_EQ(read_file(dir.file("basis.dat")).substr(0, 16), "x eventa eventb ");
        EXPECT_EQ(test_support::file_exists(dir.file("residue.hdr")), residue);
        if (residue) files.emplace_back("residue", 6);
        for (const auto &f : files) {
            SCOPED_TRACE(f.first);
            EXPECT_EQ(read_file(dir.file(f.first + ".hdr")),
                      "x 10\ny 5\nz 4\nt " + std::to_string(f.second) +
                          "\nbyte-order 1\nresolution 2 2 2.5\norigin 1.5 -2 3\ndirection 1 -1 1\n"
                          "degrees-of-freedom " +
                          std::to_string(c.dof) + "\n");
            std::vector<float> v = read_floats(dir.file(f.first + ".bfloat"));
            int frames = f.first == "sigma2" ? c.sigma2_frames : f.second;
            ASSERT_EQ(v.size(), frames * 200u);
            for (int i : skipped) {
                for (size_t k = i; k < v.size(); k += 200) ASSERT_EQ(v[k], 0.0f) << k;
            }
            EXPECT_EQ(v[1] != 0.0f, residue);
        }
        if (!residue) continue;
        std::vector<float> res = read_floats(dir.file("residue.bfloat"));
        for (int i = 0; i < 200; ++i) {
            if (std::count(skipped.begin(), skipped.end(), i)) continue;
            for (int k : {1, 2, 4, 5}) {
                int first = k < 3 ? 0 : 3;
                ASSERT_NEAR(s.files[k].effect[i] - res[k * 200 + i],
                            s.files[first].effect[i] - res[first * 200 + i], 1e-5)
                    << "voxel " << i << " file " << k;
            }
        }
    }
}

}  // namespace
