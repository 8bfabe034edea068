// Helpers shared by the test programs: temporary directories, whole-file
// reading and writing, and running a command with its output captured.
#ifndef FMRI_REM_TEST_SUPPORT_H
#define FMRI_REM_TEST_SUPPORT_H

#include <filesystem>
#include <string>
#include <vector>

namespace test_support {

// A fresh directory under the system's temporary folder, removed with its
// contents when the object goes out of scope.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// Changes the working directory for the life of the object.
struct ScopedChdir {
    explicit ScopedChdir(const std::string &dir) { std::filesystem::current_path(dir); }
    ~ScopedChdir() { std::filesystem::current_path(old, ignored); }
    std::filesystem::path old = std::filesystem::current_path();
    std::error_code ignored;
};

struct CommandResult {
    int status = -1;  // exit status, or -1 when the command did not exit normally
    std::string out;  // standard output
    std::string err;  // standard error
};

// Runs a shell command line in directory dir (the current one when empty),
// feeding it `input` on standard input.
CommandResult run_command(const std::string &command, const std::string &dir = "",
                          const std::string &input = "");

// Runs the built fmri-rem with the given arguments (each quoted for the shell).
CommandResult run_fmri_rem(const std::vector<std::string> &args, const std::string &dir,
                           const std::string &input = "", const std::string &env = "");

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &text);
inline bool file_exists(const std::string &path) {
    return std::filesystem::exists(path);
}
std::vector<float> read_floats(const std::string &path);
void write_floats(const std::string &path, const std::vector<float> &values);
std::string shell_quote(const std::string &word);
inline std::string repeat(const std::string &s, int n) {
    std::string r;
    while (n-- > 0) r += s;
    return r;
}

}  // namespace test_support

#endif
