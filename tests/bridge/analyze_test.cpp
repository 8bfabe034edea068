// Analyze 7.5 inputs (.hdr/.img without the NIfTI magic) as SPM writes them:
// the import places them where SPM2 and nibabel do (x flipped, the origin
// from the originator field), scales them as SPM2 does, reads them beside
// NIfTI files on the same grid, and refuses what is ambiguous.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <nlohmann/json.hpp>
#include <sstream>

#include "bridge_test.h"

using namespace test_support;

namespace {

struct analyze_file {
    int dims[3] = {5, 6, 4};
    float pixdim[3] = {4, 3, 2};
    int16_t origin[3] = {3, 2, 1};  // 1-based voxel of 0 mm; 0 0 0: none
    bool int16 = false;             // else float32
    bool big_endian = false;
    float slope = 0, inter = 0, cal_min = 0, cal_max = 0;
    int32_t gl_min = 0, gl_max = 0;
    unsigned char orient = 0;
};

// Writes `stem`.hdr and `stem`.img, the values as stored (x fastest).
void write_analyze(const std::string &stem, const analyze_file &a,
                   const std::vector<double> &stored) {
    std::string hdr(348, '\0'), img;
    auto put = [&](std::string *out, size_t at, auto value) {
        unsigned char b[sizeof value];
        std::memcpy(b, &value, sizeof value);
        if (a.big_endian) std::reverse(b, b + sizeof value);
        if (out->size() < at + sizeof value) out->resize(at + sizeof value);
        std::memcpy(&(*out)[at], b, sizeof value);
    };
    put(&hdr, 0, int32_t{348});
    put(&hdr, 32, int32_t{16384});
    hdr[38] = 'r';
    put(&hdr, 40, int16_t{3});
    for (int k = 0; k < 3; ++k) {
        put(&hdr, 42 + 2 * k, static_cast<int16_t>(a.dims[k]));
        put(&hdr, 80 + 4 * k, a.pixdim[k]);
        put(&hdr, 253 + 2 * k, a.origin[k]);
    }
    put(&hdr, 48, int16_t{1});
    put(&hdr, 70, static_cast<int16_t>(a.int16 ? 4 : 16));  // datatype
    put(&hdr, 72, static_cast<int16_t>(a.int16 ? 16 : 32));
    put(&hdr, 112, a.slope);
    put(&hdr, 116, a.inter);
    put(&hdr, 124, a.cal_max);
    put(&hdr, 128, a.cal_min);
    put(&hdr, 140, a.gl_max);
    put(&hdr, 144, a.gl_min);
    hdr[252] = static_cast<char>(a.orient);
    for (size_t i = 0; i < stored.size(); ++i)
        a.int16 ? put(&img, 2 * i, static_cast<int16_t>(stored[i]))
                : put(&img, 4 * i, static_cast<float>(stored[i]));
    write_file(stem + ".hdr", hdr);
    write_file(stem + ".img", img);
}

struct placed_case {
    const char *what;
    analyze_file file;
    double affine[3][4];  // by hand: diag(-dx, dy, dz), -(origin - 1) * zoom
    double slope, inter;  // by hand: how the stored values are scaled
};

const placed_case kPlaced[] = {
    {"float32 with an origin", {}, {{-4, 0, 0, 8}, {0, 3, 0, -3}, {0, 0, 2, 0}}, 1, 0},
    {"no origin: the centre at 0 mm",
     {{5, 6, 4}, {4, 3, 2}, {0, 0, 0}},
     {{-4, 0, 0, 8}, {0, 3, 0, -7.5}, {0, 0, 2, -3}},
     1,
     0},
    {"big-endian int16 scaled by funused1 and funused2",
     {{5, 6, 4}, {2, 2, 2}, {4, 5, 3}, true, true, 0.5f, 1.0f},
     {{-2, 0, 0, 6}, {0, 2, 0, -8}, {0, 0, 2, -4}},
     0.5,
     1},
    {"no slope: glmin..glmax onto cal_min..cal_max",
     {{5, 6, 4}, {2, 2, 2}, {4, 5, 3}, true, false, 0, 0, 0, 10, 0, 100},
     {{-2, 0, 0, 6}, {0, 2, 0, -8}, {0, 0, 2, -4}},
     0.1,
     0},
};

std::vector<double> stored_values(const analyze_file &a) {
    std::vector<double> v(static_cast<size_t>(a.dims[0]) * a.dims[1] * a.dims[2]);
    for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<double>(i % 37) - 11;
    return v;
}

// A NIfTI file of standard errors on the grid that `affine` describes.
void write_nifti_on(const std::string &path, const placed_case &c) {
    bridge_test::nifti_layout s{{c.file.dims[0], c.file.dims[1], c.file.dims[2], 1}};
    for (int r = 0; r < 3; ++r)
        for (int k = 0; k < 4; ++k) s.affine[r][k] = static_cast<float>(c.affine[r][k]);
    s.sform_code = 2;
    bridge_test::write_nifti(path, s, std::vector<double>(stored_values(c.file).size(), 0.25));
}

}  // namespace

// Each case beside a NIfTI file of standard errors on the same grid; nibabel,
// when it is installed, reads the same affine and values.  Then the ambiguous
// images that are refused.
TEST(Bridge, AnalyzeImagesPlacedAsSpmPlacesThem) {
    const bool nibabel =
        run_command("/usr/bin/python3 -c 'import nibabel' 2>/dev/null").status == 0;
    TempDir tmp;
    int k = 0;
    for (const placed_case &c : kPlaced) {
        SCOPED_TRACE(c.what);
        const std::string dir = tmp.file("c" + std::to_string(++k));
        run_command("mkdir -p " + shell_quote(dir));
        const std::vector<double> stored = stored_values(c.file);
        write_analyze(dir + "/con_0001", c.file, stored);
        write_nifti_on(dir + "/se.nii", c);
        write_file(dir + "/t.tsv", "group\teffect\tstderr\tdof\na\tcon_0001.img\tse.nii\t20\n");
        CommandResult r = bridge_test::import(dir, "t.tsv", "a");
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_TRUE(holds(r.out, "Analyze 7.5 files (1, e.g. con_0001.img) placed as SPM2"));
        nlohmann::json g = nlohmann::json::parse(read_file(dir + "/study/geometry.json"));
        std::vector<float> got = read_floats(dir + "/study/signal/row-1.bfloat");
        ASSERT_EQ(got.size(), 2 * stored.size());
        std::istringstream in;
        if (nibabel) {
            r = run_command(
                "/usr/bin/python3 -c 'import sys, nibabel as nib, numpy as np; i = "
                "nib.load(sys.argv[1]); print(*i.affine.ravel()[:12], "
                "*np.asarray(i.get_fdata()).ravel(order=\"F\"))' con_0001.hdr",
                dir);
            ASSERT_EQ(r.status, 0) << r.err;
            in.str(r.out);
        }
        double v = 0;
        for (int row = 0; row < 3; ++row)
            for (int col = 0; col < 4; ++col) {
                EXPECT_NEAR(g["affine"][row][col].get<double>(), c.affine[row][col], 1e-12);
                EXPECT_TRUE(!nibabel || (in >> v && std::fabs(v - c.affine[row][col]) < 1e-12));
            }
        for (size_t i = 0; i < stored.size(); ++i) {
            ASSERT_EQ(got[i], static_cast<float>(stored[i] * c.slope + c.inter)) << i;
            ASSERT_TRUE(!nibabel ||
                        (in >> v && std::fabs(v - stored[i] * c.slope - c.inter) < 1e-6))
                << i;
        }
    }

    // Ambiguous images are refused.
    analyze_file far, flipped;
    far.origin[0] = 100;
    flipped.orient = 3;
    const struct {
        analyze_file file;
        bool mat;  // an SPM .mat beside it
        const char *stderr_file, *message;
    } cases[] = {
        {{}, true, "se.nii", "con.mat beside it, whose voxel-to-world"},
        {flipped, false, "se.nii", "whose orient field is 3"},
        {far, false, "se.nii",
         "whose origin (originator field 100 2 1) lies far outside its voxels"},
        {{}, false, "unflipped.nii", "is not on the grid of"},  // NIfTI read without the flip
    };
    write_nifti_on(tmp.file("se.nii"), kPlaced[0]);
    placed_case unflipped = kPlaced[0];
    unflipped.affine[0][0] = 4;
    write_nifti_on(tmp.file("unflipped.nii"), unflipped);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.message);
        write_analyze(tmp.file("con"), c.file, stored_values(c.file));
        run_command(c.mat ? "touch con.mat" : "rm -f con.mat", tmp.path());
        write_file(tmp.file("t.tsv"), "group\teffect\tstderr\tdof\na\tcon.hdr\t" +
                                          std::string(c.stderr_file) + "\t20\n");
        bridge_test::expect_refused(bridge_test::import(tmp.path(), "t.tsv", "a"), c.message,
                                    tmp.path());
    }
}
