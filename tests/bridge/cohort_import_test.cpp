// fmri-rem-import on a table of many rows, read on several threads: every
// signal file holds its own row's values, and of two bad rows the first one
// is named, with nothing left behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "bridge_test.h"

using namespace test_support;

TEST(Bridge, ManyRowsImportInParallelAndTheFirstBadRowIsNamed) {
    TempDir tmp;
    const int rows = 400;
    bridge_test::nifti_layout grid{{4, 3, 2, 1}};
    grid.sform_code = 4;
    std::string table = "group\teffect\tstderr\tdof\n";
    for (int r = 0; r < rows; ++r) {
        const std::string e = "e" + std::to_string(r) + ".nii";
        // Row r: effect r + voxel / 100 and standard error 1 + r / 1000.
        std::vector<double> effect(24), se(24, 1.0 + r / 1000.0);
        for (int v = 0; v < 24; ++v) effect[v] = r + v / 100.0;
        bridge_test::write_nifti(tmp.file(e), grid, effect);
        bridge_test::write_nifti(tmp.file("s" + std::to_string(r) + ".nii"), grid, se);
        table +=
            std::string(r % 2 ? "b" : "a") + "\t" + e + "\ts" + std::to_string(r) + ".nii\t20\n";
    }
    write_file(tmp.file("t.tsv"), table);
    const std::vector<std::string> args = {"t.tsv", "-o", "study", "-c",     "a-b",
                                           "-s",    "6",  "8",     "--reml", "converged"};
    auto good = bridge_test::run_tool("fmri-rem-import", args, tmp.path());
    ASSERT_EQ(good.status, 0) << good.err;
    EXPECT_EQ(good.err, "");
    const std::string analysis = read_file(tmp.file("study/analysis.rem"));
    int files = 0;
    for (const auto &entry : std::filesystem::directory_iterator(tmp.file("study/signal"))) {
        if (entry.path().extension() != ".bfloat") continue;
        ++files;
        const std::vector<float> data = read_floats(entry.path().string());
        ASSERT_EQ(data.size(), 48u);
        const int r = static_cast<int>(data[0] + 0.5f);  // the row the file says it is
        for (int v = 0; v < 24; ++v) {
            EXPECT_FLOAT_EQ(data[v], static_cast<float>(r + v / 100.0)) << entry.path();
            EXPECT_FLOAT_EQ(data[24 + v], static_cast<float>(1.0 + r / 1000.0)) << entry.path();
        }
    }
    EXPECT_EQ(files, rows);
    EXPECT_NE(analysis.find("\nreml converged\n"), std::string::npos);

    // Rows 301 and 251 (table lines 303 and 253) name files that do not exist.
    std::string bad = table;
    for (int r : {301, 251}) {
        const std::string e = "\te" + std::to_string(r) + ".nii\t";
        bad.replace(bad.find(e), e.size(), "\tmissing" + std::to_string(r) + ".nii\t");
    }
    write_file(tmp.file("t.tsv"), bad);
    const std::vector<std::string> again = {"t.tsv", "-o", "again", "-c",     "a-b",
                                            "-s",    "6",  "8",     "--reml", "converged"};
    for (int run = 0; run < 3; ++run) {
        auto result = bridge_test::run_tool("fmri-rem-import", again, tmp.path());
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err.rfind("Error: t.tsv, line 253: cannot read missing251.nii", 0), 0u)
            << result.err;
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1);
        int left = 0;
        if (std::filesystem::exists(tmp.file("again/signal")))
            for (const auto &entry : std::filesystem::directory_iterator(tmp.file("again/signal")))
                left += !entry.path().empty();
        EXPECT_EQ(left, 0);
        EXPECT_FALSE(std::filesystem::exists(tmp.file("again/analysis.rem")));
    }
}
