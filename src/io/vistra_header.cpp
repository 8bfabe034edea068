// The native text header: a small keyword file beside the raw data file.
#include <math.h>
#include <stdio.h>
#include <string.h>

#include "io.h"
#include "io_internal.h"
#include "util.h"

namespace {

// Reads one integer from value into field: 0 when exactly one was read.
int read_one_integer(const char *value, int *field) {
    return sscanf(value, "%d", field) == 1 ? 0 : 1;
}

struct word_code {
    const char *word;
    int code;
};

// Reads the word of a word-valued statement into word (which keeps the
// keyword when the value is missing), stores its code from table in field
// and gives 0; an unknown word prints message and gives 1.
template <size_t N>
int decode_word(const char *value, char *word, const word_code (&table)[N], int *field,
                const char *message) {
    sscanf(value, "%1023s", word);
    for (const word_code &entry : table) {
        if (strcmp(word, entry.word) == 0) {
            *field = entry.code;
            return 0;
        }
    }
    fputs(message, stdout);
    return 1;
}

const word_code data_types[] = {
    {"magnitude", 0}, {"complex", 1}, {"real-imaginary", 1}, {"magnitude-phase", 2}};
const word_code storage_types[] = {{"short", STORAGE_BSHORT},
                                   {"float", STORAGE_BFLOAT},
                                   {"long", STORAGE_BLONG},
                                   {"unsigned-short", STORAGE_USHORT},
                                   {"unsigned-char", STORAGE_UCHAR}};
const word_code registrations[] = {{"paxinos-rat", -1}, {"PW-rat", 1}};

}  // namespace

extern "C" {

int decode_vistra_header_keyword(const char *line, volume_header *header) {
    // The word buffer keeps the keyword when a word value is missing, so
    // such a line fails with the message of its keyword.
    char word[IO_NAME_LENGTH];
    const char *value = io_internal::split_statement(line, word, sizeof word);

    if (strcmp(word, "info") == 0 || strcmp(word, "info:") == 0 ||
        strcmp(word, "information") == 0 || strcmp(word, "information:") == 0)
        return -1;

    if (strcmp(word, "x") == 0) return read_one_integer(value, &header->nx);
    if (strcmp(word, "y") == 0) return read_one_integer(value, &header->ny);
    if (strcmp(word, "z") == 0) return read_one_integer(value, &header->nz);
    if (strcmp(word, "t") == 0) return read_one_integer(value, &header->nt);
    if (strcmp(word, "byte-order") == 0) return read_one_integer(value, &header->byte_order);
    if (strcmp(word, "degrees-of-freedom") == 0)
        return read_one_integer(value, &header->degrees_of_freedom);

    if (strcmp(word, "matrix") == 0) {
        if (sscanf(value, "%d %d %d %d", &header->nx, &header->ny, &header->nz, &header->nt) == 4)
            return 0;
        return sscanf(value, "%d %d %d", &header->nx, &header->ny, &header->nz) == 3 ? 0 : 1;
    }

    if (strcmp(word, "resolution") == 0) {
        if (sscanf(value, "%f %f %f %f", &header->resolution[0], &header->resolution[1],
                   &header->resolution[2], &header->time_resolution) == 4)
            return 0;
        int n = sscanf(value, "%f %f %f", &header->resolution[0], &header->resolution[1],
                       &header->resolution[2]);
        header->time_resolution = 0.0f;
        return n == 3 ? 0 : 1;
    }

    if (strcmp(word, "origin") == 0) {
        return sscanf(value, "%f %f %f", &header->origin[0], &header->origin[1],
                      &header->origin[2]) == 3
                   ? 0
                   : 1;
    }

    if (strcmp(word, "direction") == 0) {
        int n = sscanf(value, "%f %f %f", &header->direction[0], &header->direction[1],
                       &header->direction[2]);
        for (int i = 0; i < 3; ++i) {
            if (!(fabs(static_cast<double>(header->direction[i])) == 1.0)) {
                printf("Error: allowed values for direction (%g,%g,%g) are 1 and -1.\n",
                       static_cast<double>(header->direction[0]),
                       static_cast<double>(header->direction[1]),
                       static_cast<double>(header->direction[2]));
                return 1;
            }
        }
        return n == 3 ? 0 : 1;
    }

    if (strcmp(word, "data-type") == 0) {
        header->data_type = 0;
        return decode_word(value, word, data_types, &header->data_type,
                           "Error: arguments for data-type are\n"
                           "1) magnitude (this is the default),\n"
                           "2) complex (or real-imaginary),\n"
                           "3) magnitude-phase\n");
    }
    if (strcmp(word, "storage-type") == 0) {
        return decode_word(value, word, storage_types, &header->header_storage_type,
                           "Error: arguments for storage-type are ...\n"
                           "    short, float, long, unsigned-short, unsigned-char\n");
    }
    if (strcmp(word, "registration") == 0) {
        // Deliberately resets the data type, as "data-type" does.
        header->data_type = 0;
        return decode_word(value, word, registrations, &header->registration,
                           "Error: arguments for registration are\n"
                           "1) paxinos-rat, and\n"
                           "2) nothing else (paxinos-monkey later?)\n");
    }

    return 1;
}

int read_vistra_header(char *name, volume_header *header) {
    char path[IO_NAME_LENGTH];
    if (replace_extension(name, &header->storage_type, "hdr", path) != 0) return 1;

    FILE *file = fopen(path, "r");
    if (file == nullptr) {
        printf("Error: cannot open vistra file %s.\n", path);
        return 1;
    }

    char line[IO_NAME_LENGTH];
    if (get_line_with_comment(file, line) != 0 && !io_internal::is_blank_line(line)) {
        // The older form of the first line holds four integers, which are
        // not used.
        int values[4];
        if (decode_vistra_header_keyword(line, header) != 0 &&
            sscanf(line, "%d %d %d %d", &values[0], &values[1], &values[2], &values[3]) != 4) {
            printf("Error reading the 1st line of the vst header file '%s'.\n", path);
            fclose(file);
            return 1;
        }
    }

    // Statements after the first line are numbered from 1 in messages.
    const bool read = io_internal::read_statements(file, path, [header](const char *text) {
        return decode_vistra_header_keyword(text, header);
    });
    fclose(file);
    if (!read) return 1;

    if (!io_internal::dimensions_found(header, path, false)) return 1;
    header->voxel_to_space =
        io_internal::scale_and_shift(header->resolution, header->origin, header->direction);
    return 0;
}

}  // extern "C"
