// Small studies written by the whole-run tests: two-frame signal files
// (effect, error) with native headers, grouped into events by an analysis file.
#ifndef FMRI_REM_E2E_STUDY_H
#define FMRI_REM_E2E_STUDY_H

#include <algorithm>
#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include "../unit/rem/rem_test_model.h"
#include "holds.h"
#include "test_support.h"

namespace e2e {

// The last n characters of text (all of it when shorter).
inline std::string tail(const std::string &text, size_t n) {
    return text.substr(text.size() - std::min(text.size(), n));
}

struct geometry {
    int nx = 10, ny = 5, nz = 4;
    float resolution[3] = {2, 2, 2};
    float origin[3] = {0, 0, 0};
    float direction[3] = {1, 1, 1};
    int voxels() const { return nx * ny * nz; }
};

inline std::string header_text(const geometry &g, int frames, int dof) {
    std::ostringstream h;
    h << "x " << g.nx << "\ny " << g.ny << "\nz " << g.nz << "\nt " << frames << "\nbyte-order 1\n";
    const char *keys[] = {"resolution", "origin", "direction"};
    const float *values[] = {g.resolution, g.origin, g.direction};
    for (int k = 0; k < 3; ++k)
        h << keys[k] << " " << values[k][0] << " " << values[k][1] << " " << values[k][2] << "\n";
    h << "degrees-of-freedom " << dof << "\n";
    return h.str();
}

struct signal_file {
    std::string name;  // data file name, e.g. "a1.bfloat"
    char event;
    int dof;
    std::vector<float> effect, error;
};

struct study {
    geometry g;
    std::vector<signal_file> files;
    std::string smoothing = "smoothing 0 4";
    std::string conditions = "conditions a b a-b";
    std::string extra_header;  // e.g. "multiple-comparisons 100\n"

    // Files <event>1, <event>2, ... with effects in level +- 1 and errors in (0.5, 1.5).
    void add_group(char event, int count, float level, int dof, uint64_t seed) {
        rem_test::Random r(seed);
        for (int k = 1; k <= count; ++k) {
            signal_file f{
                std::string(1, event) + std::to_string(k) + ".bfloat", event, dof, {}, {}};
            for (int i = 0; i < g.voxels(); ++i) {
                f.effect.push_back(static_cast<float>(r.uniform(level - 1.0, level + 1.0)));
                f.error.push_back(static_cast<float>(r.uniform(0.5, 1.5)));
            }
            files.push_back(f);
        }
    }

    void write(const std::string &dir, const std::string &analysis = "study.rem") const {
        std::string text = smoothing + "\n" + conditions + "\n" + extra_header;
        for (size_t k = 0; k < files.size(); ++k) {
            const signal_file &f = files[k];
            if (k == 0 || f.event != files[k - 1].event)
                text += std::string("event ") + f.event + "\n";
            text += f.name + "\n";
            test_support::write_file(dir + "/" + f.name.substr(0, f.name.rfind('.')) + ".hdr",
                                     header_text(g, 2, f.dof));
            std::vector<float> data = f.effect;
            data.insert(data.end(), f.error.begin(), f.error.end());
            test_support::write_floats(dir + "/" + f.name, data);
        }
        test_support::write_file(dir + "/" + analysis, text);
    }
};

// The effects and errors of every file at voxel v.
inline void samples(const study &s, int v, rem_test::Vec *y, rem_test::Vec *se) {
    y->clear(), se->clear();
    for (const signal_file &f : s.files) y->push_back(f.effect[v]), se->push_back(f.error[v]);
}

// a1..a3 around 1, b1..b3 around -0.5, 20 degrees of freedom each, 10 x 5 x 4 voxels of 2 mm.
inline study small_study() {
    study s;
    s.add_group('a', 3, 1.0f, 20, 11);
    s.add_group('b', 3, -0.5f, 20, 12);
    return s;
}

}  // namespace e2e

#endif
