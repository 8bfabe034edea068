// fmri-rem-simulate: writes a synthetic group study in the form fmri-rem
// reads: per-subject two-frame volumes (effect, standard error) with native
// text headers that carry each subject's degrees of freedom, an analysis
// file that groups the subjects into events and names the conditions, and
// the true group effects and between-subject variance for comparison.
//
// Model at voxel v for subject j of group g:
//   subject effect   b_j(v) = mu_g(v) + sd_between(v) * u_j(v)
//   observed effect  y_j(v) = b_j(v) + s_j(v) * e_j(v)
// with mu_g a sum of Gaussian blobs, u_j and e_j smooth Gaussian noise
// fields of unit variance (e_j as smooth as the stated first-level
// smoothing, u_j as --between-fwhm says), and s_j(v) the subject's standard
// error, which is written as the second frame: a factor per subject times a
// trend along y, times exp(S w_j(v)) for a smooth field w_j with
// --error-spread S.  The output depends only on the options and
// the seed: the generator is our own (splitmix64 with Box-Muller).
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

struct options {
    std::string out = "example-study";
    std::string prefix;  // put before every file name in the analysis file
    int nx = 32, ny = 32, nz = 16;
    float voxel = 3.0f;  // mm, isotropic
    int groups = 2;
    int subjects = 12;  // per group
    uint64_t seed = 1;
    float prior_fwhm = 6.0f;  // smoothness of the single-subject maps, mm
    float ratio_fwhm = 8.0f;  // written into the analysis file, mm
    float between = 0.5f;     // between-subject standard deviation (mean over the volume)
    float within = 0.4f;      // typical single-subject standard error
    float effect = 1.0f;      // peak group effect
    int dof = 120;            // typical single-subject degrees of freedom
    bool null_study = false;  // no group effects at all
    bool mask = true;         // zero outside an ellipsoidal "brain"
    bool uniform = false;     // between and within variance the same everywhere
    // Smoothness of the subjects' deviations from their group effect, mm
    // (negative: that of the single-subject maps).
    float between_fwhm = -1.0f;
    // Spread of each subject's own smooth map of standard-error factors
    // (log scale; 0 keeps one factor per subject and the trend along y).
    float error_spread = 0.0f;
    bool converged = false;  // "reml converged" in the analysis file; no 200-file cap
    int threads = 0;         // subjects written at once (0: one per core)
};

// Files that fmri-rem reads with the classic estimate, and with "reml converged".
const long kClassicFiles = 200;
const long kConvergedFiles = 1000000;

// splitmix64 with Box-Muller normal deviates.
class generator {
  public:
    explicit generator(uint64_t seed) : state_(seed) {}
    uint64_t next() {
        uint64_t z = (state_ += 0x9e3779b97f4a7c15ULL);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
        return z ^ (z >> 31);
    }
    // Skips count draws of next(), as if they had been made (no normal
    // deviate may be waiting).
    void skip(uint64_t count) { state_ += count * 0x9e3779b97f4a7c15ULL; }
    double uniform() {
        return (static_cast<double>(next() >> 11) + 0.5) * (1.0 / 9007199254740992.0);
    }
    double normal() {
        if (has_spare_) {
            has_spare_ = false;
            return spare_;
        }
        double u1 = uniform();
        double u2 = uniform();
        double r = std::sqrt(-2.0 * std::log(u1));
        double a = 6.283185307179586 * u2;
        spare_ = r * std::sin(a);
        has_spare_ = true;
        return r * std::cos(a);
    }

  private:
    uint64_t state_;
    double spare_ = 0.0;
    bool has_spare_ = false;
};

const char *kUsage =
    "Usage: fmri-rem-simulate [options]\n"
    "Writes a synthetic group study for fmri-rem.\n"
    "  -o DIR              output folder (default example-study)\n"
    "  --size NX NY NZ     volume size in voxels (default 32 32 16)\n"
    "  --voxel MM          voxel size (default 3)\n"
    "  --groups G          number of groups, 1 to 26 (default 2)\n"
    "  --subjects S        subjects per group (default 12)\n"
    "  --converged         \"reml converged\" in the analysis file, which lifts the\n"
    "                      200-file capacity (up to 1000000 subjects in all)\n"
    "  --threads T         subjects written at once (default: one per core)\n"
    "  --seed N            random seed (default 1)\n"
    "  --smoothing P R     smoothness of the subject maps and ratio smoothing, mm (default 6 8)\n"
    "  --between SD        between-subject standard deviation (default 0.5)\n"
    "  --within SE         typical standard error of a subject's effect (default 0.4)\n"
    "  --effect A          peak group effect (default 1)\n"
    "  --dof D             typical degrees of freedom of a subject's analysis (default 120)\n"
    "  --prefix P          text put before each file name in the analysis file\n"
    "  --null              no group effects\n"
    "  --no-mask           data everywhere (no zero voxels outside the brain)\n"
    "  --uniform           the same variances at every voxel\n"
    "  --between-fwhm MM   smoothness of the subjects' deviations (default: first --smoothing)\n"
    "  --error-spread S    each subject's standard error also varies over space, a smooth\n"
    "                      (20 mm) log-normal factor of spread S (default 0)\n";

bool parse_int(const char *text, long low, long high, int *value) {
    char *end = nullptr;
    errno = 0;
    long v = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < low || v > high) return false;
    *value = static_cast<int>(v);
    return true;
}

bool parse_float(const char *text, float low, float *value) {
    char *end = nullptr;
    double v = std::strtod(text, &end);
    if (end == text || *end != '\0' || !(v >= low) || !std::isfinite(v)) return false;
    *value = static_cast<float>(v);
    return true;
}

// 0 on success, 1 on a bad command line, 2 for help.
int parse_options(int argc, char **argv, options *o) {
    for (int a = 1; a < argc; ++a) {
        std::string w = argv[a];
        auto need = [&](int count) { return a + count < argc; };
        bool ok = true;
        if (w == "-h" || w == "--help") {
            return 2;
        } else if ((w == "-o" || w == "--out") && need(1)) {
            o->out = argv[++a];
        } else if (w == "--prefix" && need(1)) {
            o->prefix = argv[++a];
        } else if (w == "--size" && need(3)) {
            ok = parse_int(argv[a + 1], 1, 1024, &o->nx) &&
                 parse_int(argv[a + 2], 1, 1024, &o->ny) && parse_int(argv[a + 3], 1, 1024, &o->nz);
            a += 3;
        } else if (w == "--voxel" && need(1)) {
            ok = parse_float(argv[++a], 1e-3f, &o->voxel);
        } else if (w == "--groups" && need(1)) {
            ok = parse_int(argv[++a], 1, 26, &o->groups);
        } else if (w == "--subjects" && need(1)) {
            ok = parse_int(argv[++a], 1, kConvergedFiles, &o->subjects);
        } else if (w == "--converged") {
            o->converged = true;
        } else if (w == "--threads" && need(1)) {
            ok = parse_int(argv[++a], 1, 1024, &o->threads);
        } else if (w == "--seed" && need(1)) {
            char *end = nullptr;
            o->seed = std::strtoull(argv[++a], &end, 10);
            ok = end != argv[a] && *end == '\0';
        } else if (w == "--smoothing" && need(2)) {
            ok = parse_float(argv[a + 1], 0.0f, &o->prior_fwhm) &&
                 parse_float(argv[a + 2], 0.0f, &o->ratio_fwhm);
            a += 2;
        } else if (w == "--between" && need(1)) {
            ok = parse_float(argv[++a], 0.0f, &o->between);
        } else if (w == "--within" && need(1)) {
            ok = parse_float(argv[++a], 1e-6f, &o->within);
        } else if (w == "--effect" && need(1)) {
            ok = parse_float(argv[++a], -1e6f, &o->effect);
        } else if (w == "--dof" && need(1)) {
            ok = parse_int(argv[++a], 1, 1000000, &o->dof);
        } else if (w == "--between-fwhm" && need(1)) {
            ok = parse_float(argv[++a], 0.0f, &o->between_fwhm);
        } else if (w == "--error-spread" && need(1)) {
            ok = parse_float(argv[++a], 0.0f, &o->error_spread);
        } else if (w == "--null") {
            o->null_study = true;
        } else if (w == "--no-mask") {
            o->mask = false;
        } else if (w == "--uniform") {
            o->uniform = true;
        } else {
            std::fprintf(stderr, "Error: unknown or incomplete option %s\n", w.c_str());
            return 1;
        }
        if (!ok) {
            std::fprintf(stderr, "Error: bad value for option %s\n", w.c_str());
            return 1;
        }
    }
    if (static_cast<long>(o->groups) * o->subjects >
        (o->converged ? kConvergedFiles : kClassicFiles)) {
        if (o->converged)
            std::fprintf(stderr, "Error: at most %ld subjects in all\n", kConvergedFiles);
        else
            std::fprintf(stderr,
                         "Error: at most 200 subjects in all (fmri-rem reads up to 200 files; "
                         "--converged lifts this)\n");
        return 1;
    }
    return 0;
}

// Event character of group g: "p" and "c" for two groups (e.g. patients and
// controls), else "a", "b", ...
char group_char(const options &o, int g) {
    if (o.groups == 2) return g == 0 ? 'p' : 'c';
    return static_cast<char>('a' + g);
}

struct volume {
    int nx, ny, nz;
    size_t size() const { return static_cast<size_t>(nx) * ny * nz; }
    size_t at(int x, int y, int z) const { return (static_cast<size_t>(z) * ny + y) * nx + x; }
};

// Separable Gaussian smoothing with mirrored edges; the kernel is scaled to
// unit sum of squares so white noise of unit variance stays of unit variance.
void smooth_axis(std::vector<float> &f, const volume &v, int axis, float sigma_vox) {
    int n = axis == 0 ? v.nx : axis == 1 ? v.ny : v.nz;
    int radius = static_cast<int>(std::ceil(3.0f * sigma_vox));
    if (radius < 1 || n < 2) return;
    std::vector<double> k(2 * radius + 1);
    double sum2 = 0.0;
    for (int d = -radius; d <= radius; ++d) {
        double w = std::exp(-0.5 * d * d / (static_cast<double>(sigma_vox) * sigma_vox));
        k[d + radius] = w;
        sum2 += w * w;
    }
    for (double &w : k) w /= std::sqrt(sum2);
    std::vector<double> line(n);
    std::vector<float> out(n);
    int na = axis == 0 ? v.ny : v.nx;
    int nb = axis == 2 ? v.ny : v.nz;
    for (int b = 0; b < nb; ++b) {
        for (int a = 0; a < na; ++a) {
            auto idx = [&](int i) {
                if (axis == 0) return v.at(i, a, b);
                if (axis == 1) return v.at(a, i, b);
                return v.at(a, b, i);
            };
            for (int i = 0; i < n; ++i) line[i] = f[idx(i)];
            for (int i = 0; i < n; ++i) {
                double s = 0.0;
                for (int d = -radius; d <= radius; ++d) {
                    int j = i + d;
                    // Mirror at the edges (repeatedly for short lines).
                    while (j < 0 || j >= n) j = j < 0 ? -j - 1 : 2 * n - j - 1;
                    s += k[d + radius] * line[j];
                }
                out[i] = static_cast<float>(s);
            }
            for (int i = 0; i < n; ++i) f[idx(i)] = out[i];
        }
    }
}

std::vector<float> noise_field(generator &rng, const volume &v, float fwhm_mm, float voxel) {
    std::vector<float> f(v.size());
    for (float &x : f) x = static_cast<float>(rng.normal());
    float sigma = fwhm_mm / 2.3548f / voxel;
    if (sigma > 0.2f) {
        for (int axis = 0; axis < 3; ++axis) smooth_axis(f, v, axis, sigma);
    }
    return f;
}

bool write_volume(const std::string &dir, const std::string &stem, const volume &v, float voxel,
                  const std::vector<const std::vector<float> *> &frames, int dof) {
    uint16_t probe = 1;
    unsigned char first = 0;
    std::memcpy(&first, &probe, 1);
    std::string hdr = dir + "/" + stem + ".hdr";
    FILE *h = std::fopen(hdr.c_str(), "w");
    if (h == nullptr) {
        std::fprintf(stderr, "Error: cannot write %s\n", hdr.c_str());
        return false;
    }
    std::fprintf(h, "x %d\ny %d\nz %d\nt %d\nbyte-order %d\n", v.nx, v.ny, v.nz,
                 static_cast<int>(frames.size()), first == 1 ? 1 : 0);
    std::fprintf(h, "resolution %g %g %g\norigin 0 0 0\ndirection 1 1 1\n", voxel, voxel, voxel);
    std::fprintf(h, "degrees-of-freedom %d\n", dof);
    bool ok = std::fclose(h) == 0;
    std::string data = dir + "/" + stem + ".bfloat";
    FILE *d = std::fopen(data.c_str(), "wb");
    if (d == nullptr) {
        std::fprintf(stderr, "Error: cannot write %s\n", data.c_str());
        return false;
    }
    for (const auto *f : frames)
        ok = ok && std::fwrite(f->data(), sizeof(float), f->size(), d) == f->size();
    ok = (std::fclose(d) == 0) && ok;
    if (!ok) std::fprintf(stderr, "Error: writing %s failed\n", data.c_str());
    return ok;
}

// File stem of subject j (counted over the groups in order).
std::string subject_stem(const options &o, long j) {
    char stem[64];
    std::snprintf(stem, sizeof stem, "subject-%c%02ld",
                  group_char(o, static_cast<int>(j / o.subjects)), j % o.subjects + 1);
    return stem;
}

struct blob {
    float cx, cy, cz;  // centre as a fraction of the volume
};

}  // namespace

int main(int argc, char **argv) {
    options o;
    int parsed = parse_options(argc, argv, &o);
    if (parsed == 2) {
        std::printf("%s", kUsage);
        return 0;
    }
    if (parsed != 0) {
        std::fprintf(stderr, "%s", kUsage);
        return 1;
    }
    if (mkdir(o.out.c_str(), 0777) != 0 && errno != EEXIST) {
        std::fprintf(stderr, "Error: cannot create folder %s\n", o.out.c_str());
        return 1;
    }

    const volume v{o.nx, o.ny, o.nz};
    const size_t n = v.size();
    // Brain mask: an ellipsoid filling most of the volume.
    std::vector<char> inside(n, 1);
    if (o.mask) {
        for (int z = 0; z < v.nz; ++z)
            for (int y = 0; y < v.ny; ++y)
                for (int x = 0; x < v.nx; ++x) {
                    double ex = (x + 0.5 - v.nx / 2.0) / (0.46 * v.nx);
                    double ey = (y + 0.5 - v.ny / 2.0) / (0.46 * v.ny);
                    double ez = (z + 0.5 - v.nz / 2.0) / (0.48 * v.nz);
                    inside[v.at(x, y, z)] = ex * ex + ey * ey + ez * ez <= 1.0;
                }
    }

    // Group effects: blob A is shared by all groups, blob B belongs to the
    // even-numbered groups and blob C (negative) to the odd-numbered ones.
    const blob blobs[3] = {{0.30f, 0.40f, 0.50f}, {0.70f, 0.60f, 0.50f}, {0.50f, 0.25f, 0.40f}};
    const double blob_sigma = 2.5;  // voxels
    std::vector<std::vector<float>> mu(o.groups, std::vector<float>(n, 0.0f));
    for (int g = 0; g < o.groups; ++g) {
        double amp[3] = {o.effect, g % 2 == 0 ? o.effect : 0.0, g % 2 == 1 ? -0.8 * o.effect : 0.0};
        if (o.null_study) amp[0] = amp[1] = amp[2] = 0.0;
        for (int z = 0; z < v.nz; ++z)
            for (int y = 0; y < v.ny; ++y)
                for (int x = 0; x < v.nx; ++x) {
                    double s = 0.0;
                    for (int b = 0; b < 3; ++b) {
                        double dx = x - blobs[b].cx * (v.nx - 1);
                        double dy = y - blobs[b].cy * (v.ny - 1);
                        double dz = z - blobs[b].cz * (v.nz - 1);
                        s += amp[b] * std::exp(-(dx * dx + dy * dy + dz * dz) /
                                               (2 * blob_sigma * blob_sigma));
                    }
                    size_t i = v.at(x, y, z);
                    mu[g][i] = inside[i] ? static_cast<float>(s) : 0.0f;
                }
    }

    // Between-subject standard deviation: rises from 0.6 to 1.4 times the
    // given value along x.  The within-subject error varies along y.
    std::vector<float> sd_between(n), between_variance(n), within_shape(n);
    for (int z = 0; z < v.nz; ++z)
        for (int y = 0; y < v.ny; ++y)
            for (int x = 0; x < v.nx; ++x) {
                size_t i = v.at(x, y, z);
                double fx = v.nx > 1 ? static_cast<double>(x) / (v.nx - 1) : 0.5;
                double fy = v.ny > 1 ? static_cast<double>(y) / (v.ny - 1) : 0.5;
                double sd = o.between * (o.uniform ? 1.0 : 0.6 + 0.8 * fx);
                sd_between[i] = static_cast<float>(sd);
                between_variance[i] = inside[i] ? static_cast<float>(sd * sd) : 0.0f;
                within_shape[i] = static_cast<float>(o.uniform ? 1.0 : 0.8 + 0.4 * fy);
            }

    std::string analysis_path = o.out + "/analysis.rem";
    FILE *analysis = std::fopen(analysis_path.c_str(), "w");
    if (analysis == nullptr) {
        std::fprintf(stderr, "Error: cannot write %s\n", analysis_path.c_str());
        return 1;
    }
    std::fprintf(analysis, "# Synthetic study from fmri-rem-simulate, seed %llu\n",
                 static_cast<unsigned long long>(o.seed));
    std::fprintf(analysis,
                 "smoothing %g %g  # prior smoothing, smoothing of the variance ratio (mm)\n",
                 o.prior_fwhm, o.ratio_fwhm);
    std::string conditions;
    for (int g = 0; g < o.groups; ++g) conditions += std::string(1, group_char(o, g)) + " ";
    for (int g = 0; g + 1 < o.groups; ++g) {
        conditions +=
            std::string(1, group_char(o, g)) + "-" + std::string(1, group_char(o, g + 1)) + " ";
    }
    conditions.pop_back();
    std::fprintf(analysis, "conditions %s\n", conditions.c_str());

    if (o.converged) std::fprintf(analysis, "reml converged\n");

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
    auto write_subject = [&](long j) {
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
            if (!inside[i]) {
                effect[i] = 0.0f;
                stderr_frame[i] = 0.0f;
                continue;
            }
            double se = o.within * scale * within_shape[i];
            if (!spread.empty()) se *= std::exp(o.error_spread * spread[i]);
            double b = mu[g][i] + sd_between[i] * u[i];
            effect[i] = static_cast<float>(b + se * e[i]);
            stderr_frame[i] = static_cast<float>(se);
        }
        return write_volume(o.out, subject_stem(o, j), v, o.voxel, {&effect, &stderr_frame}, dof);
    };
    unsigned threads = o.threads > 0 ? static_cast<unsigned>(o.threads)
                                     : std::max(1u, std::thread::hardware_concurrency());
    if (static_cast<long>(threads) > total) threads = static_cast<unsigned>(total);
    std::atomic<long> next{0};
    std::atomic<bool> failed{false};
    auto work = [&] {
        for (long j; !failed && (j = next++) < total;)
            if (!write_subject(j)) failed = true;
    };
    std::vector<std::thread> pool;
    for (unsigned t = 1; t < threads; ++t) pool.emplace_back(work);
    work();
    for (std::thread &t : pool) t.join();
    if (failed) return 1;

    for (long j = 0; j < total; ++j) {
        const int g = static_cast<int>(j / o.subjects);
        if (j % o.subjects == 0)
            std::fprintf(analysis, "event %c  # group %d\n", group_char(o, g), g + 1);
        std::fprintf(analysis, "%s%s.bfloat\n", o.prefix.c_str(), subject_stem(o, j).c_str());
    }
    if (std::fclose(analysis) != 0) return 1;

    for (int g = 0; g < o.groups; ++g) {
        std::string stem = std::string("true-effect-") + group_char(o, g);
        if (!write_volume(o.out, stem, v, o.voxel, {&mu[g]}, 0)) return 1;
    }
    if (!write_volume(o.out, "true-between-variance", v, o.voxel, {&between_variance}, 0)) return 1;

    std::printf("Study of %d groups x %d subjects, %d x %d x %d voxels of %g mm, written to %s/\n",
                o.groups, o.subjects, v.nx, v.ny, v.nz, o.voxel, o.out.c_str());
    std::printf("Analysis file: %s (conditions %s)\n", analysis_path.c_str(), conditions.c_str());
    return 0;
}
