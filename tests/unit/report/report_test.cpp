// The report of a hand-written results folder: a planted positive blob and a
// negative one, the run's facts on the page, and bad folders that leave
// nothing behind.
#include <gtest/gtest.h>
#include <nifti1_io.h>

#include <functional>

#include "report.h"
#include "test_support.h"

namespace {

using test_support::file_exists;
using test_support::read_file;
using test_support::TempDir;
using test_support::write_file;
using test_support::write_floats;

constexpr int kX = 12, kY = 10, kZ = 8, kN = kX * kY * kZ;

std::string header(int frames, int dof) {
    return "x 12\ny 10\nz 8\nt " + std::to_string(frames) +
           "\nresolution 3 3 3\ndegrees-of-freedom " + std::to_string(dof) + "\n";
}

int at(int i, int j, int k) {
    return (k * kY + j) * kX + i;
}

// Condition a: a ball of d^2 <= 5 around (5, 4, 3) with T = 1.5 (6 - d^2/2),
// and a ball of d^2 <= 2 around (9, 7, 5) with T = -1.5 (4 - d^2/2), all
// past -log10 p = 3 at 40 dof (|T| >= 3.56).  Conditions a-b, a,b and
// 0.5*a+0.5*b: nothing.  The voxels with i = 0 were left out of the analysis.
void write_results(const std::string &dir) {
    std::vector<float> sigma2(3 * kN, 0.0f), p(kN, 0.0f), t(kN, 0.0f), zero(kN, 0.0f);
    for (int k = 0; k < kZ; ++k)
        for (int j = 0; j < kY; ++j)
            for (int i = 1; i < kX; ++i) {
                sigma2[at(i, j, k)] = 0.1f;
                sigma2[kN + at(i, j, k)] = 0.2f + 0.01f * i;
                sigma2[2 * kN + at(i, j, k)] = 0.25f;
                int d1 = (i - 5) * (i - 5) + (j - 4) * (j - 4) + (k - 3) * (k - 3);
                int d2 = (i - 9) * (i - 9) + (j - 7) * (j - 7) + (k - 5) * (k - 5);
                if (d1 <= 5) p[at(i, j, k)] = 6.0f - 0.5f * d1;
                if (d2 <= 2) p[at(i, j, k)] = -(4.0f - 0.5f * d2);
                t[at(i, j, k)] = 1.5f * p[at(i, j, k)];
            }
    const char *stems[] = {"sigma2", "P-a", "T-a", "P-a-b", "T-a-b", "T-a,b", "T-0.5*a+0.5*b"};
    const std::vector<float> *maps[] = {&sigma2, &p, &t, &zero, &zero, &zero, &zero};
    for (int m = 0; m < 7; ++m) {
        write_file(dir + "/" + stems[m] + ".hdr", header(maps[m]->size() / kN, 40));
        write_floats(dir + "/" + stems[m] + ".bfloat", *maps[m]);
    }
    write_file(dir + "/basis.dat",
               "x eventa eventb \n0 1.000000 0.000000 \n1 1.000000 0.000000 \n"
               "2 0.000000 1.000000 \n3 0.000000 1.000000 \n");
    write_file(
        dir + "/study.rem",
        "smoothing 4 6\nconditions a a-b a,b 0.5*a+0.5*b\nevent a\nin/a1.bfloat\nin/a2.bfloat\n"
        "event b\nin/b1.bfloat\nin/b2.bfloat\n");
    write_file(dir + "/.vistra", "vt -r study.rem\n");
    test_support::run_command("mkdir -p in", dir);
    const char *files[] = {"a1", "a2", "b1", "b2"};
    for (int f = 0; f < 4; ++f) {
        write_file(dir + "/in/" + files[f] + ".hdr", header(2, 10 * (f + 1)));
        write_file(dir + "/in/" + files[f] + ".bfloat", "");
    }
}

// A 16-bit, scaled NIfTI image of nx x 10 x 8 voxels.
void write_background(const std::string &path, int nx) {
    int dims[8] = {3, nx, kY, kZ, 1, 1, 1, 1};
    nifti_image *im = nifti_make_new_nim(dims, DT_INT16, 1);
    for (int i = 0; i < nx * kY * kZ; ++i) static_cast<int16_t *>(im->data)[i] = i % nx;
    im->scl_slope = 2.0f;
    nifti_set_filenames(im, path.c_str(), 0, 1);
    nifti_image_write(im);
    nifti_image_free(im);
}

TEST(Report, PlantedBlobsAndTheRunOnThePage) {
    TempDir dir;
    write_results(dir.path());
    report::options o;
    o.results_dir = dir.path();
    report::outcome out;
    std::string error;
    ASSERT_TRUE(report::make_report(o, &out, &error)) << error;
    EXPECT_TRUE(out.warnings.empty());
    EXPECT_EQ(out.page, dir.file("report.html"));

    // Ball of d^2 <= 5 (peak_logp from scipy.stats.t.sf at 40 dof): 1 + 6 + 12 + 8 + 6 + 24 voxels;
    // d^2 <= 2: 1 + 6 + 12. 3 mm voxels: 27 mm^3 each.
    EXPECT_EQ(read_file(dir.file("contrast-a_clusters.tsv")),
              "cluster\tpeak_i\tpeak_j\tpeak_k\tpeak_x_mm\tpeak_y_mm\tpeak_z_mm\tpeak_t\t"
              "peak_logp\tvoxels\tvolume_mm3\n"
              "1\t5\t4\t3\t15.00\t12.00\t9.00\t9.0000\t10.4341\t57\t1539.00\n"
              "2\t9\t7\t5\t27.00\t21.00\t15.00\t-6.0000\t-6.3255\t19\t513.00\n");
    EXPECT_TRUE(file_exists(dir.file("contrast-0p5TimesaPlus0p5Timesb_clusters.tsv")));
    EXPECT_EQ(read_file(dir.file("contrast-aMinusb_clusters.tsv")),
              "cluster\tpeak_i\tpeak_j\tpeak_k\tpeak_x_mm\tpeak_y_mm\tpeak_z_mm\tpeak_t\t"
              "peak_logp\tvoxels\tvolume_mm3\n");
    EXPECT_EQ(read_file(dir.file("contrast-aAndb_clusters.tsv")).substr(0, 66),
              "cluster\tpeak_i\tpeak_j\tpeak_k\tpeak_x_mm\tpeak_y_mm\tpeak_z_mm\tpeak_f\t");

    const std::string page = read_file(out.page);
    for (const char *fact :
         {"event a: 2, event b: 2 (4 files in all)", "960 in the volume",
          "880 analysed, 80 left out", "4 mm FWHM in the single-subject analyses; 6 mm FWHM",
          "fixed 100 (the files' own", "random 2 (files minus events)", "smoothed 40",
          "raw p, not corrected", "&minus;log<sub>10</sub> p &ge; 3, that is p &le; 0.001",
          "t test, 40 dof, two-sided p, uncorrected",
          "F test, 2 and 40 dof, p from the upper tail of F, uncorrected",
          "<td>0.5 a + 0.5 b</td><td class=\"n\">0.5</td><td class=\"n\">0.5</td>",
          "No cluster passes the threshold"})
        EXPECT_NE(page.find(fact), std::string::npos) << fact;

    // With a correction the page says which p it shows, from which |T| on
    // (sqrt(3 nu / (nu - 3)) at nu = 40); names from the analysis file head
    // the sections and label the tables; a NIfTI background on the results'
    // grid is used.  A column that is not zeros and ones is a covariate.
    write_file(dir.file("basis.dat"),
               "x eventa eventb \n0 1.000000 -1.500000 \n1 1.000000 0.000000 \n"
               "2 0.000000 0.500000 \n3 0.000000 1.000000 \n");
    write_file(dir.file("corrected.rem"),
               "multiple-comparisons 50\n# condition a-b = alpha-beta\n# event a = alpha\n" +
                   read_file(dir.file("study.rem")));
    write_background(dir.file("bg.nii.gz"), kX);
    o.analysis = dir.file("corrected.rem");
    o.background = dir.file("bg.nii.gz");
    o.output = dir.file("other.html");
    ASSERT_TRUE(report::make_report(o, &out, &error)) << error;
    const std::string other = read_file(dir.file("other.html"));
    for (const char *fact :
         {"corrected for multiple comparisons over 50", "corrected (1 where |T| &lt; 1.8)",
          "<th>Design columns</th><td>event a (alpha): 2, event b: covariate from -1.5 to 1 (4",
          "Condition <code>alpha-beta</code> (<code>a-b</code>)", "Tests alpha &minus; b"})
        EXPECT_NE(other.find(fact), std::string::npos) << fact;
    EXPECT_TRUE(file_exists(dir.file("contrast-alphaMinusbeta_clusters.tsv")));
    EXPECT_NE(other.find("Background: " + o.background), std::string::npos);
}

TEST(Report, BadFoldersLeaveNothingBehind) {
    struct bad_case {
        const char *name;
        std::function<void(const std::string &dir, report::options *o)> spoil;
        const char *message;
    };
    const std::vector<bad_case> cases = {
        {"no folder", [](auto &d, auto *o) { o->results_dir = d + "/x"; }, "does not exist"},
        {"sigma2 without its smoothed frame",
         [](auto &d, auto *) {
             write_floats(d + "/sigma2.bfloat", std::vector<float>(2 * kN, 1.0f));
         },
         "sigma2.bfloat is truncated"},
        {"missing T", [](auto &d, auto *) { std::remove((d + "/T-a-b.bfloat").c_str()); },
         "T-a-b.bfloat is missing"},
        {"NIfTI background on another grid",
         [](auto &d, auto *o) {
             write_background(d + "/bg.nii.gz", kX + 1);
             o->background = d + "/bg.nii.gz";
         },
         "is not on the grid of the results"},
        {"threshold not positive", [](auto &, auto *o) { o->threshold = 0.0; }, "threshold"},
        {"analysis file missing", [](auto &d, auto *o) { o->analysis = d + "/none.rem"; },
         "none.rem cannot be read"},
        {"design missing", [](auto &d, auto *) { std::remove((d + "/basis.dat").c_str()); },
         "basis.dat is missing"},
    };
    for (const bad_case &c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        write_results(dir.path());
        report::options o;
        o.results_dir = dir.path();
        c.spoil(dir.path(), &o);
        const std::string before = test_support::run_command("ls -A", dir.path()).out;
        report::outcome out;
        std::string error;
        EXPECT_FALSE(report::make_report(o, &out, &error));
        EXPECT_NE(error.find(c.message), std::string::npos) << error;
        EXPECT_EQ(error.find('\n'), std::string::npos);
        EXPECT_EQ(test_support::run_command("ls -A", dir.path()).out, before);
    }
}

}  // namespace
