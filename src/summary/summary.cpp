// The summary table: the T and P volumes of each condition, read with the
// grid of the T volume's native header.
#include "summary.h"
#include "util.h"

#include <dirent.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#ifndef FMRI_REM_VERSION
#define FMRI_REM_VERSION "unknown"
#endif

namespace summary {

namespace {

bool read_dimensions(const std::string &header, int *nx, int *ny, int *nz) {
    FILE *f = std::fopen(header.c_str(), "r");
    if (f == nullptr) return false;
    char line[1024];
    *nx = *ny = *nz = 0;
    while (std::fgets(line, sizeof line, f) != nullptr) {
        char key[64];
        int value = 0;
        if (std::sscanf(line, "%63s %d", key, &value) != 2) continue;
        if (std::strcmp(key, "x") == 0) *nx = value;
        if (std::strcmp(key, "y") == 0) *ny = value;
        if (std::strcmp(key, "z") == 0) *nz = value;
    }
    std::fclose(f);
    return *nx > 0 && *ny > 0 && *nz > 0;
}

bool read_frame(const std::string &path, size_t n, std::vector<float> *values) {
    FILE *f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) return false;
    values->resize(n);
    bool ok = std::fread(values->data(), sizeof(float), n, f) == n;
    std::fclose(f);
    return ok;
}

}  // namespace

const char *version() {
    return FMRI_REM_VERSION;
}

bool summarise(const std::string &dir, std::string *text, std::string *error) {
    DIR *d = opendir(dir.c_str());
    if (d == nullptr) {
        *error = "cannot read folder " + dir;
        return false;
    }
    std::vector<std::string> conditions;
    while (dirent *e = readdir(d)) {
        std::string name = e->d_name;
        if (name.size() > 6 && name.compare(0, 2, "T-") == 0 &&
            name.compare(name.size() - 4, 4, ".hdr") == 0) {
            conditions.push_back(name.substr(2, name.size() - 6));
        }
    }
    closedir(d);
    std::sort(conditions.begin(), conditions.end());
    if (conditions.empty()) {
        *error = "no T- volumes in " + dir;
        return false;
    }

    // -log10(0.001) = 3.
    const float threshold = 3.0f;
    *text = format_text("%-12s %10s  %-16s %s\n", "condition", "max |T|", "at voxel (x,y,z)",
                        "voxels with p < 0.001 (positive / negative T)");
    for (const std::string &c : conditions) {
        int nx, ny, nz;
        if (!read_dimensions(dir + "/T-" + c + ".hdr", &nx, &ny, &nz)) {
            *error = "cannot read " + dir + "/T-" + c + ".hdr";
            return false;
        }
        size_t n = static_cast<size_t>(nx) * ny * nz;
        std::vector<float> t, p;
        if (!read_frame(dir + "/T-" + c + ".bfloat", n, &t) ||
            !read_frame(dir + "/P-" + c + ".bfloat", n, &p)) {
            *error = "cannot read the volumes of condition " + c;
            return false;
        }
        size_t best = 0;
        long positive = 0, negative = 0;
        for (size_t i = 0; i < n; ++i) {
            if (std::fabs(t[i]) > std::fabs(t[best])) best = i;
            if (p[i] > threshold) ++positive;
            if (p[i] < -threshold) ++negative;
        }
        char where[64];
        std::snprintf(where, sizeof where, "(%zu,%zu,%zu)", best % nx, (best / nx) % ny,
                      best / (static_cast<size_t>(nx) * ny));
        // The condition's name may be long: it goes in whole, beside the formatted numbers.
        std::string name = c;
        if (name.size() < 12) name.resize(12, ' ');
        *text +=
            name + format_text(" %10.2f  %-16s %ld / %ld\n", t[best], where, positive, negative);
    }
    return true;
}

}  // namespace summary
