#include "test_support.h"

#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace test_support {

TempDir::TempDir() {
    const char *base = std::getenv("TMPDIR");
    std::string name = std::string(base && *base ? base : "/tmp") + "/fmri-rem-test-XXXXXX";
    if (!mkdtemp(&name[0])) throw std::runtime_error("mkdtemp failed");
    path_ = name;
}

TempDir::~TempDir() {
    std::error_code ignored;  // a folder that cannot be removed stays behind
    std::filesystem::remove_all(path_, ignored);
}

std::string shell_quote(const std::string &word) {
    std::string q = "'";
    for (char c : word) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

CommandResult run_command(const std::string &command, const std::string &dir,
                          const std::string &input) {
    TempDir io;
    write_file(io.file("in"), input);
    const std::string full = (dir.empty() ? "" : "cd " + shell_quote(dir) + " && ") + "( " +
                             command + " ) <" + shell_quote(io.file("in")) + " >" +
                             shell_quote(io.file("out")) + " 2>" + shell_quote(io.file("err"));
    const int raw = std::system(full.c_str());
    return {raw != -1 && WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, read_file(io.file("out")),
            read_file(io.file("err"))};
}

CommandResult run_fmri_rem(const std::vector<std::string> &args, const std::string &dir,
                           const std::string &input, const std::string &env) {
    std::string cmd = env + " " + shell_quote(FMRI_REM_BIN);
    for (const auto &a : args) cmd += " " + shell_quote(a);
    return run_command(cmd, dir, input);
}

std::string read_file(const std::string &path) {
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

void write_file(const std::string &path, const std::string &text) {
    if (!(std::ofstream(path, std::ios::binary) << text)) throw std::runtime_error("write " + path);
}

std::vector<float> read_floats(const std::string &path) {
    const std::string bytes = read_file(path);
    std::vector<float> v(bytes.size() / sizeof(float));
    std::copy_n(bytes.data(), v.size() * sizeof(float), reinterpret_cast<char *>(v.data()));
    return v;
}

void write_floats(const std::string &path, const std::vector<float> &values) {
    write_file(path, std::string(reinterpret_cast<const char *>(values.data()),
                                 values.size() * sizeof(float)));
}

}  // namespace test_support
