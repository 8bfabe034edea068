// The voxel passes on the fast per-voxel kernel, in parallel.
//
// The voxels are taken in chunks.  Within a chunk the threads share the
// voxels out; each thread has its own kernel workspace and working vectors,
// and each voxel's results go to that voxel's own map slots, so the maps do
// not depend on which thread did what.  When a chunk is complete the master
// thread prints the progress lines of its voxels in order, so standard output
// is the same as that of the plain, one-voxel-at-a-time passes.
#include "fast_passes.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#ifdef _OPENMP
#include <omp.h>
#endif

#include "rem.h"
#include "signal_data.h"
#include "util.h"

namespace {

// Voxels per chunk: large enough to keep every thread busy, small enough for
// the progress lines to come out as the work goes on.
const int kChunk = 4096;

// Bytes of signal values read from the files per chunk when they are read
// on demand: the chunk shrinks as the files grow in number.
const int kChunkBytes = 1 << 20;

int chunk_voxels(int nfiles) {
    if (!signal_data_streamed()) return kChunk;
    int voxels = kChunkBytes / (2 * static_cast<int>(sizeof(float)) * (nfiles > 0 ? nfiles : 1));
    if (voxels < 64) voxels = 64;
    return voxels < kChunk ? voxels : kChunk;
}

// The effect and error values of every file over one chunk of voxels, in
// memory or read from the files into a buffer.
class chunk_values {
  public:
    chunk_values(file_list_entry *const *entries, int nfiles, int chunk)
        : entries_(entries),
          nfiles_(nfiles),
          chunk_(chunk),
          effect_(static_cast<size_t>(nfiles)),
          error_(static_cast<size_t>(nfiles)) {
        if (signal_data_streamed()) buffer_.resize(2 * static_cast<size_t>(nfiles) * chunk);
    }

    // Values of voxels first .. first+count-1; false after an error message.
    bool fetch(int first, int count) {
        float *buffer = buffer_.empty() ? nullptr : buffer_.data();
        for (int k = 0; k < nfiles_; ++k) {
            const size_t at = 2 * static_cast<size_t>(k) * chunk_;
            effect_[k] =
                signal_values(entries_[k], 0, first, count, buffer ? buffer + at : nullptr);
            if (effect_[k] == nullptr) return false;
            error_[k] = signal_values(entries_[k], 1, first, count,
                                      buffer ? buffer + at + chunk_ : nullptr);
            if (error_[k] == nullptr) return false;
        }
        first_ = first;
        return true;
    }

    // Values of file k at a voxel of the chunk fetched last.
    float effect(int k, int voxel) const { return effect_[k][voxel - first_]; }
    float error(int k, int voxel) const { return error_[k][voxel - first_]; }

  private:
    file_list_entry *const *entries_;
    int nfiles_;
    int chunk_;
    int first_ = 0;
    std::vector<const float *> effect_;
    std::vector<const float *> error_;
    std::vector<float> buffer_;
};

int thread_count() {
#ifdef _OPENMP
    return omp_get_max_threads();
#else
    return 1;
#endif
}

int thread_index() {
#ifdef _OPENMP
    return omp_get_thread_num();
#else
    return 0;
#endif
}

// What one thread works with.
struct thread_state {
    rem_workspace *ws;
    rem_converged_workspace *converged;
    float *effects;
    float *errors;
    float *fitted;
    float *event_sum;
};

std::vector<thread_state> make_states(int nfiles) {
    std::vector<thread_state> states(static_cast<size_t>(thread_count()));
    const uint32_t nf = static_cast<uint32_t>(nfiles);
    for (thread_state &s : states) {
        s.ws = rem_workspace_create();
        s.converged = rem_converged_workspace_create();
        s.effects = float_vector(nf);
        s.errors = float_vector(nf);
        s.fitted = float_vector(nf);
        s.event_sum = float_vector(nf);
    }
    return states;
}

void free_states(std::vector<thread_state> &states) {
    for (thread_state &s : states) {
        rem_workspace_free(s.ws);
        rem_converged_workspace_free(s.converged);
        free_float_vector(s.effects);
        free_float_vector(s.errors);
        free_float_vector(s.fitted);
        free_float_vector(s.event_sum);
    }
    states.clear();
}

// The progress lines of voxels first .. last-1, as the plain passes print
// them voxel by voxel.
void print_progress(int first, int last, int step, const char *what) {
    for (int i = (first + step - 1) / step * step; i < last; i += step) {
        std::printf("\r %d percent done computing %s", (100 / 100 * i) / step, what);
        std::fflush(stdout);
    }
}

}  // namespace

int fast_passes_requested(void) {
    const char *plain = std::getenv("FMRI_REM_PLAIN");
    return plain == nullptr || plain[0] == '\0' || std::strcmp(plain, "0") == 0;
}

int fast_passes_usable(int nfiles, int nconditions) {
    if (!fast_passes_requested()) return 0;
    return REM.initialized && REM.nfiles == nfiles && nconditions >= 0 &&
           nconditions <= REM.nconditions;
}

int fast_variance_pass(int nvoxels, int step, file_list_entry *const *entries, const int *dofs,
                       int nfiles, int *unestimable, int *capped) {
    std::vector<thread_state> states = make_states(nfiles);
    const int chunk = chunk_voxels(nfiles);
    chunk_values values(entries, nfiles, chunk);
    const bool converged = REM_input.reml_method == REM_REML_CONVERGED;
    int count = 0;
    int capped_count = 0;
    for (int c0 = 0; c0 < nvoxels; c0 += chunk) {
        const int c1 = nvoxels - c0 < chunk ? nvoxels : c0 + chunk;
        if (!values.fetch(c0, c1 - c0)) {
            free_states(states);
            return 1;
        }
#pragma omp parallel for schedule(dynamic, 16) reduction(+ : count, capped_count)
        for (int i = c0; i < c1; ++i) {
            thread_state &s = states[static_cast<size_t>(thread_index())];
            for (int k = 0; k < nfiles; ++k) {
                s.effects[k] = values.effect(k, i);
                s.errors[k] = std::fabs(values.error(k, i));
            }
            float fe = 0.0f;
            float re = 0.0f;
            // Temporary wiring of "reml converged": fe as above, re converged.
            const int result =
                converged ? rem_converged_first_pass(s.converged, nfiles, s.effects, s.errors, dofs,
                                                     &fe, &re)
                          : rem_fast_reml(s.ws, nfiles, s.effects, s.errors, dofs, &fe, &re);
            if (result == 1) std::exit(1);
            if (result < 0) ++count;
            if (result == REM_CONVERGED_CAPPED) ++capped_count;
            Sigma2_FE_map[i] = fe;
            Sigma2_RE_map[i] = re;
        }
        print_progress(c0, c1, step, "RE variance");
    }
    *unestimable += count;
    *capped += capped_count;
    free_states(states);
    return 0;
}

int fast_statistics_pass(int nvoxels, int step, file_list_entry *const *entries, int nfiles,
                         int residue_requested, int nconditions, int dof) {
    std::vector<thread_state> states = make_states(nfiles);
    const int64_t n = nvoxels;
    const int correct = REM_input.multiple_comparisons != 0;
    const int chunk = chunk_voxels(nfiles);
    chunk_values values(entries, nfiles, chunk);
    for (int c0 = 0; c0 < nvoxels; c0 += chunk) {
        const int c1 = nvoxels - c0 < chunk ? nvoxels : c0 + chunk;
        if (!values.fetch(c0, c1 - c0)) {
            free_states(states);
            return 1;
        }
        int first_failure = c1;
#pragma omp parallel for schedule(dynamic, 16) reduction(min : first_failure)
        for (int i = c0; i < c1; ++i) {
            thread_state &s = states[static_cast<size_t>(thread_index())];
            for (int k = 0; k < nfiles; ++k) {
                s.effects[k] = values.effect(k, i);
                s.errors[k] = values.error(k, i);
            }
            const float re = Sigma2_RE_map[i];
            const bool skipped = skip_voxel(i);
            if (skipped) {
                if (residue_requested)
                    for (int k = 0; k < nfiles; ++k) Residue_series[k * n + i] = 0.0f;
            } else {
                rem_fast_fit_final(s.ws, re, nfiles, s.effects, s.errors, s.fitted, s.event_sum);
                if (residue_requested)
                    for (int k = 0; k < nfiles; ++k)
                        Residue_series[k * n + i] = s.effects[k] - s.fitted[k];
            }
            for (int c = 0; c < nconditions; ++c) {
                float t = 0.0f, p_raw = 0.0f, p_corrected = 0.0f, es = 0.0f, ds = 0.0f;
                if (!skipped && rem_fast_calculate_F(s.ws, nfiles, resels, c, dof, &t, &p_raw,
                                                     &p_corrected, &es, &ds) != 0) {
                    if (i < first_failure) first_failure = i;
                    break;
                }
                store_condition_results(c, i, skipped, correct, t, p_raw, p_corrected, es, ds);
            }
        }
        print_progress(c0, first_failure, step, "statistics");
        if (first_failure < c1) {
            free_states(states);
            return 1;
        }
    }
    free_states(states);
    return 0;
}
