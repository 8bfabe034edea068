// Small studies written by the whole-run tests: signal files with native
// headers and an analysis file, plus readers for the result volumes.
#ifndef FMRI_REM_E2E_STUDY_H
#define FMRI_REM_E2E_STUDY_H

#include <cmath>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"

namespace e2e {

struct geometry {
    int nx = 10, ny = 5, nz = 4;
    float resolution[3] = {2, 2, 2};
    float origin[3] = {0, 0, 0};
    float direction[3] = {1, 1, 1};
    int voxels() const { return nx * ny * nz; }
};

inline std::string header_text(const geometry &g, int frames, int dof) {
    std::ostringstream h;
    h << "x " << g.nx << "\ny " << g.ny << "\nz " << g.nz << "\nt " << frames << "\nbyte-order 1\n"
      << "resolution " << g.resolution[0] << " " << g.resolution[1] << " " << g.resolution[2]
      << "\norigin " << g.origin[0] << " " << g.origin[1] << " " << g.origin[2] << "\ndirection "
      << g.direction[0] << " " << g.direction[1] << " " << g.direction[2]
      << "\ndegrees-of-freedom " << dof << "\n";
    return h.str();
}

// Deterministic pseudo-random numbers (splitmix64), uniform in [0, 1).
class numbers {
public:
    explicit numbers(uint64_t seed) : state_(seed) {}
    double uniform() {
        uint64_t z = (state_ += 0x9e3779b97f4a7c15ULL);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
        z ^= z >> 31;
        return static_cast<double>(z >> 11) / 9007199254740992.0;
    }

private:
    uint64_t state_;
};

struct signal_file {
    std::string name;   // data file name, e.g. "a1.bfloat"
    char event;
    int dof;
    std::vector<float> effect;
    std::vector<float> error;
};

// A study of two-frame signal files grouped into events.
struct study {
    geometry g;
    std::vector<signal_file> files;
    std::string smoothing = "smoothing 0 4";
    std::string conditions = "conditions a b a-b";
    std::string extra_header;  // e.g. "multiple-comparisons 100\n"

    // Files named <event><k>.bfloat with effects around `level` per event
    // and errors between 0.5 and 1.5.
    void add_group(char event, int count, float level, int dof, uint64_t seed) {
        numbers r(seed);
        for (int k = 1; k <= count; ++k) {
            signal_file f;
            f.name = std::string(1, event) + std::to_string(k) + ".bfloat";
            f.event = event;
            f.dof = dof;
            for (int i = 0; i < g.voxels(); ++i) {
                f.effect.push_back(static_cast<float>(level + 2.0 * (r.uniform() - 0.5)));
                f.error.push_back(static_cast<float>(0.5 + r.uniform()));
            }
            files.push_back(f);
        }
    }

    std::string analysis_text() const {
        std::string text = smoothing + "\n" + conditions + "\n" + extra_header;
        char current = 0;
        for (const signal_file &f : files) {
            if (f.event != current) {
                text += std::string("event ") + f.event + "\n";
                current = f.event;
            }
            text += f.name + "\n";
        }
        return text;
    }

    void write(const std::string &dir, const std::string &analysis = "study.rem") const {
        for (const signal_file &f : files) {
            std::string stem = f.name.substr(0, f.name.rfind('.'));
            test_support::write_file(dir + "/" + stem + ".hdr", header_text(g, 2, f.dof));
            std::vector<float> data = f.effect;
            data.insert(data.end(), f.error.begin(), f.error.end());
            test_support::write_floats(dir + "/" + f.name, data);
        }
        test_support::write_file(dir + "/" + analysis, analysis_text());
    }
};

// The two-event study most tests start from: a1..a3 around 1, b1..b3
// around -0.5, 20 degrees of freedom each, 10 x 5 x 4 voxels of 2 mm.
inline study small_study() {
    study s;
    s.add_group('a', 3, 1.0f, 20, 11);
    s.add_group('b', 3, -0.5f, 20, 12);
    return s;
}

}  // namespace e2e

#endif
