// The design matrix: one row per signal file, one column per event, and the
// one-time allocation of every matrix that the fit works with.
#include <float.h>
#include <math.h>
#include <stdint.h>
#include <stdio.h>

#include <cmath>
#include <string>
#include <vector>

#include "design_layout.h"
#include "rem.h"
#include "util.h"

namespace {

float **zero_matrix(int rows, int cols) {
    float **m = float_matrix(static_cast<uint32_t>(rows), static_cast<uint32_t>(cols));
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j) m[i][j] = 0.0f;
    return m;
}

// The model's matrices with their shapes: rows and columns are either the
// number of files (n) or the number of basis functions (k).
struct MatrixSlot {
    float **rem_model::*field;
    bool rows_are_files;
    bool columns_are_files;
};

const MatrixSlot kMatrices[] = {
    {&rem_model::design, true, false},
    {&rem_model::v_inverse_design, true, false},
    {&rem_model::normal_matrix, false, false},
    {&rem_model::normal_inverse, false, false},
    {&rem_model::design_t_v_inverse, false, true},
    {&rem_model::estimator, false, true},
    {&rem_model::hat, true, true},
    {&rem_model::identity, true, true},
    {&rem_model::v_inverse, true, true},
    {&rem_model::residue_forming, true, true},
    {&rem_model::residue_forming_squared, true, true},
    {&rem_model::fixed_variance, true, true},
    {&rem_model::fixed_variance_squared, true, true},
    {&rem_model::work, true, true},
};
const int kMatrixCount = sizeof kMatrices / sizeof kMatrices[0];

// What the last design step allocated. The matrices live until the process
// ends; only a further design step (the control file read again) releases
// the earlier set, so that it is not lost. When the design matrix is no
// longer the one allocated here, its owner has released or replaced the set
// and it is left alone.
struct Allocated {
    bool present = false;
    float *beta = nullptr;
    float **matrix[kMatrixCount] = {};
    int rows[kMatrixCount] = {};
} g_allocated;

void release_earlier_allocation() {
    if (!g_allocated.present) return;
    if (REM.design != g_allocated.matrix[0]) {
        g_allocated = Allocated();
        return;
    }
    free_float_vector(g_allocated.beta);
    for (int m = 0; m < kMatrixCount; ++m)
        free_float_matrix(g_allocated.matrix[m], static_cast<uint32_t>(g_allocated.rows[m]));
    g_allocated = Allocated();
}

char event_char_or_placeholder(int number) {
    char c = '?';
    REM_EventCharFromInteger(number, &c);
    return c;
}

}  // namespace

void REMInternal_define_design_matrix(void) {
    const int n = REM.nfiles;
    REM.nbasis = REM.nevents;
    const int k = REM.nbasis;

    release_earlier_allocation();
    REM.beta = float_vector(static_cast<uint32_t>(k));
    for (int j = 0; j < k; ++j) REM.beta[j] = 0.0f;
    g_allocated.beta = REM.beta;
    // The n x n matrices of the classic arithmetic exist up to its capacity;
    // beyond it (only with "reml converged") the voxels are fitted in
    // storage that grows as n k, and these stay null.
    const bool square = n <= REM_MAX_FILES;
    for (int m = 0; m < kMatrixCount; ++m) {
        const int rows = kMatrices[m].rows_are_files ? n : k;
        const int columns = kMatrices[m].columns_are_files ? n : k;
        const bool by_files = kMatrices[m].rows_are_files && kMatrices[m].columns_are_files;
        REM.*kMatrices[m].field = by_files && !square ? nullptr : zero_matrix(rows, columns);
        g_allocated.matrix[m] = REM.*kMatrices[m].field;
        g_allocated.rows[m] = rows;
    }
    g_allocated.present = true;
    if (square)
        for (int i = 0; i < n; ++i) REM.identity[i][i] = 1.0f;

    // The user's own design: its values as they are.
    if (REM_input.design_layout) {
        for (int i = 0; i < n; ++i)
            for (int e = 0; e < k; ++e) REM.design[i][e] = rem_design_layout_value(i, e);
        return;
    }

    // The scale carries over from one event to the next when an event has
    // no range at all; it starts at 0.
    float scale = 0.0f;
    for (int e = 0; e < REM.nevents; ++e) {
        const int nranges = REM.event_nranges[e];
        for (int r = 0; r < nranges; ++r) {
            const int start = REM.range_start[e][r];
            const int stop = REM.range_stop[e][r];
            float sum = 0.0f;
            for (int i = start; i <= stop; ++i) sum += REM_file_weight(i);
            float mean = sum / static_cast<float>(stop - start + 1);
            scale = fabsf(mean);
        }

        // Entries stay as computed; the user is told where they cannot be finite.
        const char name = event_char_or_placeholder(REM.event_number[e]);
        if (nranges > 0) {
            const int start = REM.range_start[e][nranges - 1];
            const int stop = REM.range_stop[e][nranges - 1];
            if (stop >= start && scale == 0.0f)
                printf(
                    "Warning: the file weights of event %c average 0 over files %d to %d; "
                    "its design values are not finite.\n",
                    name, start, stop);
        }
        if (REM.event_shape[e] == 1) {
            for (int r = 0; r < nranges; ++r)
                if (REM.range_start[e][r] == REM.range_stop[e][r])
                    printf(
                        "Warning: ramp event %c has a range of the single file %d; "
                        "its design value is not a number.\n",
                        name, REM.range_start[e][r]);
        }

        for (int i = 0; i < n; ++i) {
            REM.design[i][e] = 0.0f;
            for (int r = 0; r < nranges; ++r) {
                const int start = REM.range_start[e][r];
                const int stop = REM.range_stop[e][r];
                if (i < start || i > stop) continue;
                const float v = REM_file_weight(i) / scale;
                if (REM.event_shape[e] == 0) {
                    REM.design[i][e] = v;
                } else {
                    const float position =
                        static_cast<float>(i - start) / static_cast<float>(stop - start);
                    REM.design[i][e] = -v + 2.0f * position * v;
                }
            }
        }
    }
}

namespace {

// The character of event e, for messages.
char event_character(int e) {
    char c = '?';
    REM_EventCharFromInteger(REM.event_number[e], &c);
    return c;
}

}  // namespace

int REM_check_design(void) {
    const int n = REM.nfiles, k = REM.nbasis;
    // A design holding values that are not finite is used as it is.
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < k; ++j)
            if (!std::isfinite(REM.design[i][j])) return 0;

    // Gram-Schmidt in double over the columns in event order.  Q holds an
    // orthonormal basis of the independent columns met so far and R their
    // coordinates (X_S = Q.R, upper triangular), so a column that lies in
    // their span is written in terms of the events themselves.
    const double tolerance = static_cast<double>(n > k ? n : k) * FLT_EPSILON;
    std::vector<std::vector<double>> Q, R;
    std::vector<int> independent;
    for (int j = 0; j < k; ++j) {
        std::vector<double> x(static_cast<size_t>(n)), r(static_cast<size_t>(n));
        double norm = 0.0;
        for (int i = 0; i < n; ++i) {
            x[i] = r[i] = REM.design[i][j];
            norm += x[i] * x[i];
        }
        norm = std::sqrt(norm);
        if (norm == 0.0) {
            printf("Error: event %c covers no file: the design cannot be estimated.\n",
                   event_character(j));
            return 1;
        }
        const size_t m = Q.size();
        std::vector<double> coordinates(m, 0.0);
        for (int pass = 0; pass < 2; ++pass) {  // twice, for a clean residue
            for (size_t q = 0; q < m; ++q) {
                double d = 0.0;
                for (int i = 0; i < n; ++i) d += Q[q][i] * r[i];
                for (int i = 0; i < n; ++i) r[i] -= d * Q[q][i];
                coordinates[q] += d;
            }
        }
        double rest = 0.0;
        for (int i = 0; i < n; ++i) rest += r[i] * r[i];
        rest = std::sqrt(rest);
        if (rest > tolerance * norm) {
            for (int i = 0; i < n; ++i) r[i] /= rest;
            Q.push_back(r);
            coordinates.push_back(rest);
            R.push_back(coordinates);
            independent.push_back(j);
            continue;
        }
        // x = Q.coordinates = X_S.c with R.c = coordinates: the events with a
        // part in c depend on each other together with event j.
        std::vector<double> c(m, 0.0);
        for (size_t q = m; q-- > 0;) {
            double v = coordinates[q];
            for (size_t p = q + 1; p < m; ++p) v -= R[p][q] * c[p];
            c[q] = v / R[q][q];
        }
        std::string events;
        std::vector<char> names;
        for (size_t q = 0; q < m; ++q) {
            double size = 0.0;
            for (int i = 0; i < n; ++i)
                size += REM.design[i][independent[q]] * REM.design[i][independent[q]];
            if (std::fabs(c[q]) * std::sqrt(size) > tolerance * norm)
                names.push_back(event_character(independent[q]));
        }
        names.push_back(event_character(j));
        for (size_t a = 0; a < names.size(); ++a) {
            if (a > 0) events += a + 1 == names.size() ? " and " : ", ";
            events += names[a];
        }
        printf(
            "Error: the design columns of events %s are linearly dependent: the design cannot be "
            "estimated.\n",
            events.c_str());
        return 1;
    }
    return 0;
}
