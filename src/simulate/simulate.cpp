// The study: the shared maps, every subject's files (on several threads, the
// same files for any number), the true maps and the analysis file.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <mutex>
#include <thread>

#include "simulate_internal.h"

#ifndef FMRI_REM_VERSION
#define FMRI_REM_VERSION "unknown"
#endif

namespace simulate {

const char *version() {
    return FMRI_REM_VERSION;
}

std::string check(const options &o) {
    if (o.nx < 1 || o.ny < 1 || o.nz < 1) return "the volume needs at least one voxel per axis";
    if (o.groups < 1 || o.groups > 26) return "the number of groups must be 1 to 26";
    if (o.subjects < 1) return "each group needs at least one subject";
    if (o.converged && static_cast<long>(o.groups) * o.subjects > converged_files)
        return "at most " + std::to_string(converged_files) + " subjects in all";
    if (!o.converged && static_cast<long>(o.groups) * o.subjects > classic_files)
        return "at most 200 subjects in all (fmri-rem reads up to 200 files; --converged lifts "
               "this)";
    return "";
}

bool write_study(const options &o, std::ostream &out, std::string *error) {
    if (std::string why = check(o); !why.empty()) {
        *error = why;
        return false;
    }
    staging_folder folder;
    if (!folder.create(o.out, error)) return false;
    const std::string dir = folder.path();

    const volume v{o.nx, o.ny, o.nz};
    const size_t n = v.size();
    const shared_maps m = make_shared_maps(o, v);

    // Subject j (counted over the groups in order) draws its noise level, its
    // degrees of freedom and two (three with an error spread) noise fields of
    // n normal deviates, two uniform numbers per pair of deviates.  So its
    // generator starts where a single one drawing for the subjects in turn
    // would be, and the subjects are written on several threads with the same
    // results.
    const long total = static_cast<long>(o.groups) * o.subjects;
    const uint64_t fields = o.error_spread > 0.0f ? 3 : 2;
    const uint64_t draws = 2 + 2 * ((fields * static_cast<uint64_t>(n) + 1) / 2);
    const float between_fwhm = o.between_fwhm < 0.0f ? o.prior_fwhm : o.between_fwhm;
    auto write_subject = [&](long j, std::string *why) {
        const int g = static_cast<int>(j / o.subjects);
        generator rng(o.seed);
        rng.skip(static_cast<uint64_t>(j) * draws);
        double scale = 0.7 + 0.6 * rng.uniform();  // this subject's noise level
        int dof = o.dof + static_cast<int>(std::floor((rng.uniform() - 0.5) * 0.4 * o.dof));
        if (dof < 1) dof = 1;
        std::vector<float> u = noise_field(rng, v, between_fwhm, o.voxel);
        std::vector<float> e = noise_field(rng, v, o.prior_fwhm, o.voxel);
        std::vector<float> spread;
        if (o.error_spread > 0.0f) spread = noise_field(rng, v, 20.0f, o.voxel);
        std::vector<float> effect(n), stderr_frame(n);
        for (size_t i = 0; i < n; ++i) {
            if (!m.inside[i]) {
                effect[i] = 0.0f;
                stderr_frame[i] = 0.0f;
                continue;
            }
            double se = o.within * scale * m.within_shape[i];
            if (!spread.empty()) se *= std::exp(o.error_spread * spread[i]);
            double b = m.mu[g][i] + m.sd_between[i] * u[i];
            effect[i] = static_cast<float>(b + se * e[i]);
            stderr_frame[i] = static_cast<float>(se);
        }
        return write_volume(dir, subject_stem(o, j), v, o.voxel, {&effect, &stderr_frame}, dof,
                            why);
    };
    unsigned threads = o.threads > 0 ? static_cast<unsigned>(o.threads)
                                     : std::max(1u, std::thread::hardware_concurrency());
    if (static_cast<long>(threads) > total) threads = static_cast<unsigned>(total);
    std::atomic<long> next{0};
    std::atomic<bool> failed{false};
    std::mutex first_error;
    auto work = [&] {
        std::string why;
        for (long j; !failed && (j = next++) < total;) {
            if (!write_subject(j, &why)) {
                std::lock_guard<std::mutex> lock(first_error);
                if (!failed) *error = why;
                failed = true;
            }
        }
    };
    std::vector<std::thread> pool;
    for (unsigned t = 1; t < threads; ++t) pool.emplace_back(work);
    work();
    for (std::thread &t : pool) t.join();
    if (failed) return false;

    for (int g = 0; g < o.groups; ++g) {
        std::string stem = std::string("true-effect-") + group_char(o, g);
        if (!write_volume(dir, stem, v, o.voxel, {&m.mu[g]}, 0, error)) return false;
    }
    if (!write_volume(dir, "true-between-variance", v, o.voxel, {&m.between_variance}, 0, error))
        return false;
    std::string conditions;
    if (!write_text(dir + "/analysis.rem", analysis_text(o, &conditions), error)) return false;
    if (!folder.commit(error)) return false;

    char line[256];
    std::snprintf(line, sizeof line,
                  "Study of %d groups x %d subjects, %d x %d x %d voxels of %g mm", o.groups,
                  o.subjects, v.nx, v.ny, v.nz, o.voxel);
    out << line << ", written to " << o.out << "/\n";
    out << "Analysis file: " << o.out << "/analysis.rem (conditions " << conditions << ")\n";
    return true;
}

}  // namespace simulate
