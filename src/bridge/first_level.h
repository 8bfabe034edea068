// How the import reads the cells of its table that name first-level inputs
// (a map and its volume, the degrees of freedom), and where an Analyze 7.5
// image lies in space.
#ifndef FMRI_REM_BRIDGE_FIRST_LEVEL_H
#define FMRI_REM_BRIDGE_FIRST_LEVEL_H

#include <string>
#include <vector>

#include "bridge_internal.h"

namespace bridge {

// --- cells of the table (first_level.cpp) ---

// A map named in the table: its file and the volume chosen (-1: none given,
// the file must then be 3-D).
struct map_cell {
    std::string path;
    int volume = -1;
};

// The map of column `col` in row `r`: the cell's file (relative to the
// table's folder), with AFNI's selector "file.nii.gz[1]" (0-based) or
// "file.nii.gz[Coef]" (a sub-brick label of AFNI's NIfTI extension), else the
// row's column `<name>_volume` (effect_volume, tstat_volume, ...), else its
// column `volume`.  Throws naming the row and column.
map_cell read_map_cell(const table &t, size_t r, int col);

// Refuses an error map (stderr, variance or tstat) that is the effect's own
// file and volume.
void check_error_is_not_effect(const table &t, size_t r, const map_cell &effect,
                               const map_cell &error, const std::string &kind);

// The degrees of freedom of column `col` in row `r`: a number, a text file
// holding one (FSL's stats/dof), or a t map that gives them (a t-test
// intent, an AFNI bucket's t sub-brick, SPM's description "SPM{T_[df]} ...").
// A value that is not an integer enters fmri-rem rounded down.  Throws
// naming the row and column.
struct dof_cell {
    double value = 0;    // as given
    int dof = 0;         // what fmri-rem uses: the value rounded down
    std::string source;  // the file it came from ("" for a number in the cell)
};
dof_cell read_dof_cell(const table &t, size_t r, int col);

// One line (with its newline) saying which degrees of freedom were rounded
// down; "" when all were integers.  `rounded` holds (table line, value) pairs.
std::string rounded_dof_note(const std::vector<std::pair<int, double>> &rounded);

// One line (with its newline) saying how the Analyze 7.5 files among the
// inputs were placed; "" when there were none.
std::string analyze_note(const std::vector<std::string> &files);

// One "Warning: ..." line (with its newline) when NIfTI files without
// qform and sform were read; "" when there were none.
std::string unoriented_warning(const std::vector<std::string> &files);

// One "Warning: ..." line (with its newline) when the standard errors of
// some rows are 1 at every voxel (the error map is then likely the effect,
// or a map of ones); "" when `lines` (their table lines) is empty.
std::string unit_error_warning(const std::vector<int> &lines, size_t rows);

// --- Analyze 7.5 images (analyze.cpp) ---

// Where an Analyze 7.5 image (a .hdr/.img pair without the NIfTI magic)
// lies, read as SPM2 and nibabel read it: voxel sizes from pixdim with x
// flipped (the data stored in radiological order), the origin from the
// originator field (1-based voxel coordinates of 0 mm; the centre when it is
// 0), and SPM2's scaling.  `header_file` is the .hdr, `shown` the name given
// by the user, dims the image's size.  Refuses what SPM and nibabel would
// read differently or what is not known: an SPM .mat file beside the image,
// an orient field other than 0, voxel sizes that are not positive, an origin
// far outside the grid.
struct analyze_layout {
    double affine[4][4] = {};
    double slope = 1, inter = 0;
};
analyze_layout read_analyze_layout(const std::string &header_file, const std::string &shown,
                                   const int dims[3]);

}  // namespace bridge

#endif
