// Helpers shared by the header readers of the io module (not part of its
// public interface).
#ifndef FMRI_REM_IO_INTERNAL_H
#define FMRI_REM_IO_INTERNAL_H

#include <stddef.h>
#include <stdio.h>

#include "io.h"
#include "util.h"

namespace io_internal {

// True when line holds nothing but white space.
bool is_blank_line(const char *line);

// Splits a header statement: copies its first white-space-delimited word
// into keyword (a buffer of keyword_size characters, the word cut to fit)
// and returns the value text, which starts at the first character after the
// word that is neither a blank nor a tab.
const char *split_statement(const char *line, char *keyword, size_t keyword_size);

// Writes prefix followed by suffix into result (a buffer of result_size
// characters).  Returns false, with result left empty, when that does not
// fit.
bool join_name(const char *prefix, size_t prefix_length, const char *suffix, char *result,
               size_t result_size);

// Checks that nx, ny, nz and nt were given: for the first that is zero (or,
// with require_positive, below 1) prints "Error: Value for x dimension not
// found in header file '...'" (y, z, t likewise) with path and returns false.
bool dimensions_found(const volume_header *header, const char *path, bool require_positive);

// Reads the statements of an open header file to its end: blank lines are
// skipped, every other line goes to decode, and a result of -1 ends the
// reading.  Any other non-zero result prints "Error reading line %d of file
// '%s'" with the number of statements accepted so far plus one and path, and
// gives false.  The caller closes the file.
template <typename Decode>
bool read_statements(FILE *file, const char *path, Decode decode) {
    char line[IO_NAME_LENGTH];
    int counter = 1;
    while (get_line_with_comment(file, line) != 0) {
        if (is_blank_line(line)) continue;
        const int result = decode(line);
        if (result == -1) break;
        if (result != 0) {
            printf("Error reading line %d of file '%s'\n", counter, path);
            return false;
        }
        ++counter;
    }
    return true;
}

// scale_and_shift_to_mat44 of three-value resolution, origin and direction.
mat44 scale_and_shift(const float *resolution, const float *origin, const float *direction);

// Writes stem followed by extension (with its dot) into name, a buffer of
// IO_NAME_LENGTH characters; prints a message and returns false when that
// does not fit.
bool output_name(const char *stem, const char *extension, char *name);

// Geometry of every result volume (that of the first signal file) and the
// NIfTI-output flag, as recorded by set_output_geometry.
struct output_geometry {
    int nx, ny, nz;
    float resolution[3];
    float origin[3];
    float direction[3];
    int nifti_output;
    int set;  // 0 until set_output_geometry is called
};
extern output_geometry output;

}  // namespace io_internal

#endif
