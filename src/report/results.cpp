// Reading a results folder: the result volumes and their headers, basis.dat,
// the analysis file (named in .vistra or given), the signal files' degrees
// of freedom, and the background image.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>

#include "io.h"
#include "report_internal.h"

namespace report {

namespace {

// The header readers of io print their own messages on standard output;
// the report says what went wrong in its one error line instead.
class quiet_stdout {
  public:
    quiet_stdout() {
        std::fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        FILE *null = std::fopen("/dev/null", "w");
        if (null != nullptr) {
            dup2(fileno(null), STDOUT_FILENO);
            std::fclose(null);
        }
    }
    ~quiet_stdout() {
        std::fflush(stdout);
        if (saved_ >= 0) {
            dup2(saved_, STDOUT_FILENO);
            close(saved_);
        }
    }

  private:
    int saved_ = -1;
};

bool is_file(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string join(const std::string &dir, const std::string &name) {
    if (!name.empty() && name[0] == '/') return name;
    return dir + "/" + name;
}

bool read_text(const std::string &path, std::string *text) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream s;
    s << in.rdbuf();
    *text = s.str();
    return true;
}

std::vector<std::string> words_of(const std::string &line) {
    std::vector<std::string> words;
    std::istringstream s(line.substr(0, line.find('#')));
    std::string w;
    while (s >> w) words.push_back(w);
    return words;
}

// The header of a native volume (data file name ending in .bfloat).
bool read_header(const std::string &data, volume_header *h, std::string *error) {
    std::string header = data.substr(0, data.rfind('.')) + ".hdr";
    if (!is_file(header)) {
        *error = "the header " + header + " is missing";
        return false;
    }
    char name[IO_NAME_LENGTH];
    if (data.size() >= sizeof name) {
        *error = "the file name " + data + " is too long";
        return false;
    }
    std::strcpy(name, data.c_str());
    int status;
    {
        quiet_stdout quiet;
        status = read_volume_header(name, h);
    }
    if (status != 0) {
        *error = "the header " + header + " cannot be read";
        return false;
    }
    return true;
}

// frames_needed frames of a float volume of n voxels; the data file may hold
// more frames than needed (up to frames_wanted are read).
bool read_frames(const std::string &data, const volume_header &h, size_t n, int frames_needed,
                 int frames_wanted, std::vector<std::vector<float>> *frames, std::string *error) {
    FILE *f = std::fopen(data.c_str(), "rb");
    if (f == nullptr) {
        *error = "the volume " + data + " is missing";
        return false;
    }
    frames->clear();
    for (int k = 0; k < frames_wanted; ++k) {
        std::vector<float> v(n);
        size_t got = std::fread(v.data(), sizeof(float), n, f);
        if (got != n) {
            if (k < frames_needed) {
                std::fclose(f);
                *error = "the volume " + data + " is truncated (frame " + std::to_string(k + 1) +
                         " holds " + std::to_string(got) + " of " + std::to_string(n) + " values)";
                return false;
            }
            break;
        }
        if (h.byte_order != machine_byte_order())
            for (float &x : v) swap_32(&x);
        frames->push_back(std::move(v));
    }
    std::fclose(f);
    return true;
}

// A result volume of the folder: stem.hdr and stem.bfloat on the grid dims.
bool read_result(const std::string &dir, const std::string &stem, const int dims[3],
                 int frames_needed, int frames_wanted, std::vector<std::vector<float>> *frames,
                 volume_header *h, std::string *error) {
    std::string data = join(dir, stem + ".bfloat");
    if (!read_header(data, h, error)) return false;
    if (dims != nullptr && (h->nx != dims[0] || h->ny != dims[1] || h->nz != dims[2])) {
        *error = "the volume " + data + " is not on the grid of sigma2";
        return false;
    }
    size_t n = static_cast<size_t>(h->nx) * h->ny * h->nz;
    return read_frames(data, *h, n, frames_needed, frames_wanted, frames, error);
}

// The first frame of a NIfTI image as floats, scaling applied.
bool read_nifti(const std::string &path, int dims[3], double affine[4][4], std::vector<float> *v,
                std::string *error) {
    nifti_set_debug_level(0);
    nifti_image *im = nifti_image_read(path.c_str(), 1);
    if (im == nullptr || im->data == nullptr) {
        if (im != nullptr) nifti_image_free(im);
        *error = "the image " + path + " cannot be read";
        return false;
    }
    dims[0] = im->nx;
    dims[1] = im->ny;
    dims[2] = im->nz;
    mat44 m = im->sform_code > 0 ? im->sto_xyz : im->qto_xyz;
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) affine[r][c] = m.m[r][c];
    size_t n = static_cast<size_t>(im->nx) * im->ny * im->nz;
    v->resize(n);
    double slope = im->scl_slope != 0.0f ? im->scl_slope : 1.0, inter = im->scl_inter;
    bool ok = true;
    for (size_t i = 0; i < n && ok; ++i) {
        double x = 0.0;
        switch (im->datatype) {
            case DT_UINT8:
                x = static_cast<const uint8_t *>(im->data)[i];
                break;
            case DT_INT8:
                x = static_cast<const int8_t *>(im->data)[i];
                break;
            case DT_INT16:
                x = static_cast<const int16_t *>(im->data)[i];
                break;
            case DT_UINT16:
                x = static_cast<const uint16_t *>(im->data)[i];
                break;
            case DT_INT32:
                x = static_cast<const int32_t *>(im->data)[i];
                break;
            case DT_UINT32:
                x = static_cast<const uint32_t *>(im->data)[i];
                break;
            case DT_FLOAT32:
                x = static_cast<const float *>(im->data)[i];
                break;
            case DT_FLOAT64:
                x = static_cast<const double *>(im->data)[i];
                break;
            default:
                ok = false;
        }
        (*v)[i] = static_cast<float>(x * slope + inter);
    }
    nifti_image_free(im);
    if (!ok) *error = "the image " + path + " has a data type that the report does not read";
    return ok;
}

bool ends_with(const std::string &s, const std::string &end) {
    return s.size() >= end.size() && s.compare(s.size() - end.size(), end.size(), end) == 0;
}

bool load_background(const options &o, results *r, std::string *error) {
    if (o.background.empty()) {
        r->background = r->within;
        r->background_name = "the within-subject variance (first frame of sigma2)";
        return true;
    }
    const std::string &path = o.background;
    if (!is_file(path)) {
        *error = "the background image " + path + " does not exist";
        return false;
    }
    int dims[3] = {0, 0, 0};
    if (ends_with(path, ".nii") || ends_with(path, ".nii.gz") || ends_with(path, ".img")) {
        double affine[4][4];
        if (!read_nifti(path, dims, affine, &r->background, error)) return false;
        bool same = dims[0] == r->dims[0] && dims[1] == r->dims[1] && dims[2] == r->dims[2];
        if (same && !r->geometry.from_header)
            for (int i = 0; i < 3; ++i)
                for (int j = 0; j < 4; ++j)
                    if (std::fabs(affine[i][j] - r->geometry.affine[i][j]) > 1e-3) same = false;
        if (!same) {
            *error = "the background image " + path + " is not on the grid of the results";
            return false;
        }
    } else {
        volume_header h;
        std::vector<std::vector<float>> frames;
        if (!ends_with(path, ".bfloat")) {
            *error = "the background image " + path + " is neither NIfTI nor a .bfloat volume";
            return false;
        }
        if (!read_header(path, &h, error)) return false;
        if (h.nx != r->dims[0] || h.ny != r->dims[1] || h.nz != r->dims[2]) {
            *error = "the background image " + path + " is not on the grid of the results";
            return false;
        }
        if (!read_frames(path, h, r->size(), 1, 1, &frames, error)) return false;
        r->background = frames[0];
    }
    r->background_name = path;
    return true;
}

// basis.dat: "x eventp eventc " and rows "0 1.000000 0.000000 ".
bool read_basis(const std::string &dir, run_facts *f, std::string *error) {
    std::string path = join(dir, "basis.dat"), text;
    if (!read_text(path, &text)) {
        *error = "the design " + path + " is missing";
        return false;
    }
    std::istringstream lines(text);
    std::string line;
    if (!std::getline(lines, line)) {
        *error = "the design " + path + " is empty";
        return false;
    }
    std::vector<std::string> head = words_of(line);
    for (size_t k = 1; k < head.size(); ++k) {
        if (head[k].size() != 6 || head[k].compare(0, 5, "event") != 0) {
            *error = "the design " + path + " has a bad first line";
            return false;
        }
        f->events.push_back(head[k][5]);
    }
    while (std::getline(lines, line)) {
        std::vector<std::string> w = words_of(line);
        if (w.empty()) continue;
        if (w.size() != f->events.size() + 1) {
            *error = "the design " + path + " has a row of the wrong length";
            return false;
        }
        std::vector<double> row;
        for (size_t k = 1; k < w.size(); ++k) row.push_back(std::atof(w[k].c_str()));
        f->design.push_back(row);
    }
    if (f->events.empty() || f->design.empty()) {
        *error = "the design " + path + " holds no events or no files";
        return false;
    }
    f->files_per_event.assign(f->events.size(), 0);
    for (const auto &row : f->design)
        for (size_t e = 0; e < row.size(); ++e)
            if (row[e] != 0.0) ++f->files_per_event[e];
    f->random_dof = static_cast<int>(f->design.size()) - static_cast<int>(f->events.size());
    return true;
}

// The analysis file through the bridge's reader: its text, the smoothing,
// the correction, the conditions, the signal files and the names.
void parse_analysis(const std::string &text, run_facts *f, std::vector<std::string> *conditions) {
    f->header = bridge::read_analysis_header(text);
    const bridge::analysis_header &h = f->header;
    f->smoothing_known = h.smoothing_given;
    f->prior_smoothing = h.prior_smoothing;
    f->ratio_smoothing = h.ratio_smoothing;
    f->multiple_comparisons = h.multiple_comparisons;
    f->files = h.files;
    *conditions = h.conditions;
}

// The conditions of the folder when no analysis file says them: every
// T-<name>.hdr.
std::vector<std::string> conditions_in(const std::string &dir) {
    std::vector<std::string> names;
    if (DIR *d = opendir(dir.c_str())) {
        while (dirent *e = readdir(d)) {
            std::string name = e->d_name;
            if (name.size() > 6 && name.compare(0, 2, "T-") == 0 && ends_with(name, ".hdr"))
                names.push_back(name.substr(2, name.size() - 6));
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// A condition's rows of coefficients over the events: "," starts a row;
// "-" makes what follows negative and "+" positive, until the next sign;
// a number before "*" multiplies the one event character after it.
std::vector<std::vector<double>> contrast_of(const std::string &name,
                                             const std::vector<char> &events) {
    std::vector<std::vector<double>> rows(1, std::vector<double>(events.size(), 0.0));
    double sign = 1.0, factor = 1.0;
    for (size_t k = 0; k < name.size(); ++k) {
        const char c = name[k];
        if (c == ',') {
            rows.emplace_back(events.size(), 0.0);
            sign = 1.0;
            continue;
        }
        if (c == '-' || c == '+') {
            sign = c == '-' ? -1.0 : 1.0;
            continue;
        }
        if ((c >= '0' && c <= '9') || c == '.') {
            char *end = nullptr;
            const double v = std::strtod(name.c_str() + k, &end);
            const size_t next = static_cast<size_t>(end - name.c_str());
            if (next < name.size() && name[next] == '*') {
                factor = v;
                k = next;
                continue;
            }
        }
        // An event character (digits are event characters too).
        if (c != '.') {
            for (size_t e = 0; e < events.size(); ++e)
                if (events[e] == c) rows.back()[e] = sign * factor;
        }
        factor = 1.0;
    }
    return rows;
}

}  // namespace

bool load_results(const options &o, results *r, std::vector<std::string> *warnings,
                  std::string *error) {
    const std::string dir = o.results_dir.empty() ? "." : o.results_dir;
    struct stat st;
    if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        *error = "the results folder " + dir + " does not exist";
        return false;
    }
    if (!is_file(join(dir, "sigma2.hdr"))) {
        *error = "no results in " + dir + " (sigma2.hdr is missing; run fmri-rem there first)";
        return false;
    }
    volume_header h;
    std::vector<std::vector<float>> frames;
    if (!read_result(dir, "sigma2", nullptr, 2, 3, &frames, &h, error)) return false;
    r->dims[0] = h.nx;
    r->dims[1] = h.ny;
    r->dims[2] = h.nz;
    r->within = frames[0];
    r->between = frames[1];
    r->has_smoothed = frames.size() == 3;
    r->smoothed = r->has_smoothed ? frames[2] : frames[1];
    {
        quiet_stdout quiet;
        if (!bridge::find_geometry(dir, "", &r->geometry, error)) return false;
    }
    for (int a = 0; a < 3; ++a)
        if (r->geometry.dims[a] != r->dims[a]) {
            *error = "the geometry " + r->geometry.source + " is not that of the results";
            return false;
        }
    if (stat(join(dir, "sigma2.bfloat").c_str(), &st) == 0) {
        char when[64];
        std::strftime(when, sizeof when, "%Y-%m-%d %H:%M UTC", std::gmtime(&st.st_mtime));
        r->facts.results_time = when;
    }

    // Analysed voxels: those whose (smoothed) between variance is not 0.
    const size_t n = r->size();
    r->analysed.assign(n, 0);
    for (size_t i = 0; i < n; ++i) r->analysed[i] = r->smoothed[i] != 0.0f;
    r->facts.voxels = static_cast<long>(n);
    r->facts.analysed = static_cast<long>(std::count(r->analysed.begin(), r->analysed.end(), 1));

    run_facts &f = r->facts;
    if (!read_basis(dir, &f, error)) return false;

    std::vector<std::string> names;
    std::string analysis = o.analysis;
    if (analysis.empty()) {
        std::string vistra;
        if (read_text(join(dir, ".vistra"), &vistra)) {
            std::vector<std::string> w = words_of(vistra);
            if (w.size() >= 3 && w[0] == "vt" && w[1] == "-r") analysis = join(dir, w[2]);
        }
        if (analysis.empty())
            warnings->push_back("no analysis file named in " + join(dir, ".vistra") +
                                " (give it with --analysis)");
        else if (!read_text(analysis, &f.analysis_text)) {
            warnings->push_back("the analysis file " + analysis + " named in .vistra is missing");
            analysis.clear();
        }
    } else if (!read_text(analysis, &f.analysis_text)) {
        *error = "the analysis file " + analysis + " cannot be read";
        return false;
    }
    if (!analysis.empty()) {
        f.analysis_path = analysis;
        parse_analysis(f.analysis_text, &f, &names);
        // With the converged estimate an estimate of 0 is analysed too.
        if (f.header.converged) {
            for (size_t i = 0; i < r->size(); ++i)
                r->analysed[i] = bridge::voxel_analysed(r->within[i], r->smoothed[i], true);
            f.analysed = static_cast<long>(std::count(r->analysed.begin(), r->analysed.end(), 1));
        }
        if (f.smoothing_known && f.ratio_smoothing != 0.0 && !r->has_smoothed) {
            *error = "the volume " + join(dir, "sigma2.bfloat") +
                     " is truncated (the smoothed variance, its third frame, is missing)";
            return false;
        }
        if (f.files.size() != f.design.size())
            warnings->push_back("the analysis file " + analysis + " lists " +
                                std::to_string(f.files.size()) + " files but basis.dat has " +
                                std::to_string(f.design.size()) +
                                " rows: it may belong to another run");
    }
    if (names.empty()) names = conditions_in(dir);
    if (names.empty()) {
        *error = "no conditions in " + dir + " (no T- volumes)";
        return false;
    }

    // The files' own degrees of freedom (their paths are relative to the
    // folder where fmri-rem ran).
    if (!f.files.empty()) {
        f.fixed_dof = 0;
        for (const std::string &file : f.files) {
            volume_header s;
            char name[IO_NAME_LENGTH];
            std::string path = join(dir, file);
            int status = 1;
            if (path.size() < sizeof name && is_file(path)) {
                std::strcpy(name, path.c_str());
                quiet_stdout quiet;
                status = read_volume_header(name, &s);
            }
            if (status != 0) {
                warnings->push_back("the header of the signal file " + path +
                                    " cannot be read: the fixed degrees of freedom are unknown");
                f.fixed_dof = -1;
                break;
            }
            f.fixed_dof += s.degrees_of_freedom;
        }
    }

    for (const std::string &name : names) {
        condition_maps c;
        c.name = name;
        c.title = f.header.name_of(name);
        c.label = bridge::condition_label(c.title);
        c.contrast = contrast_of(name, f.events);
        c.rows = bridge::condition_rows(name);
        volume_header th;
        if (!read_result(dir, "T-" + name, r->dims, 1, 1, &frames, &th, error)) return false;
        c.t = frames[0];
        c.dof = th.degrees_of_freedom;
        f.smoothed_dof = c.dof;
        const bridge::p_values pv(c.rows, c.dof, f.multiple_comparisons);
        c.corrected = pv.corrected();
        c.corrected_from = pv.corrected_from();
        c.logp.resize(c.t.size());
        c.raw_log10p.resize(c.t.size());
        for (size_t i = 0; i < c.t.size(); ++i) {
            const bridge::p_values::at_t p = pv.at(r->analysed[i] ? c.t[i] : 0.0f);
            c.raw_log10p[i] = static_cast<float>(p.log10_raw);
            const double v = p.signed_logp;
            c.logp[i] = std::isfinite(v) ? static_cast<float>(v) : 0.0f;
        }
        r->conditions.push_back(std::move(c));
    }
    return load_background(o, r, error);
}

}  // namespace report
