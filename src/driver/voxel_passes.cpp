// The voxel passes: one loop over the voxels, in chunks, on the threads of
// the route, calling a kernel of the model on each voxel (see
// voxel_passes.h).
#include "voxel_passes.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#ifdef _OPENMP
#include <omp.h>
#endif

#include "signal_data.h"
#include "util.h"

namespace {

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
    std::vector<float> fitted, event_sum;
};

// Voxels handed to a thread at once; a kernel that estimates several voxels
// side by side takes them as one group.
const int kGroup = REM_CONVERGED_GROUP;

class thread_states {
  public:
    thread_states(const voxel_pass_setup &setup)
        : states_(static_cast<size_t>(setup.route.threads)) {
        const size_t n = static_cast<size_t>(setup.nfiles);
        for (thread_state &s : states_) {
            s.ws = rem_workspace_create(setup.model);
            s.fitted.resize(n);
            s.event_sum.resize(n);
        }
    }
    ~thread_states() {
        long reference = 0;
        for (thread_state &s : states_) {
            reference += rem_workspace_reference_count(s.ws);
            rem_workspace_free(s.ws);
        }
        // How often the fast kernel's shortcuts did not apply, for whoever
        // tunes the program.
        const char *verbose = std::getenv("FMRI_REM_VERBOSE");
        if (verbose != nullptr && verbose[0] != '\0' && std::strcmp(verbose, "0") != 0)
            std::fprintf(stderr,
                         "fmri-rem: %s kernel on %zu threads; %ld voxels took the "
                         "reference kernel\n",
                         kernel_name_, states_.size(), reference);
    }
    thread_state &mine() { return states_[static_cast<size_t>(thread_index())]; }
    void set_kernel_name(const char *name) { kernel_name_ = name; }

  private:
    std::vector<thread_state> states_;
    const char *kernel_name_ = "";
};

// One pass: for each chunk of voxels, group(first, last, status) runs on the
// threads for groups of up to kGroup voxels [first, last) and sets each
// voxel's status; then the main thread hands the statuses to
// report(i, status) in voxel order (false ends the pass) and prints the
// progress line of every step-th voxel.  Meanwhile the chunk source reads
// the next chunk.  0, or 1 when the signal data could not be read or report
// said so.
template <class Group, class Report>
int run_pass(const voxel_pass_setup &setup, signal_chunks &values, const char *what, Group group,
             Report report) {
    const int chunk = values.chunk_voxels();
    std::vector<int> status(static_cast<size_t>(chunk));
    for (int c0 = 0; c0 < setup.nvoxels; c0 += chunk) {
        const int c1 = setup.nvoxels - c0 < chunk ? setup.nvoxels : c0 + chunk;
        if (!values.fetch(c0, c1 - c0)) return 1;
        if (c1 < setup.nvoxels)
            values.fetch_ahead(c1, setup.nvoxels - c1 < chunk ? setup.nvoxels - c1 : chunk);
#pragma omp parallel for num_threads(setup.route.threads) schedule(dynamic, 1)
        for (int g = c0; g < c1; g += kGroup)
            group(g, c1 - g < kGroup ? c1 : g + kGroup, &status[static_cast<size_t>(g - c0)]);
        for (int i = c0; i < c1; ++i) {
            if (!report(i, status[static_cast<size_t>(i - c0)])) return 1;
            if (i % setup.step == 0) {
                std::printf("\r %d percent done computing %s", (100 / 100 * i) / setup.step, what);
                std::fflush(stdout);
            }
        }
    }
    return check_signal_files_unchanged();
}

}  // namespace

voxel_route voxel_route_from_environment(void) {
    const bool converged = REM_input.reml_method == REM_REML_CONVERGED;
    const char *plain = std::getenv("FMRI_REM_PLAIN");
    if (plain != nullptr && plain[0] != '\0' && std::strcmp(plain, "0") != 0)
        return voxel_route{converged ? &rem_converged_reference_kernel : &rem_reference_kernel, 1,
                           0};
#ifdef _OPENMP
    const int threads = omp_get_max_threads();
#else
    const int threads = 1;
#endif
    return voxel_route{converged ? &rem_converged_kernel : &rem_fast_kernel,
                       threads > 0 ? threads : 1, 1};
}

int variance_pass(const voxel_pass_setup &setup, int *unestimable, int *did_not_settle,
                  int *at_cap) {
    // The model squares the errors; their absolute values are passed.
    signal_chunks values(setup.entries, setup.nfiles, setup.route.read_on_demand != 0,
                         setup.route.threads, true);
    thread_states states(setup);
    states.set_kernel_name(setup.route.kernel->name);
    const rem_kernel *kernel = setup.route.kernel;
    auto group = [&](int first, int last, int *status) {
        thread_state &s = states.mine();
        const float *effects[kGroup], *errors[kGroup];
        float fe[kGroup], re[kGroup];
        const int size = last - first;
        for (int v = 0; v < size; ++v) {
            effects[v] = values.effects(first + v);
            errors[v] = values.errors(first + v);
        }
        rem_estimate_group(kernel, s.ws, size, effects, errors, setup.dofs, fe, re, status);
        for (int v = 0; v < size; ++v) {
            Sigma2_FE_map[first + v] = fe[v];
            Sigma2_RE_map[first + v] = re[v];
        }
    };
    int count = 0, unsettled = 0, capped = 0;
    auto report = [&](int, int status) {
        if (status == REM_VOXEL_UNUSABLE) ++count;
        if (status == REM_VOXEL_UNSETTLED) ++unsettled;
        if (status == REM_VOXEL_CAPPED) ++capped;
        return true;
    };
    const int result = run_pass(setup, values, "RE variance", group, report);
    *unestimable += count;
    *did_not_settle += unsettled;
    *at_cap += capped;
    return result;
}

int statistics_pass(const voxel_pass_setup &setup, int residue_requested, int nconditions,
                    int dof) {
    signal_chunks values(setup.entries, setup.nfiles, setup.route.read_on_demand != 0,
                         setup.route.threads);
    thread_states states(setup);
    states.set_kernel_name(setup.route.kernel->name);
    const rem_kernel *kernel = setup.route.kernel;
    const int nfiles = setup.nfiles;
    const int64_t n = setup.nvoxels;
    const int correct = REM_input.multiple_comparisons != 0;
    // The arguments of the incomplete beta function at a voxel whose test
    // failed, by the voxel's place in its chunk.
    std::vector<std::pair<double, double>> domain(static_cast<size_t>(values.chunk_voxels()));
    auto voxel = [&](int i) {
        thread_state &s = states.mine();
        const float *effects = values.effects(i);
        // A voxel whose random variance is exactly 0 is skipped: zeros
        // throughout.  A converged estimate of 0 is an estimate like any
        // other: then only a voxel without a fixed-effects variance (one that
        // could not be estimated) is skipped.
        const float re = Sigma2_RE_map[i];
        const bool skipped =
            re == 0.0f && (!setup.zero_estimates_tested || Sigma2_FE_map[i] == 0.0f);
        if (skipped) {
            if (residue_requested)
                for (int k = 0; k < nfiles; ++k) Residue_series[k * n + i] = 0.0f;
        } else {
            kernel->fit(s.ws, re, effects, values.errors(i), s.fitted.data(), s.event_sum.data());
            if (residue_requested)
                for (int k = 0; k < nfiles; ++k)
                    Residue_series[k * n + i] = effects[k] - s.fitted[k];
        }
        for (int c = 0; c < nconditions; ++c) {
            rem_test_result r = {0.0f, 0.0f, 0.0f, 0.0f, 0.0f};
            if (!skipped && kernel->test(s.ws, c, resels, dof, &r) != REM_VOXEL_DONE) {
                std::pair<double, double> &ab = domain[static_cast<size_t>(i) % domain.size()];
                rem_workspace_ibeta_domain(s.ws, &ab.first, &ab.second);
                return static_cast<int>(REM_VOXEL_IBETA_DOMAIN_ERROR);
            }
            store_condition_results(c, i, skipped, correct, r.t_value, r.p_raw, r.p_corrected,
                                    r.effect_size, r.effect_error);
        }
        return static_cast<int>(REM_VOXEL_DONE);
    };
    auto report = [&](int i, int status) {
        if (status == REM_VOXEL_IBETA_DOMAIN_ERROR) {
            const std::pair<double, double> &ab = domain[static_cast<size_t>(i) % domain.size()];
            values.stop_reading_ahead();
            ibeta_domain_exit(ab.first, ab.second);
        }
        return true;
    };
    auto group = [&](int first, int last, int *status) {
        for (int i = first; i < last; ++i) status[i - first] = voxel(i);
    };
    return run_pass(setup, values, "statistics", group, report);
}

void store_condition_results(int c, int voxel, int skipped, int correct, float t, float p_raw,
                             float p_corrected, float s, float ds) {
    float p_code = 0.0f;
    if (!skipped) {
        const float p = correct ? p_corrected : p_raw;
        p_code = static_cast<float>(-std::log10(static_cast<double>(p)));
        if (t < 0.0f) p_code = -p_code;
    }
    P_map[c][voxel] = p_code;
    T_map[c][voxel] = t;
    S_map[c][voxel] = s;
    dS_map[c][voxel] = ds;
}
