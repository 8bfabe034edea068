// The import's rows: what each table row names (maps, error kind, degrees of
// freedom, weight), the grid they share, and the reader that turns the signal
// units into signal files on several threads.
#ifndef FMRI_REM_BRIDGE_IMPORT_ROWS_H
#define FMRI_REM_BRIDGE_IMPORT_ROWS_H

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "bridge_internal.h"
#include "import_model.h"

namespace bridge {

enum class error_kind { stderr_, variance, tstat };
const char *kind_name(error_kind k);

struct row {
    int line = 0;
    std::string id, group, effect, error, dof_source;
    error_kind kind = error_kind::stderr_;
    int dof = 0, effect_volume = -1, error_volume = -1;
    double dof_value = 0;  // as given; dof is this rounded down
    double weight = 1;
};

// The grid of the first map read, which every other map must share.
struct grid {
    bool set = false;
    image first;  // without its values
    std::string source;
};
// Takes im's grid when g is not set yet, else refuses an image on another grid.
void check_grid(grid *g, const image &im, const std::string &path);

// What the reader is given.  units[u] goes to data_files[u] and
// header_files[u] (the temporary names of its signal file and its header).
struct row_reading {
    std::string table;  // for the messages: "<table> line <n>: ..."
    const std::vector<row> *rows = nullptr;
    const std::vector<signal_unit> *units = nullptr;
    std::vector<std::string> data_files, header_files;
    std::string mask;  // "" for none
    const image *mask_image = nullptr;
    int threads = 0;        // 0: as many as OpenMP allows (OMP_NUM_THREADS)
    bool progress = false;  // a progress line on err
};

// What the reader found, in the order of the signal files (a pair's first
// session, then its second), whatever the threads did first.
struct rows_read {
    grid g;
    std::vector<uint32_t> missing;      // per voxel: the rows without a value
    std::vector<int> unit_error_lines;  // rows whose standard errors are all 1
    std::vector<std::string> analyze_files, unoriented_files;
    std::string warnings;  // "Warning: ..." lines of maps without a usable voxel
};

// Reads the maps of every unit on `threads` threads, one unit at a time per
// thread (memory grows with the threads, not with the rows), and writes each
// unit's signal file and header.  When rows are bad, throws the error of the
// first of them in table order, prefixed "<table> line <n>: ".
rows_read read_signal_units(const row_reading &r, std::ostream &err);

// The second session taken from the first: effect a - b, standard error
// sqrt(se_a^2 + se_b^2) in double, left out (0) where either is.
void subtract_session(std::vector<float> *a, const std::vector<float> &b);

}  // namespace bridge

#endif
