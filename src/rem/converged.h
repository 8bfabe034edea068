// Pieces of the converged estimate shared by the one-voxel iteration
// (converged_reml.cpp) and the one that iterates several voxels side by side
// (converged_lanes.cpp): the scaling of a voxel's data and the safeguarded
// Newton iteration that chooses the next point from an evaluation.
// Internal to the rem module.
#ifndef FMRI_REM_CONVERGED_H
#define FMRI_REM_CONVERGED_H

#include <cmath>
#include <cstddef>

namespace converged {

// Relative size below which a column of M is taken as a combination of the
// columns before it (a zero column, a repeated event): it is left out, as
// the pseudo-inverse of the classic route leaves out its direction.
const double kDependentColumn = 1e-10;

// The score, the observed and the expected information at one point, and
// the number of columns kept in the factor of M.
struct evaluation {
    double score;     // S
    double observed;  // J
    double expected;  // I
    int rank;         // p
};

// Checks a voxel's values and writes them in units of the mean squared
// error value, so that the stopping rule does not depend on the units of the
// data: y[i * stride] = effect / sqrt(scale), v[i * stride] = error^2 / scale.
// False (nothing usable) when an error value is not positive and finite, an
// effect is not finite, or there are no files.
bool scale_voxel(int n, const float *effect, const float *error, double *y, double *v,
                 size_t stride, double *scale);

// Where the iteration of one voxel stands.  It starts at tau2 = 0 with an
// open bracket.
struct newton {
    double t = 0.0;                  // the point evaluated last, then the next one
    double lo = 0.0, hi = HUGE_VAL;  // S(lo) > 0; S(hi) < 0 once hi is finite
    double last_change = HUGE_VAL, change_before = HUGE_VAL;
    int iterations = 0;  // evaluations so far
    int status = 0;      // 0 converged, or REM_CONVERGED_CAPPED
};

// Takes the evaluation at s->t from a problem of n rows: true when the
// estimate is final (s->t, s->status), false when s->t is the next point to
// evaluate.
bool next_point(newton *s, const evaluation &ev, int n);

}  // namespace converged

#endif
