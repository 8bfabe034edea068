// The design matrix: one row per signal file, one column per event, and the
// one-time allocation of every matrix that the fit works with.
#include "rem.h"

#include <math.h>
#include <stdint.h>
#include <stdio.h>

#include "util.h"

namespace {

float **zero_matrix(int rows, int cols) {
    float **m = float_matrix(static_cast<uint32_t>(rows), static_cast<uint32_t>(cols));
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j) m[i][j] = 0.0f;
    return m;
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

    REM.beta = float_vector(static_cast<uint32_t>(k));
    for (int j = 0; j < k; ++j) REM.beta[j] = 0.0f;
    REM.design = zero_matrix(n, k);
    REM.v_inverse_design = zero_matrix(n, k);
    REM.normal_matrix = zero_matrix(k, k);
    REM.normal_inverse = zero_matrix(k, k);
    REM.design_t_v_inverse = zero_matrix(k, n);
    REM.estimator = zero_matrix(k, n);
    REM.hat = zero_matrix(n, n);
    REM.identity = zero_matrix(n, n);
    REM.v_inverse = zero_matrix(n, n);
    REM.residue_forming = zero_matrix(n, n);
    REM.residue_forming_squared = zero_matrix(n, n);
    REM.fixed_variance = zero_matrix(n, n);
    REM.fixed_variance_squared = zero_matrix(n, n);
    REM.work = zero_matrix(n, n);
    for (int i = 0; i < n; ++i) REM.identity[i][i] = 1.0f;

    // The scale carries over from one event to the next when an event has
    // no range at all; it starts at 0.
    float scale = 0.0f;
    for (int e = 0; e < REM.nevents; ++e) {
        const int nranges = REM.event_nranges[e];
        for (int r = 0; r < nranges; ++r) {
            const int start = REM.range_start[e][r];
            const int stop = REM.range_stop[e][r];
            float sum = 0.0f;
            for (int i = start; i <= stop; ++i) sum += REM_input.file_weight[i];
            float mean = sum / static_cast<float>(stop - start + 1);
            scale = fabsf(mean);
        }

        // Entries stay as computed; the user is told where they cannot be finite.
        const char name = event_char_or_placeholder(REM.event_number[e]);
        if (nranges > 0) {
            const int start = REM.range_start[e][nranges - 1];
            const int stop = REM.range_stop[e][nranges - 1];
            if (stop >= start && scale == 0.0f)
                printf("Warning: the file weights of event %c average 0 over files %d to %d; "
                       "its design values are not finite.\n",
                       name, start, stop);
        }
        if (REM.event_shape[e] == 1) {
            for (int r = 0; r < nranges; ++r)
                if (REM.range_start[e][r] == REM.range_stop[e][r])
                    printf("Warning: ramp event %c has a range of the single file %d; "
                           "its design value is not a number.\n",
                           name, REM.range_start[e][r]);
        }

        for (int i = 0; i < n; ++i) {
            REM.design[i][e] = 0.0f;
            for (int r = 0; r < nranges; ++r) {
                const int start = REM.range_start[e][r];
                const int stop = REM.range_stop[e][r];
                if (i < start || i > stop) continue;
                const float v = REM_input.file_weight[i] / scale;
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
