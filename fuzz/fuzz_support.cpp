// The process-exit interception: the harnesses are linked with
// -Wl,--wrap=exit,--wrap=fopen,--wrap=fclose, so that every call of exit()
// in our code reaches __wrap_exit, which jumps back into the harness while a
// guarded call runs (and ends the process as usual otherwise), and the
// streams opened during that call are known and can be closed.
#include "fuzz_support.h"

#include <fcntl.h>
#include <setjmp.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>

extern "C" {
[[noreturn]] void __real_exit(int status);
FILE *__real_fopen(const char *path, const char *mode);
int __real_fclose(FILE *stream);
}

namespace {

jmp_buf g_exit_jump;
bool g_guarded = false;

// Streams opened by fopen during a guarded call and not yet closed.
const int kMaxStreams = 64;
FILE *g_streams[kMaxStreams];
int g_nstreams = 0;

void forget_stream(FILE *stream) {
    for (int i = 0; i < g_nstreams; ++i) {
        if (g_streams[i] == stream) {
            g_streams[i] = g_streams[--g_nstreams];
            return;
        }
    }
}

void close_open_streams() {
    while (g_nstreams > 0) __real_fclose(g_streams[--g_nstreams]);
}

}  // namespace

extern "C" {

[[noreturn]] void __wrap_exit(int status) {
    if (g_guarded) {
        g_guarded = false;
        fflush(stdout);
        close_open_streams();
        longjmp(g_exit_jump, 1);
    }
    __real_exit(status);
}

FILE *__wrap_fopen(const char *path, const char *mode) {
    FILE *stream = __real_fopen(path, mode);
    if (stream != nullptr && g_guarded) {
        if (g_nstreams == kMaxStreams) abort();  // a stream leak in the reader
        g_streams[g_nstreams++] = stream;
    }
    return stream;
}

int __wrap_fclose(FILE *stream) {
    forget_stream(stream);
    return __real_fclose(stream);
}

}  // extern "C"

namespace fuzz {

namespace {

std::string g_scratch;

void remove_scratch() {
    std::error_code ignored;
    if (!g_scratch.empty()) std::filesystem::remove_all(g_scratch, ignored);
}

bool name_char(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '_' || c == '-';
}

}  // namespace

const std::string &scratch_dir() {
    if (g_scratch.empty()) {
        // Memory-backed when possible: every input is written to a file, and
        // in a folder on disk that is by far the slowest part.
        const char *base = getenv("FUZZ_SCRATCH");
        if (base == nullptr || *base == '\0')
            base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : getenv("TMPDIR");
        if (base == nullptr || *base == '\0') base = "/tmp";
        std::string pattern = std::string(base) + "/fmri-rem-fuzz-XXXXXX";
        if (mkdtemp(&pattern[0]) == nullptr) {
            perror("mkdtemp");
            abort();
        }
        g_scratch = pattern;
        atexit(remove_scratch);
    }
    return g_scratch;
}

void write_file(const std::string &path, const uint8_t *data, size_t size) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) {
        perror(path.c_str());
        abort();
    }
    while (size > 0) {
        ssize_t n = write(fd, data, size);
        if (n <= 0) {
            perror(path.c_str());
            abort();
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    close(fd);
}

void write_file(const std::string &path, const std::string &text) {
    write_file(path, reinterpret_cast<const uint8_t *>(text.data()), text.size());
}

SplitInput split_input(const uint8_t *data, size_t size) {
    SplitInput result;
    result.files.reserve(8);  // current points into it
    const std::string text(reinterpret_cast<const char *>(data), size);
    std::string *current = &result.lead;
    Section dropped;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        end = end == std::string::npos ? text.size() : end + 1;
        if (text.compare(at, 3, "%% ") == 0) {
            Section section;
            for (size_t i = at + 3; i < end; ++i)
                if (name_char(text[i]) && section.name.size() < 100) section.name += text[i];
            if (section.name.empty() || section.name == "." || section.name == ".." ||
                result.files.size() == 8) {
                dropped.text.clear();
                current = &dropped.text;
            } else {
                result.files.push_back(section);
                current = &result.files.back().text;
            }
        } else {
            current->append(text, at, end - at);
        }
        at = end;
    }
    return result;
}

bool ended_by_exit(void (*body)(void *), void *arg) {
    // Cleared before every call, so that a body that leaves a stream open on
    // its normal return is found by the leak check, not closed here.
    g_nstreams = 0;
    if (setjmp(g_exit_jump) != 0) return true;
    g_guarded = true;
    body(arg);
    g_guarded = false;
    return false;
}

}  // namespace fuzz
