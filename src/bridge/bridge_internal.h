// Pieces shared by the import and the export: errors, files written under a
// temporary name, the native text header, the table reader and NIfTI access.
#ifndef FMRI_REM_BRIDGE_INTERNAL_H
#define FMRI_REM_BRIDGE_INTERNAL_H

#include <cstdint>
#include <functional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bridge.h"

namespace bridge {

// Any failure of the import or export: the message without "Error: ".
struct failure : std::runtime_error {
    explicit failure(const std::string &message) : std::runtime_error(message) {}
};

// Runs `work`; 0 when it succeeds, else 1 after "Error: <message>" on err
// (on a line of its own when a progress line was shown).
int run_reporting_errors(bool progress, std::ostream &err, const std::function<void()> &work);

// --- files (files.cpp) ---
bool is_file(const std::string &path);
bool is_dir(const std::string &path);
void make_dirs(const std::string &path);  // like mkdir -p; throws
std::string parent_dir(const std::string &path);
// The path with links and ".." resolved; the path itself when it cannot be.
std::string full_path(const std::string &path);
std::string join_path(const std::string &dir, const std::string &name);
std::string read_text(const std::string &path);  // throws
// Writes under a hidden temporary name beside `path` and renames it on success.
void write_text_atomic(const std::string &path, const std::string &text);
void write_bytes(const std::string &path, const void *data, size_t bytes);  // throws
void rename_or_throw(const std::string &from, const std::string &to);
// A hidden temporary name beside `path` that keeps its extension (".nii.gz").
std::string temporary_name(const std::string &path, const std::string &extension);
// Files written under temporary names: renamed into place by commit(),
// removed if it never comes.
struct staging {
    std::vector<std::pair<std::string, std::string>> files;  // temporary, final
    bool committed = false;
    staging() = default;
    staging(const staging &) = delete;
    staging &operator=(const staging &) = delete;
    ~staging();
    std::string add(const std::string &final_path);  // the temporary name to write
    // Creates `path` and its missing parents; those it created are removed
    // again (when empty) unless the files are committed.
    void make_dirs(const std::string &path);
    std::vector<std::string> made_dirs;
    void commit();
};
// Reads `count` floats from `path` starting at float number `first`; throws.
std::vector<float> read_floats(const std::string &path, size_t first, size_t count);
int64_t file_size(const std::string &path);  // -1 when it cannot be had

// --- the native text header of .bfloat volumes (files.cpp) ---
struct native_header {
    int nx = 0, ny = 0, nz = 0, nt = 0;
    float resolution[3] = {1, 1, 1};
    float origin[3] = {0, 0, 0};
    float direction[3] = {1, 1, 1};
    int dof = 0;
    bool has_dof = false;
};
// Reads the keywords that fmri-rem writes; throws with the file named.
native_header read_native_header(const std::string &path);
std::string native_header_text(const native_header &h);

// --- tab-separated table with a header row (tsv.cpp) ---
struct table {
    std::string path;
    std::vector<std::string> columns;
    std::vector<std::vector<std::string>> rows;
    std::vector<int> lines;                     // line number of each row in the file
    int column(const std::string &name) const;  // -1 when absent
};
table read_table(const std::string &path);  // throws with line and column
// "n/a" or empty: no value.
bool given(const std::string &cell);

// --- NIfTI images (nifti.cpp) ---
struct image {
    int dims[3] = {0, 0, 0};
    int frames = 1;
    double affine[4][4] = {};
    int qform_code = 0;
    int sform_code = 0;
    bool analyze = false;        // an Analyze 7.5 file, placed as SPM2 places it
    std::vector<double> values;  // one volume, scaling applied
};
// Reads one 3-D volume of a NIfTI file (volume < 0: the image must be 3-D).
image read_image(const std::string &path, int volume);
// The largest difference between two affines' elements.
double affine_difference(const double a[4][4], const double b[4][4]);

struct map_header {
    int intent_code = 0;
    double intent_p1 = 0, intent_p2 = 0;
    std::string intent_name;
    std::string descrip;
    int frames = 1;
    bool uint8 = false;  // a mask of 0 and 1
};
// Writes `data` (frames x voxels, float32 or uint8) as gzip-compressed NIfTI-1
// at `path`, which must end in ".nii.gz".  cal_min/cal_max over voxels where
// analysed[i] (all voxels of a frame when analysed is empty).
void write_map(const std::string &path, const geometry &g, const map_header &h,
               const std::vector<float> &data, const std::vector<uint8_t> &analysed);

// |z| of the normal distribution whose two-sided p is 10^-log10p.
double z_from_log10p(double log10p);

}  // namespace bridge

#endif
