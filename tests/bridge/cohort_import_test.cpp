// The import of a table of a few hundred rows: past fmri-rem's classic
// capacity, the same files and text for one thread and several, and the
// first bad row named whichever thread meets a bad row first.
#include <gtest/gtest.h>

#include <cmath>

#include "bridge_test.h"

using namespace test_support;
using bridge_test::nifti_layout;

namespace {

const int kRows = 300;

nifti_layout small_grid(int nx = 4) {
    return bridge_test::grid(nx, 4, 4, 3, 1, 0);
}

// Row k: effect k + voxel/100, the first ten rows without a value at voxel 0;
// variance 2, 0 (left out) at voxel 1 in every row.  Odd rows carry an sform,
// even rows no orientation (each named in a warning).  The first 150 rows are
// the session "pre" of participants 0..149, the others their "post".
std::string write_study(const TempDir &tmp) {
    nifti_layout v = small_grid();
    v.sform_code = 2;
    std::vector<double> variance(64, 2.0);
    variance[1] = 0;
    bridge_test::write_nifti(tmp.file("v.nii"), v, variance);
    std::string table = "participant_id\tsession\teffect\tvariance\tdof\n";
    for (int k = 0; k < kRows; ++k) {
        nifti_layout e = small_grid();
        e.sform_code = k % 2 ? 2 : 0;
        std::vector<double> effect(64);
        for (int i = 0; i < 64; ++i) effect[i] = k + i / 100.0;
        if (k < 10) effect[0] = NAN;
        const std::string name = "e" + std::to_string(k) + ".nii";
        bridge_test::write_nifti(tmp.file(name), e, effect);
        table += "sub-" + std::to_string(k % 150) + (k < 150 ? "\tpre\t" : "\tpost\t") + name +
                 "\tv.nii\t" + std::to_string(20 + k % 7) + "\n";
    }
    return table;
}

CommandResult import(const TempDir &tmp, int threads, const std::vector<std::string> &more) {
    std::vector<std::string> args = {"t.tsv", "-o", "study", "-c", "all", "-s", "6", "8"};
    args.insert(args.end(), more.begin(), more.end());
    return bridge_test::run_tool("fmri-rem-import", args, tmp.path(),
                                 "OMP_NUM_THREADS=" + std::to_string(threads) + " ");
}

}  // namespace

TEST(CohortImport, SameFilesAndTextForAnyNumberOfThreads) {
    TempDir tmp;
    std::string table = write_study(tmp);
    write_file(tmp.file("t.tsv"), table);
    const struct {
        const char *what;
        std::vector<std::string> extra;
        size_t signals;
    } runs[] = {{"one row per file", {}, kRows}, {"paired", {"--paired", "post-pre"}, 150}};
    for (const auto &run : runs) {
        SCOPED_TRACE(run.what);
        run_command("rm -rf study0 study1", tmp.path());
        CommandResult result[2];
        for (int k = 0; k < 2; ++k) {
            result[k] = import(tmp, k == 0 ? 1 : 3, run.extra);
            ASSERT_EQ(result[k].status, 0) << result[k].err;
            run_command("mv study study" + std::to_string(k), tmp.path());
        }
        EXPECT_EQ(result[0].out, result[1].out);
        EXPECT_EQ(result[0].err, result[1].err);
        // The even rows' maps have no orientation; the first read is named.
        const bool paired = run.signals == 150;
        EXPECT_TRUE(holds(result[0].err, std::string("Warning: 150 NIfTI files have neither qform "
                                                     "nor sform (e.g. ") +
                                             (paired ? "e150.nii" : "e0.nii") + ")"));
        // Voxel 0 is missing in rows 0-9 only, voxel 1 in every row.
        EXPECT_TRUE(paired || result[0].out.find("Read 300 rows: 4 x 4 x 4 voxels; 62 complete "
                                                 "in every subject, 1 lost to a missing value in "
                                                 "some subject, 1 without a value in any.") !=
                                  std::string::npos)
            << result[0].out;
        CommandResult diff =
            run_command("diff -r study0 study1 && ls study0/signal | wc -l", tmp.path());
        EXPECT_EQ(diff.status, 0) << diff.out;
        EXPECT_EQ(diff.out, std::to_string(2 * run.signals) + "\n");
        // Participant 5: row 5 alone, or row 155 minus row 5.
        const std::vector<float> s = read_floats(tmp.file("study1/signal/sub-5.bfloat"));
        ASSERT_EQ(s.size(), 128u);
        EXPECT_NEAR(s[2], paired ? 150.0 : 5.02, 1e-4);
        EXPECT_FLOAT_EQ(s[64 + 2], paired ? 2.0f : std::sqrt(2.0f));
        EXPECT_EQ(s[64 + 1], 0.0f);
        EXPECT_TRUE(holds(read_file(tmp.file("study1/signal/sub-5.hdr")),
                          paired ? "degrees-of-freedom 21\n" : "degrees-of-freedom 25\n"));
    }
    // The classic estimate keeps fmri-rem's capacity of 200 files.
    bridge_test::expect_refused(import(tmp, 2, {"--reml", "classic"}),
                                "gives 300 signal files; fmri-rem analyses at most 200",
                                tmp.path());

    // The first bad row is named whichever thread meets a bad row first: row
    // 120 (line 122) on another grid, found after reading; row 250's map
    // does not exist, found at once.
    bridge_test::write_nifti(tmp.file("wide.nii"), small_grid(5), std::vector<double>(80, 1.0));
    table.replace(table.find("\te120.nii\t"), 10, "\twide.nii\t");
    table.replace(table.find("\te250.nii\t"), 10, "\tnone.nii\t");
    write_file(tmp.file("t.tsv"), table);
    for (int threads : {1, 3}) {
        SCOPED_TRACE(threads);
        CommandResult r = import(tmp, threads, {});
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.err,
                  "Error: t.tsv line 122: wide.nii has 5 x 4 x 4 voxels, e0.nii 4 x 4 x 4\n");
        EXPECT_EQ(run_command("find study -type f", tmp.path()).out, "");
    }
}
