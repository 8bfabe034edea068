// The cells of the import's table that name first-level inputs: a map with
// the volume chosen for it, and the degrees of freedom.
#include <nifti1_io.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>

#include "first_level.h"

namespace bridge {

namespace {

std::string where(const table &t, size_t r, int c) {
    return t.path + " line " + std::to_string(t.lines[r]) + ", column " + std::to_string(c + 1) +
           " (" + t.columns[c] + ")";
}

// A volume number: digits only, 0 to a million.
bool parse_volume(const std::string &s, int *v) {
    if (s.empty() || s.size() > 7 || s.find_first_not_of("0123456789") != std::string::npos)
        return false;
    *v = std::atoi(s.c_str());
    return *v <= 1000000;
}

bool parse_number(const std::string &s, double *v) {
    char *end = nullptr;
    errno = 0;
    *v = std::strtod(s.c_str(), &end);
    return !s.empty() && *end == '\0' && errno == 0 && std::isfinite(*v);
}

bool ends_with(const std::string &s, const char *end) {
    const size_t n = std::strlen(end);
    return s.size() >= n && s.compare(s.size() - n, n, end) == 0;
}

using header_ptr = std::unique_ptr<nifti_image, void (*)(nifti_image *)>;

header_ptr read_header(const std::string &path, const std::string &at) {
    if (!is_file(path)) throw failure("cannot read " + path + ": no such file");
    nifti_set_debug_level(0);
    header_ptr h(nifti_image_read(path.c_str(), 0), nifti_image_free);
    if (!h) throw failure(at + ": cannot read " + path + " as a NIfTI-1 or Analyze image");
    return h;
}

// The text of an attribute that AFNI writes into its NIfTI extension
// (<AFNI_atr ... atr_name="NAME" > text </AFNI_atr>); false when absent.
bool afni_attribute(const nifti_image &h, const char *name, std::string *text) {
    const std::string key = std::string("atr_name=\"") + name + "\"";
    for (int k = 0; k < h.num_ext; ++k) {
        const nifti1_extension &e = h.ext_list[k];
        if (e.ecode != NIFTI_ECODE_AFNI || e.edata == nullptr || e.esize <= 8) continue;
        const std::string xml(e.edata, strnlen(e.edata, static_cast<size_t>(e.esize - 8)));
        size_t b = xml.find(key);
        if (b == std::string::npos || (b = xml.find('>', b)) == std::string::npos) continue;
        const size_t end = xml.find("</AFNI_atr>", b);
        if (end == std::string::npos) continue;
        *text = xml.substr(b + 1, end - b - 1);
        return true;
    }
    return false;
}

// The sub-brick labels of AFNI's attribute BRICK_LABS: one quoted string,
// the labels separated by "~".
std::vector<std::string> afni_labels(const std::string &path, const std::string &at) {
    header_ptr h = read_header(path, at);
    std::string text;
    std::vector<std::string> labels;
    const size_t first = afni_attribute(*h, "BRICK_LABS", &text) ? text.find('"') : 0;
    const size_t last = text.rfind('"');
    if (text.empty() || first == std::string::npos || last <= first)
        throw failure(at + ": " + path + " has no AFNI sub-brick labels; give the volume number");
    text = text.substr(first + 1, last - first - 1);
    for (size_t s = 0;;) {
        const size_t tilde = text.find('~', s);
        labels.push_back(text.substr(s, tilde == std::string::npos ? tilde : tilde - s));
        if (tilde == std::string::npos) break;
        s = tilde + 1;
    }
    return labels;
}

// The degrees of freedom of a t map: its NIfTI intent (t test, p1 the
// degrees of freedom, as AFNI and fmri-rem-export write it), else the
// parameter of volume `volume` in AFNI's attribute BRICK_STATAUX (index,
// statistic code, number of parameters, the parameters; 3 is a t statistic),
// else SPM's description "SPM{T_[187.0]} ...".
double image_t_dof(const std::string &path, int volume, const std::string &at) {
    header_ptr h = read_header(path, at);
    if (h->intent_code == NIFTI_INTENT_TTEST && h->intent_p1 > 0 && std::isfinite(h->intent_p1))
        return h->intent_p1;
    std::string text;
    if (afni_attribute(*h, "BRICK_STATAUX", &text)) {
        std::vector<double> a;
        std::istringstream in(text);
        for (double v; in >> v;) a.push_back(v);
        for (size_t k = 0; k + 2 < a.size();) {
            double count = a[k + 2];  // of parameters, kept in range
            if (!(count >= 0)) count = 0;
            if (count > static_cast<double>(a.size())) count = static_cast<double>(a.size());
            if (a[k] == std::max(volume, 0) && a[k + 1] == 3 && count >= 1 && k + 3 < a.size())
                return a[k + 3];
            k += 3 + static_cast<size_t>(count);
        }
    }
    const std::string descrip(h->descrip, strnlen(h->descrip, sizeof h->descrip));
    const size_t t = descrip.find("SPM{T_[");
    if (t == std::string::npos) {
        const bool f_map = descrip.find("SPM{F_[") != std::string::npos;
        throw failure(at + ": " + path +
                      (f_map ? " is an SPM F map; name the contrast's spmT file"
                             : " gives no degrees of freedom (no t-test intent, no AFNI t "
                               "statistic, no SPM{T_[df]} in its description)") +
                      " (its description reads \"" + descrip + "\")");
    }
    const char *start = descrip.c_str() + t + 7;
    char *end = nullptr;
    const double df = std::strtod(start, &end);
    if (end == start || *end != ']' || !std::isfinite(df))
        throw failure(at + ": the description of " + path + " (\"" + descrip +
                      "\") has no number in SPM{T_[df]}");
    return df;
}

}  // namespace

map_cell read_map_cell(const table &t, size_t r, int col) {
    const std::vector<std::string> &cells = t.rows[r];
    const std::string dir = parent_dir(t.path);
    std::string name = cells[col];
    map_cell m;
    // AFNI's sub-brick selector, unless the whole cell names a file.
    const size_t open = name.rfind('[');
    if (!name.empty() && name.back() == ']' && open != std::string::npos && open > 0 &&
        !is_file(join_path(dir, name))) {
        const std::string inner = name.substr(open + 1, name.size() - open - 2);
        name.erase(open);
        if (!parse_volume(inner, &m.volume)) {
            if (inner.empty() || inner.find_first_not_of("0123456789.,$()- ") == std::string::npos)
                throw failure(where(t, r, col) + ": the selector [" + inner +
                              "] is not one volume; give one 0-based volume number or one "
                              "sub-brick label");
            const std::vector<std::string> labels =
                afni_labels(join_path(dir, name), where(t, r, col));
            for (size_t k = 0; k < labels.size() && m.volume < 0; ++k)
                if (labels[k] == inner) m.volume = static_cast<int>(k);
            if (m.volume < 0) {
                std::string known;
                for (const std::string &l : labels) known += (known.empty() ? "" : ", ") + l;
                throw failure(where(t, r, col) + ": " + name + " has no sub-brick labelled " +
                              inner + " (its labels: " + known + ")");
            }
        }
    }
    m.path = join_path(dir, name);
    const int own = t.column(t.columns[col] + "_volume"), shared = t.column("volume");
    for (int c : {own, shared}) {
        if (c < 0 || !given(cells[c])) continue;
        int v = 0;
        if (!parse_volume(cells[c], &v))
            throw failure(where(t, r, c) + ": the volume must be an integer from 0");
        if (c == own && m.volume >= 0 && v != m.volume)
            throw failure(where(t, r, c) + ": volume " + cells[c] + " where the cell " +
                          cells[col] + " selects volume " + std::to_string(m.volume));
        if (m.volume < 0) m.volume = v;
    }
    return m;
}

void check_error_is_not_effect(const table &t, size_t r, const map_cell &effect,
                               const map_cell &error, const std::string &kind) {
    if (std::max(effect.volume, 0) != std::max(error.volume, 0)) return;
    if (effect.path != error.path && full_path(effect.path) != full_path(error.path)) return;
    throw failure(t.path + " line " + std::to_string(t.lines[r]) + ": the effect and the " + kind +
                  " are the same map (" + effect.path +
                  (effect.volume >= 0 ? " volume " + std::to_string(effect.volume) : "") +
                  "); give each its own volume, e.g. stats.nii.gz[1] and stats.nii.gz[2] for "
                  "an AFNI bucket's coefficient and t, or the columns effect_volume and " +
                  kind + "_volume");
}

dof_cell read_dof_cell(const table &t, size_t r, int col) {
    const std::string &d = t.rows[r][col];
    const std::string at = where(t, r, col);
    if (!given(d)) throw failure(at + ": no degrees of freedom given");
    dof_cell c;
    if (!parse_number(d, &c.value)) {
        const map_cell m = read_map_cell(t, r, col);  // an AFNI bucket's t: file[label]
        c.source = m.path;
        if (!is_file(c.source))
            throw failure(at + ": " + d + " is neither a number nor a file (" + c.source + ")");
        if (ends_with(c.source, ".nii") || ends_with(c.source, ".nii.gz") ||
            ends_with(c.source, ".hdr") || ends_with(c.source, ".img") ||
            ends_with(c.source, ".hdr.gz") || ends_with(c.source, ".img.gz")) {
            c.value = image_t_dof(c.source, m.volume, at);
        } else {
            std::string text = read_text(c.source);
            const size_t b = text.find_first_not_of(" \t\r\n");
            const size_t e = text.find_last_not_of(" \t\r\n");
            text = b == std::string::npos ? "" : text.substr(b, e - b + 1);
            if (!parse_number(text, &c.value))
                throw failure(at + ": the file " + c.source + " does not hold a number");
        }
    }
    if (!(c.value >= 1) || c.value > 1e9)
        throw failure(at + ": the degrees of freedom must be at least 1 (" +
                      (c.source.empty() ? d : c.source + " gives " + std::to_string(c.value)) +
                      ")");
    c.dof = static_cast<int>(std::floor(c.value));
    return c;
}

std::string rounded_dof_note(const std::vector<std::pair<int, double>> &rounded) {
    if (rounded.empty()) return "";
    char text[200];
    std::snprintf(text, sizeof text,
                  "Degrees of freedom that are not integers enter fmri-rem rounded down: %.9g "
                  "-> %.0f (line %d)",
                  rounded[0].second, std::floor(rounded[0].second), rounded[0].first);
    std::string s = text;
    if (rounded.size() > 1)
        s += " and " + std::to_string(rounded.size() - 1) + " more row" +
             (rounded.size() > 2 ? "s" : "");
    return s + ".\n";
}

std::string analyze_note(const std::vector<std::string> &files) {
    if (files.empty()) return "";
    return "Analyze 7.5 files (" + std::to_string(files.size()) + ", e.g. " + files[0] +
           ") placed as SPM2 and nibabel place them: x flipped (stored right to left), the "
           "origin from the originator field (the centre where it is 0).\n";
}

std::string unoriented_warning(const std::vector<std::string> &files) {
    if (files.empty()) return "";
    return "Warning: " + std::to_string(files.size()) + " NIfTI file" +
           (files.size() > 1 ? "s have" : " has") + " neither qform nor sform (e.g. " + files[0] +
           "): placed by voxel size alone, as the NIfTI standard says (no origin, x not "
           "flipped), where nibabel would flip x about the centre; check the results' position.\n";
}

std::string unit_error_warning(const std::vector<int> &lines, size_t rows) {
    if (lines.empty()) return "";
    std::string s = "Warning: ";
    if (lines.size() == rows) {
        s += "every standard error of the study is 1";
    } else {
        s += "the standard errors of table line";
        s += lines.size() > 1 ? "s " : " ";
        for (size_t k = 0; k < lines.size() && k < 10; ++k)
            s += (k ? ", " : "") + std::to_string(lines[k]);
        if (lines.size() > 10) s += " and " + std::to_string(lines.size() - 10) + " more";
        s += " are 1 at every voxel";
    }
    return s +
           " (|effect / t| = 1 where a t map is given): is the error map the effect itself, "
           "or a map of ones? Check the volume chosen for each file.\n";
}

}  // namespace bridge
