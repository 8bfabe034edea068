// The simulator's files: volumes with native text headers, the analysis
// file, and the temporary folder that they are written into.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "simulate_internal.h"
#include "util.h"

namespace simulate {

namespace {

// The names in folder dir, but "." and "..".
std::vector<std::string> names_in(const std::string &dir) {
    std::vector<std::string> names;
    if (DIR *d = opendir(dir.c_str())) {
        while (dirent *e = readdir(d)) {
            std::string name = e->d_name;
            if (name != "." && name != "..") names.push_back(name);
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace

char group_char(const options &o, int g) {
    if (o.groups == 2) return g == 0 ? 'p' : 'c';
    return static_cast<char>('a' + g);
}

std::string subject_stem(const options &o, long j) {
    char stem[64];
    std::snprintf(stem, sizeof stem, "subject-%c%02ld",
                  group_char(o, static_cast<int>(j / o.subjects)), j % o.subjects + 1);
    return stem;
}

bool write_volume(const std::string &dir, const std::string &stem, const volume &v, float voxel,
                  const std::vector<const std::vector<float> *> &frames, int dof,
                  std::string *error) {
    uint16_t probe = 1;
    unsigned char first = 0;
    std::memcpy(&first, &probe, 1);
    std::string hdr = dir + "/" + stem + ".hdr";
    FILE *h = std::fopen(hdr.c_str(), "w");
    if (h == nullptr) {
        *error = "cannot write " + hdr;
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
        *error = "cannot write " + data;
        return false;
    }
    for (const auto *f : frames)
        ok = ok && std::fwrite(f->data(), sizeof(float), f->size(), d) == f->size();
    ok = (std::fclose(d) == 0) && ok;
    if (!ok) *error = "writing " + data + " failed";
    return ok;
}

std::string analysis_text(const options &o, std::string *conditions) {
    std::string text = format_text("# Synthetic study from fmri-rem-simulate, seed %llu\n",
                                   static_cast<unsigned long long>(o.seed));
    text +=
        format_text("smoothing %g %g  # prior smoothing, smoothing of the variance ratio (mm)\n",
                    o.prior_fwhm, o.ratio_fwhm);
    conditions->clear();
    for (int g = 0; g < o.groups; ++g) *conditions += std::string(1, group_char(o, g)) + " ";
    for (int g = 0; g + 1 < o.groups; ++g) {
        *conditions +=
            std::string(1, group_char(o, g)) + "-" + std::string(1, group_char(o, g + 1)) + " ";
    }
    conditions->pop_back();
    text += "conditions " + *conditions + "\n";
    if (o.converged) text += "reml converged\n";
    const long total = static_cast<long>(o.groups) * o.subjects;
    for (long j = 0; j < total; ++j) {
        const int g = static_cast<int>(j / o.subjects);
        if (j % o.subjects == 0)
            text += format_text("event %c  # group %d\n", group_char(o, g), g + 1);
        text += o.prefix + subject_stem(o, j) + ".bfloat\n";
    }
    return text;
}

bool write_text(const std::string &path, const std::string &text, std::string *error) {
    FILE *f = std::fopen(path.c_str(), "w");
    if (f == nullptr) {
        *error = "cannot write " + path;
        return false;
    }
    bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
    ok = std::fclose(f) == 0 && ok;
    if (!ok) *error = "writing " + path + " failed";
    return ok;
}

bool staging_folder::create(const std::string &final, std::string *error) {
    final_ = final;
    while (final_.size() > 1 && final_.back() == '/') final_.pop_back();
    struct stat s;
    if (stat(final_.c_str(), &s) == 0 && !S_ISDIR(s.st_mode)) {
        *error = final + " exists and is not a folder";
        return false;
    }
    path_ = final_ + ".tmp-" + std::to_string(getpid());
    if (mkdir(path_.c_str(), 0777) != 0) {
        *error = "cannot create folder " + path_ + ": " + std::strerror(errno);
        return false;
    }
    committed_ = false;
    return true;
}

bool staging_folder::commit(std::string *error) {
    struct stat s;
    if (stat(final_.c_str(), &s) != 0) {
        if (std::rename(path_.c_str(), final_.c_str()) != 0) {
            *error = "cannot rename " + path_ + " to " + final_ + ": " + std::strerror(errno);
            return false;
        }
        committed_ = true;
        return true;
    }
    // Into an existing folder file by file, the analysis file last.
    std::vector<std::string> names = names_in(path_);
    std::stable_partition(names.begin(), names.end(),
                          [](const std::string &n) { return n != "analysis.rem"; });
    for (const std::string &name : names) {
        const std::string from = path_ + "/" + name, to = final_ + "/" + name;
        if (std::rename(from.c_str(), to.c_str()) != 0) {
            *error = "cannot move " + from + " to " + to + ": " + std::strerror(errno);
            return false;
        }
    }
    rmdir(path_.c_str());
    committed_ = true;
    return true;
}

staging_folder::~staging_folder() {
    if (committed_) return;
    for (const std::string &name : names_in(path_)) unlink((path_ + "/" + name).c_str());
    rmdir(path_.c_str());
}

}  // namespace simulate
