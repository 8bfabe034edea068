#include "test_support.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace test_support {

TempDir::TempDir() {
    const char *base = std::getenv("TMPDIR");
    std::string tmpl = std::string(base && *base ? base : "/tmp") + "/fmri-rem-test-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (!mkdtemp(buf.data())) throw std::runtime_error("mkdtemp failed");
    path_ = buf.data();
}

TempDir::~TempDir() {
    std::string cmd = "rm -rf " + shell_quote(path_);
    if (std::system(cmd.c_str()) != 0) {
        // Nothing sensible to do in a destructor; the folder stays behind.
    }
}

ScopedChdir::ScopedChdir(const std::string &dir) {
    char buf[4096];
    if (!getcwd(buf, sizeof buf)) throw std::runtime_error("getcwd failed");
    old_ = buf;
    if (chdir(dir.c_str()) != 0) throw std::runtime_error("chdir failed: " + dir);
}

ScopedChdir::~ScopedChdir() {
    if (chdir(old_.c_str()) != 0) {
        // The old directory vanished; stay where we are.
    }
}

std::string shell_quote(const std::string &word) {
    std::string q = "'";
    for (char c : word) {
        if (c == '\'')
            q += "'\\''";
        else
            q += c;
    }
    return q + "'";
}

CommandResult run_command(const std::string &command, const std::string &dir,
                          const std::string &input) {
    TempDir io;
    write_file(io.file("in"), input);
    std::string full;
    if (!dir.empty()) full += "cd " + shell_quote(dir) + " && ";
    full += "( " + command + " ) <" + shell_quote(io.file("in")) + " >" +
            shell_quote(io.file("out")) + " 2>" + shell_quote(io.file("err"));
    int raw = std::system(full.c_str());
    CommandResult r;
    r.status = (raw != -1 && WIFEXITED(raw)) ? WEXITSTATUS(raw) : -1;
    r.out = read_file(io.file("out"));
    r.err = read_file(io.file("err"));
    return r;
}

CommandResult run_fmri_rem(const std::vector<std::string> &args, const std::string &dir,
                           const std::string &input, const std::string &env) {
    std::string cmd = env.empty() ? "" : env + " ";
    cmd += shell_quote(FMRI_REM_BIN);
    for (const auto &a : args) cmd += " " + shell_quote(a);
    return run_command(cmd, dir, input);
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void write_file(const std::string &path, const std::string &text) {
    std::ofstream out(path, std::ios::binary);
    out << text;
    if (!out) throw std::runtime_error("cannot write " + path);
}

bool file_exists(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

std::vector<float> read_floats(const std::string &path) {
    std::string bytes = read_file(path);
    std::vector<float> v(bytes.size() / sizeof(float));
    if (!v.empty()) std::memcpy(v.data(), bytes.data(), v.size() * sizeof(float));
    return v;
}

void write_floats(const std::string &path, const std::vector<float> &values) {
    std::string bytes(values.size() * sizeof(float), '\0');
    if (!values.empty()) std::memcpy(&bytes[0], values.data(), bytes.size());
    write_file(path, bytes);
}

}  // namespace test_support
