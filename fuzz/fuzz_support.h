// Shared by the libFuzzer harnesses: a scratch folder for the files that a
// reader takes from disk, inputs split into named files, and calls that
// survive a process exit on a documented error path.
#ifndef FMRI_REM_FUZZ_SUPPORT_H
#define FMRI_REM_FUZZ_SUPPORT_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace fuzz {

// The scratch folder of this process, under $FUZZ_SCRATCH, else /dev/shm,
// else $TMPDIR or /tmp (created on first use, removed when the process ends
// normally).
const std::string &scratch_dir();

// Writes size bytes to path, replacing the file.
void write_file(const std::string &path, const uint8_t *data, size_t size);
void write_file(const std::string &path, const std::string &text);

// An input split into files: the text before the first line "%% NAME" is the
// lead part; each such line starts a file called NAME (letters, digits, ".",
// "_" and "-" only; other characters are dropped; at most 8 files; a name
// left empty, "." or ".." drops its file).
struct Section {
    std::string name;
    std::string text;
};
struct SplitInput {
    std::string lead;
    std::vector<Section> files;
};
SplitInput split_input(const uint8_t *data, size_t size);

// Runs body(arg).  A call of exit() inside it (a documented way for the
// program to stop on an error) returns here instead of ending the process:
// the streams that the body opened with fopen are closed, as the process end
// would have done, and the result is true.  False when body returned.
bool ended_by_exit(void (*body)(void *), void *arg);

// Same for a callable without captures that need to outlive the call.
template <typename F>
bool ended_by_exit(F &&f) {
    return ended_by_exit([](void *p) { (*static_cast<F *>(p))(); }, &f);
}

}  // namespace fuzz

#endif
