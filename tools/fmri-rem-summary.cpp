// fmri-rem-summary: a short readable summary of the result volumes that
// fmri-rem wrote into a folder.  For each condition (each "T-<name>.hdr"
// beside a "P-<name>.bfloat") it prints the largest |T| with its voxel and
// the number of voxels whose p value is below 0.001.
#include <dirent.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

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

int main(int argc, char **argv) {
    if (argc > 2 ||
        (argc == 2 && (std::strcmp(argv[1], "-h") == 0 || std::strcmp(argv[1], "--help") == 0))) {
        std::printf("Usage: fmri-rem-summary [results folder]\n");
        return argc > 2 ? 1 : 0;
    }
    std::string dir = argc == 2 ? argv[1] : ".";
    DIR *d = opendir(dir.c_str());
    if (d == nullptr) {
        std::fprintf(stderr, "Error: cannot read folder %s\n", dir.c_str());
        return 1;
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
        std::fprintf(stderr, "Error: no T- volumes in %s\n", dir.c_str());
        return 1;
    }

    // -log10(0.001) = 3.
    const float threshold = 3.0f;
    std::printf("%-12s %10s  %-16s %s\n", "condition", "max |T|", "at voxel (x,y,z)",
                "voxels with p < 0.001 (positive / negative T)");
    for (const std::string &c : conditions) {
        int nx, ny, nz;
        if (!read_dimensions(dir + "/T-" + c + ".hdr", &nx, &ny, &nz)) {
            std::fprintf(stderr, "Error: cannot read %s/T-%s.hdr\n", dir.c_str(), c.c_str());
            return 1;
        }
        size_t n = static_cast<size_t>(nx) * ny * nz;
        std::vector<float> t, p;
        if (!read_frame(dir + "/T-" + c + ".bfloat", n, &t) ||
            !read_frame(dir + "/P-" + c + ".bfloat", n, &p)) {
            std::fprintf(stderr, "Error: cannot read the volumes of condition %s\n", c.c_str());
            return 1;
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
        std::printf("%-12s %10.2f  %-16s %ld / %ld\n", c.c_str(), t[best], where, positive,
                    negative);
    }
    return 0;
}
