// Reading text lines (with or without "#" comments), skipping blanks, and
// scanning the command line for single-letter options.
#include "util.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

const int line_size = 1024;  // including the terminating NUL

// Position of the next command-line argument to look at; starts after the
// program name and is never reset.
int argc_index = 1;

}  // namespace

extern "C" {

char *get_line(FILE *file, char *buffer) {
    return fgets(buffer, line_size, file);
}

int get_line_with_comment(FILE *file, char *buffer) {
    if (fgets(buffer, line_size, file) == nullptr) return 0;
    char *comment = strchr(buffer, '#');
    if (comment != nullptr) *comment = '\0';
    return 1;
}

char *next_non_white(const char *text) {
    while (*text == ' ' || *text == '\t') ++text;
    return const_cast<char *>(text);
}

int my_getopt(int argc, char **argv, const char *options, int *index) {
    if (argc_index >= argc) return 0;
    const char *argument = argv[argc_index];

    // A bare word names the analysis file, as if it followed "-i".
    if (argument[0] != '-') {
        *index = argc_index;
        ++argc_index;
        return 'i';
    }

    // Only the second character is compared ("-hx" counts as "-h"); a lone
    // "-" offers its terminating NUL, which no option character equals.
    const char *option = options;
    while (*option != '\0' && *option != argument[1]) ++option;
    if (*option == '\0') {
        *index = argc_index;
        return -1;
    }

    if (option[1] == ':') ++argc_index;  // now at the option's argument
    *index = argc_index > argc ? argc : argc_index;
    ++argc_index;
    return static_cast<unsigned char>(*option);
}

}  // extern "C"

std::string format_text(const char *format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return text;
}
