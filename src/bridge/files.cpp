// Files for the import and export: folders, whole-file reading, writing under a
// temporary name, raw float frames and the native text header of fmri-rem's
// volumes (read here rather than through io, whose reader prints on standard
// output and ends the process on a singular transform).
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "bridge_internal.h"

namespace bridge {

bool is_file(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool is_dir(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int64_t file_size(const std::string &path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return -1;
    return static_cast<int64_t>(st.st_size);
}

void make_dirs(const std::string &path) {
    if (path.empty() || is_dir(path)) return;
    std::string parent = parent_dir(path);
    if (parent != path) make_dirs(parent);
    if (mkdir(path.c_str(), 0777) != 0 && errno != EEXIST)
        throw failure("cannot create the folder " + path + ": " + std::strerror(errno));
}

std::string full_path(const std::string &path) {
    char *resolved = realpath(path.c_str(), nullptr);
    if (resolved == nullptr) return path;
    std::string s = resolved;
    std::free(resolved);
    return s;
}

std::string parent_dir(const std::string &path) {
    std::string p = path;
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    size_t slash = p.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return p.substr(0, slash);
}

std::string join_path(const std::string &dir, const std::string &name) {
    if (name.empty() || name[0] == '/' || dir.empty() || dir == ".") return name;
    return dir.back() == '/' ? dir + name : dir + "/" + name;
}

std::string read_text(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!is_file(path) || !in) throw failure("cannot read " + path);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

std::string temporary_name(const std::string &path, const std::string &extension) {
    size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    return dir + ".tmp-" + std::to_string(getpid()) + "-" + base + extension;
}

void rename_or_throw(const std::string &from, const std::string &to) {
    if (std::rename(from.c_str(), to.c_str()) != 0) {
        std::string reason = std::strerror(errno);
        std::remove(from.c_str());
        throw failure("cannot write " + to + ": " + reason);
    }
}

staging::~staging() {
    if (committed) return;
    for (const auto &f : files) std::remove(f.first.c_str());
    for (auto d = made_dirs.rbegin(); d != made_dirs.rend(); ++d) rmdir(d->c_str());
}

void staging::make_dirs(const std::string &path) {
    std::vector<std::string> missing;
    for (std::string p = path; !p.empty() && !is_dir(p); p = parent_dir(p)) {
        missing.push_back(p);
        if (parent_dir(p) == p) break;
    }
    bridge::make_dirs(path);
    made_dirs.insert(made_dirs.end(), missing.rbegin(), missing.rend());
}

std::string staging::add(const std::string &final_path) {
    files.emplace_back(temporary_name(final_path, ""), final_path);
    return files.back().first;
}

void staging::commit() {
    for (const auto &f : files) rename_or_throw(f.first, f.second);
    committed = true;
}

int run_reporting_errors(bool progress, std::ostream &err, const std::function<void()> &work) {
    std::string message;
    try {
        work();
        return 0;
    } catch (const std::bad_alloc &) {
        message = "out of memory";
    } catch (const std::exception &e) {
        message = e.what();
    }
    if (progress) err << "\n";
    err << "Error: " << message << "\n";
    return 1;
}

void write_bytes(const std::string &path, const void *data, size_t bytes) {
    FILE *f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) throw failure("cannot write " + path + ": " + std::strerror(errno));
    bool ok = std::fwrite(data, 1, bytes, f) == bytes;
    ok = std::fclose(f) == 0 && ok;
    if (!ok) {
        std::remove(path.c_str());
        throw failure("cannot write " + path + " (disk full?)");
    }
}

void write_text_atomic(const std::string &path, const std::string &text) {
    std::string tmp = temporary_name(path, "");
    write_bytes(tmp, text.data(), text.size());
    rename_or_throw(tmp, path);
}

std::vector<float> read_floats(const std::string &path, size_t first, size_t count) {
    std::vector<float> v(count);
    FILE *f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) throw failure("cannot read " + path + ": " + std::strerror(errno));
    bool ok = std::fseek(f, static_cast<long>(first * sizeof(float)), SEEK_SET) == 0 &&
              std::fread(v.data(), sizeof(float), count, f) == count;
    std::fclose(f);
    if (!ok) throw failure(path + " is shorter than its header says");
    return v;
}

native_header read_native_header(const std::string &path) {
    std::istringstream in(read_text(path));
    native_header h;
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        size_t hash = line.find('#');
        if (hash != std::string::npos) line.erase(hash);
        std::istringstream words(line);
        std::string key;
        if (!(words >> key)) continue;
        bool ok = true;
        if (key == "x")
            ok = static_cast<bool>(words >> h.nx);
        else if (key == "y")
            ok = static_cast<bool>(words >> h.ny);
        else if (key == "z")
            ok = static_cast<bool>(words >> h.nz);
        else if (key == "t")
            ok = static_cast<bool>(words >> h.nt);
        else if (key == "resolution")
            ok = static_cast<bool>(words >> h.resolution[0] >> h.resolution[1] >> h.resolution[2]);
        else if (key == "origin")
            ok = static_cast<bool>(words >> h.origin[0] >> h.origin[1] >> h.origin[2]);
        else if (key == "direction")
            ok = static_cast<bool>(words >> h.direction[0] >> h.direction[1] >> h.direction[2]);
        else if (key == "degrees-of-freedom")
            ok = h.has_dof = static_cast<bool>(words >> h.dof);
        else if (key == "info" || key == "info:" || key == "information" || key == "information:")
            break;
        if (!ok) throw failure("line " + std::to_string(number) + " of " + path + " is not valid");
    }
    if (h.nx <= 0 || h.ny <= 0 || h.nz <= 0 || h.nt <= 0)
        throw failure(path + " does not give the dimensions x, y, z and t");
    for (int a = 0; a < 3; ++a)
        if (!(h.resolution[a] > 0) || std::fabs(h.direction[a]) != 1.0f)
            throw failure(path + " has an invalid resolution or direction");
    return h;
}

std::string native_header_text(const native_header &h) {
    char text[1024];
    std::snprintf(text, sizeof text,
                  "x %d\ny %d\nz %d\nt %d\nbyte-order 1\nresolution %.9g %.9g %.9g\n"
                  "origin %.9g %.9g %.9g\ndirection %g %g %g\ndegrees-of-freedom %d\n",
                  h.nx, h.ny, h.nz, h.nt, h.resolution[0], h.resolution[1], h.resolution[2],
                  h.origin[0], h.origin[1], h.origin[2], h.direction[0], h.direction[1],
                  h.direction[2], h.dof);
    return text;
}

}  // namespace bridge
