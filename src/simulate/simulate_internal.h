// Pieces of the simulator that its own files share: the random numbers, the
// grid, the smooth noise fields and the files.
#ifndef FMRI_REM_SIMULATE_INTERNAL_H
#define FMRI_REM_SIMULATE_INTERNAL_H

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "simulate.h"

namespace simulate {

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

struct volume {
    int nx, ny, nz;
    size_t size() const { return static_cast<size_t>(nx) * ny * nz; }
    size_t at(int x, int y, int z) const { return (static_cast<size_t>(z) * ny + y) * nx + x; }
};

// fields.cpp: the maps that all subjects share, and each subject's noise.
struct shared_maps {
    std::vector<char> inside;             // 1 inside the brain mask
    std::vector<std::vector<float>> mu;   // per group: the true group effect
    std::vector<float> sd_between;        // between-subject standard deviation
    std::vector<float> between_variance;  // its square inside the mask, else 0
    std::vector<float> within_shape;      // factor of the standard error per voxel
};
shared_maps make_shared_maps(const options &o, const volume &v);

// A field of unit-variance Gaussian noise smoothed to fwhm_mm (unsmoothed
// when that is below a fifth of a voxel's standard deviation).
std::vector<float> noise_field(generator &rng, const volume &v, float fwhm_mm, float voxel);

// files.cpp
// Event character of group g: "p" and "c" for two groups (e.g. patients and
// controls), else "a", "b", ...
char group_char(const options &o, int g);
// File stem of subject j (counted over the groups in order).
std::string subject_stem(const options &o, long j);
// stem.hdr (native text header) and stem.bfloat with the given frames in dir;
// false with *error set.
bool write_volume(const std::string &dir, const std::string &stem, const volume &v, float voxel,
                  const std::vector<const std::vector<float> *> &frames, int dof,
                  std::string *error);
// The analysis file's text and its conditions.
std::string analysis_text(const options &o, std::string *conditions);
bool write_text(const std::string &path, const std::string &text, std::string *error);

// The folder that the files are written into, moved into place at the end.
class staging_folder {
  public:
    // Creates final + ".tmp-<pid>"; false with *error set.
    bool create(const std::string &final, std::string *error);
    const std::string &path() const { return path_; }
    // Moves the files into the final folder; false with *error set.
    bool commit(std::string *error);
    // Removes the temporary folder with whatever is in it (unless committed).
    ~staging_folder();

  private:
    std::string final_, path_;
    bool committed_ = true;
};

}  // namespace simulate

#endif
