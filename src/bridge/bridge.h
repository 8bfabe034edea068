// NIfTI import and export beside the analysis: first-level NIfTI maps in
// (signal files, an analysis file and geometry.json), result volumes out (NIfTI
// statistical maps with intents), and the pieces that the report shares with
// the export (condition labels and the geometry of a results folder).
#ifndef FMRI_REM_BRIDGE_H
#define FMRI_REM_BRIDGE_H

#include <string>

namespace bridge {

// A condition's name in file names: event characters kept, "-" written
// "Minus" and "," written "And" ("p-c" gives "pMinusc", "p,c" "pAndc").
std::string condition_label(const std::string &condition);

// Where the voxels of a results folder lie in space.
struct geometry {
    int dims[3] = {0, 0, 0};
    double affine[4][4] = {
        {1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}};  // (i, j, k, 1) -> mm
    int qform_code = 2;
    int sform_code = 2;
    bool from_header = false;  // built from a result header, not read from geometry.json
    std::string source;        // the file it came from
};

// The geometry of a results folder: the file `given` when not empty, else
// results_dir/geometry.json, else geometry.json in its parent folder; without
// one, the affine of the result header's (sigma2.hdr) voxel size, origin and
// direction, with codes 2 and from_header set.  False with *error set (one
// line, without "Error: ") when none can be had.
bool find_geometry(const std::string &results_dir, const std::string &given, geometry *out,
                   std::string *error);

// Voxel (i, j, k) in millimetres through the affine.
void voxel_to_mm(const geometry &g, double i, double j, double k, double mm[3]);

}  // namespace bridge

#endif
