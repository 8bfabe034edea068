// Helpers of the import and export tests: NIfTI files written the way the
// first-level packages write them, the companion programs, and a normal
// quantile computed without Boost.
#ifndef FMRI_REM_BRIDGE_TEST_H
#define FMRI_REM_BRIDGE_TEST_H

#include <nifti1_io.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "../e2e/holds.h"
#include "test_support.h"

namespace bridge_test {

struct nifti_layout {
    int dims[4] = {1, 1, 1, 1};  // x, y, z, volumes
    int datatype = NIFTI_TYPE_FLOAT32;
    float affine[4][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}};
    int qform_code = 0, sform_code = 0;
    float slope = 0, inter = 0;
    bool pair = false;  // .hdr/.img instead of one file
};

// nx x ny x nz voxels of `voxel` mm, sform code `sform`.
inline nifti_layout grid(int nx, int ny, int nz, float voxel, int volumes = 1, int sform = 4) {
    nifti_layout s{{nx, ny, nz, volumes}};
    s.affine[0][0] = s.affine[1][1] = s.affine[2][2] = voxel;
    s.sform_code = sform;
    return s;
}

// Writes `stored` (the values as the datatype holds them, x fastest, volume
// after volume) under `prefix` (".nii", ".nii.gz" or, for a pair, ".hdr").
inline void write_nifti(const std::string &prefix, const nifti_layout &s,
                        const std::vector<double> &stored) {
    int dims[8] = {s.dims[3] > 1 ? 4 : 3, s.dims[0], s.dims[1], s.dims[2], s.dims[3], 1, 1, 1};
    nifti_image *nim = nifti_make_new_nim(dims, s.datatype, 1);
    mat44 a;
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) a.m[r][c] = s.affine[r][c];
    nifti_mat44_to_quatern(a, &nim->quatern_b, &nim->quatern_c, &nim->quatern_d, &nim->qoffset_x,
                           &nim->qoffset_y, &nim->qoffset_z, &nim->dx, &nim->dy, &nim->dz,
                           &nim->qfac);
    nim->pixdim[1] = nim->dx, nim->pixdim[2] = nim->dy, nim->pixdim[3] = nim->dz;
    nim->sto_xyz = a;
    nim->qform_code = s.qform_code, nim->sform_code = s.sform_code;
    nim->scl_slope = s.slope, nim->scl_inter = s.inter;
    auto put = [&](auto *data) {
        for (size_t k = 0; k < stored.size(); ++k)
            data[k] = static_cast<std::remove_pointer_t<decltype(data)>>(stored[k]);
    };
    if (s.datatype == NIFTI_TYPE_INT16) put(static_cast<short *>(nim->data));
    if (s.datatype == NIFTI_TYPE_UINT8) put(static_cast<unsigned char *>(nim->data));
    if (s.datatype == NIFTI_TYPE_FLOAT64) put(static_cast<double *>(nim->data));
    if (s.datatype == NIFTI_TYPE_FLOAT32) put(static_cast<float *>(nim->data));
    if (s.pair) nim->nifti_type = NIFTI_FTYPE_NIFTI1_2;
    nifti_set_filenames(nim, prefix.c_str(), 0, 1);
    nifti_image_write(nim);
    nifti_image_free(nim);
}

// A map read back with its data; freed when it goes.
using nifti_ptr = std::unique_ptr<nifti_image, void (*)(nifti_image *)>;
inline nifti_ptr read_nifti(const std::string &path) {
    return nifti_ptr(nifti_image_read(path.c_str(), 1), nifti_image_free);
}

// `env`: assignments put before the command.
inline test_support::CommandResult run_tool(const std::string &tool,
                                            const std::vector<std::string> &args,
                                            const std::string &dir, const std::string &env = "") {
    std::string cmd = env + test_support::shell_quote(std::string(FMRI_REM_BUILD_DIR) + "/" + tool);
    for (const std::string &a : args) cmd += " " + test_support::shell_quote(a);
    return test_support::run_command(cmd, dir);
}

// fmri-rem-import in `dir`: `table` -o study -c `conditions` -s 0 0, then `more`.
inline test_support::CommandResult import(const std::string &dir, const std::string &table,
                                          const std::string &conditions,
                                          const std::vector<std::string> &more = {}) {
    std::vector<std::string> args = {table, "-o", "study", "-c", conditions, "-s", "0", "0"};
    args.insert(args.end(), more.begin(), more.end());
    return run_tool("fmri-rem-import", args, dir);
}

// Refused: status 1, nothing on standard output, one "Error: " line holding
// `message`, and nothing left in `dir` that looks written (study, results/nifti).
inline void expect_refused(const test_support::CommandResult &r, const std::string &message,
                           const std::string &dir) {
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.rfind("Error: ", 0), 0u) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_TRUE(holds(r.err, message));
    EXPECT_EQ(
        test_support::run_command("find study results/nifti empty/nifti 2>/dev/null", dir).out, "");
}

// |z| with two-sided p = 10^-L, i.e. erfc(|z| / sqrt 2) = p, by Newton's
// method on log erfc in long double.
inline double z_reference(double L) {
    if (L == 0) return 0;
    const long double log_p = -static_cast<long double>(L) * std::log(10.0L);
    long double x = std::sqrt(-log_p);
    for (int it = 0; it < 100; ++it) {
        long double e = std::erfc(x);
        long double f = std::log(e) - log_p;
        long double df =
            -2.0L / std::sqrt(3.14159265358979323846264338327950288L) * std::exp(-x * x) / e;
        long double step = f / df;
        x -= step;
        if (std::fabs(step) < 1e-18L * x) break;
    }
    return static_cast<double>(std::sqrt(2.0L) * x);
}

}  // namespace bridge_test

#endif
