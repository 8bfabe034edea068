// The geometry of a results folder.
#include <fstream>
#include <sstream>
#include <nlohmann/json.hpp>

#include "bridge_internal.h"

namespace bridge {

const char *version() {
    return FMRI_REM_VERSION;
}

namespace {

bool read_json_geometry(const std::string &path, geometry *out, std::string *error) {
    try {
        std::ifstream in(path);
        nlohmann::json j = nlohmann::json::parse(in);
        for (int a = 0; a < 3; ++a) out->dims[a] = j.at("dimensions").at(a).get<int>();
        for (int r = 0; r < 4; ++r)
            for (int c = 0; c < 4; ++c)
                out->affine[r][c] = j.at("affine").at(r).at(c).get<double>();
        out->qform_code = j.value("qform_code", 2);
        out->sform_code = j.value("sform_code", 2);
        out->analysis = j.value("analysis", std::string());
        if (out->dims[0] <= 0 || out->dims[1] <= 0 || out->dims[2] <= 0)
            throw std::runtime_error("the dimensions are not positive");
    } catch (const std::exception &e) {
        *error = "the geometry file " + path + " cannot be read: " + e.what();
        return false;
    }
    out->from_header = false;
    out->source = path;
    return true;
}

}  // namespace

bool find_geometry(const std::string &results_dir, const std::string &given, geometry *out,
                   std::string *error) {
    if (!given.empty()) {
        if (!is_file(given)) {
            *error = "the geometry file " + given + " does not exist";
            return false;
        }
        return read_json_geometry(given, out, error);
    }
    const std::string dir = results_dir.empty() ? "." : results_dir;
    for (const std::string &candidate : {dir + "/geometry.json", dir + "/../geometry.json"}) {
        if (is_file(candidate)) return read_json_geometry(candidate, out, error);
    }
    const std::string header = dir + "/sigma2.hdr";
    if (!is_file(header)) {
        *error = "no results in " + dir + " (sigma2.hdr is missing) and no geometry.json";
        return false;
    }
    native_header h;
    try {
        h = read_native_header(header);
    } catch (const failure &e) {
        *error = e.what();
        return false;
    }
    out->dims[0] = h.nx;
    out->dims[1] = h.ny;
    out->dims[2] = h.nz;
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) out->affine[r][c] = r == c ? 1.0 : 0.0;
    for (int a = 0; a < 3; ++a) {
        out->affine[a][a] = static_cast<double>(h.resolution[a]) * h.direction[a];
        out->affine[a][3] = h.origin[a];
    }
    out->qform_code = 2;
    out->sform_code = 2;
    out->from_header = true;
    out->analysis.clear();
    out->source = header;
    return true;
}

void voxel_to_mm(const geometry &g, double i, double j, double k, double mm[3]) {
    for (int r = 0; r < 3; ++r)
        mm[r] = g.affine[r][0] * i + g.affine[r][1] * j + g.affine[r][2] * k + g.affine[r][3];
}

}  // namespace bridge
