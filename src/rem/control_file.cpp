// The control file ("analysis file") reader: header keywords, then one of
// three layouts: files listed under their event, events given as ranges of
// file indices followed by a "measurements" list of files, or a "design"
// header line whose columns the files give values for (design_layout.cpp).
#include <ctype.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>

#include <cmath>

#include "design_layout.h"
#include "rem.h"
#include "util.h"

namespace {

// Path of the control file being read and the number of the last line read
// from it (every physical line counts), for the reader's own messages.
const char *g_path = "(control file)";
int g_line = 0;

const int kLineLength = 1024;

// White space as isspace has it in the "C" locale, for any byte.
bool is_space(char c) {
    return isspace(static_cast<unsigned char>(c)) != 0;
}

// Copies the first word of text (white space delimited) into word, which
// holds kLineLength characters, and returns the position after it; null
// when the text holds no word.
const char *read_word(const char *text, char *word) {
    while (*text != '\0' && is_space(*text)) ++text;
    if (*text == '\0') return nullptr;
    int n = 0;
    while (*text != '\0' && !is_space(*text)) {
        if (n < kLineLength - 1) word[n++] = *text;
        ++text;
    }
    word[n] = '\0';
    return text;
}

bool is_blank(const char *line) {
    for (; *line != '\0'; ++line)
        if (!is_space(*line)) return false;
    return true;
}

bool is_event_word(const char *word) {
    return strcmp(word, "event") == 0 || strcmp(word, "subjects") == 0 ||
           strcmp(word, "sessions") == 0;
}

bool is_measurements_word(const char *word) {
    return strcmp(word, "measurements") == 0 || strcmp(word, "measurements:") == 0;
}

int count_words(const char *text) {
    char word[kLineLength];
    int n = 0;
    while ((text = read_word(text, word)) != nullptr) ++n;
    return n;
}

// Reads one line, without its comment, into buffer (kLineLength characters).
// Returns 1 for a line, 0 at the end of the file, and -1 after an error
// message for a line too long for the buffer. A line of exactly 1023
// characters is whole: its line end, which did not fit, is consumed here.
int read_line(FILE *file, char *buffer) {
    if (get_line(file, buffer) == nullptr) return 0;
    ++g_line;
    size_t length = strlen(buffer);
    if (length == static_cast<size_t>(kLineLength - 1) && buffer[length - 1] != '\n') {
        int c = fgetc(file);
        if (c != '\n' && c != EOF) {
            ungetc(c, file);
            printf("Error: line %d of file '%s' is longer than %d characters.\n", g_line, g_path,
                   kLineLength - 1);
            return -1;
        }
    }
    char *comment = strchr(buffer, '#');
    if (comment != nullptr) *comment = '\0';
    return 1;
}

// Reads up to the next line that holds a word: 1 with the word and rest (the
// text after the word and its following blanks), 0 at the end of the file,
// -1 after the message for a line too long.
int read_word_line(FILE *file, char *line, char *word, const char **rest) {
    int status;
    while ((status = read_line(file, line)) > 0) {
        const char *after = read_word(line, word);
        if (after != nullptr) {
            *rest = next_non_white(after);
            return 1;
        }
    }
    return status;
}

// Reads the shape word that may follow an event character at text: 0 for
// none or "square", 1 for "ramp", -1 for anything else (after its message).
int read_shape(const char *text) {
    while (*text != '\0' && !is_space(*text)) ++text;  // the rest of the character's word
    char word[kLineLength];
    if (read_word(text, word) == nullptr || strcmp(word, "square") == 0) return 0;
    if (strcmp(word, "ramp") == 0) return 1;
    printf("Error: the only defined shapes are 'square' and 'ramp'\n");
    return -1;
}

// Only a character without any number (0) is refused here. The comma (-1)
// is taken as read; its event has no character to be reported with, so the
// description of the input ends the run with a programming error.
bool is_event_number(int number) {
    return number != 0;
}

bool check_event_capacity() {
    if (REM.nevents < REM_MAX_EVENTS) return true;
    printf("Error: line %d of file '%s' defines more than %d events.\n", g_line, g_path,
           REM_MAX_EVENTS);
    return false;
}

// Takes the character at rest as the number of the next event (index
// nevents); false after a message when the character is missing (the given
// message), not an event character, or one event too many.
bool read_event_character(const char *rest, const char *missing) {
    if (*rest == '\0') {
        printf("%s", missing);
        return false;
    }
    int number = REM_EventNumberFromChar(*rest);
    if (!is_event_number(number)) {
        printf("Error: event %c is not an allowed event character.\n", *rest);
        return false;
    }
    if (!check_event_capacity()) return false;
    REM.event_number[REM.nevents] = number;
    return true;
}

const char kEventCharacterMissing[] = "Error: `event' requires a character argument.\n";

// Takes one file line: the path and an optional weight (default 1.0).
bool add_file(const char *word, const char *rest, bool record_weight_given) {
    // "reml converged" lifts the capacity of the classic estimate.
    const int most =
        REM_input.reml_method == REM_REML_CONVERGED ? REM_MAX_CONVERGED_FILES : REM_MAX_FILES;
    if (REM.nfiles >= most) {
        printf("Error: line %d of file '%s' lists more than %d files.\n", g_line, g_path, most);
        return false;
    }
    float weight = 1.0f;
    if (sscanf(rest, "%f", &weight) == 1) {
        if (record_weight_given) REM_input.weights_given = 1;
    } else {
        weight = 1.0f;
    }
    REM_store_file(REM.nfiles, word, weight);
    REM.nfiles++;
    return true;
}

// Reads the index lines that follow the event line of event e, up to a blank
// line or the end of the file, and then counts the event as defined.
int read_index_lines(FILE *file, int e) {
    char line[kLineLength];
    int nranges = 0;
    long long nfiles = REM.event_nfiles[e];
    int status;
    while ((status = read_line(file, line)) != 0) {
        if (status < 0) return 1;
        if (is_blank(line)) break;
        int start = 0;
        int stop = 0;
        if (sscanf(line, "%d %d", &start, &stop) != 2) {
            printf("The start and stop indices for files should follow event %c\n",
                   REM_EventChar(REM.event_number[e]));
            return 1;
        }
        if (nranges >= REM_MAX_RANGES) {
            printf("Error: event %c has more than %d file ranges (line %d of file '%s').\n",
                   REM_EventChar(REM.event_number[e]), REM_MAX_RANGES, g_line, g_path);
            return 1;
        }
        if (start < 0 || start > stop) {
            printf(
                "Error: the file range %d %d of event %c (line %d of file '%s') must have "
                "0 <= start <= stop.\n",
                start, stop, REM_EventChar(REM.event_number[e]), g_line, g_path);
            return 1;
        }
        REM.range_start[e][nranges] = start;
        REM.range_stop[e][nranges] = stop;
        // Counted in 64 bits: a range may reach far beyond any file count
        // until the ranges are checked against the files, which refuses it.
        nfiles += static_cast<long long>(stop) - start + 1;
        REM.event_nfiles[e] = nfiles > INT_MAX ? INT_MAX : static_cast<int>(nfiles);
        ++nranges;
    }
    REM.event_nranges[e] = nranges;
    REM.nevents++;
    return 0;
}

// Starts event e of the layout without overlapping events: one range that
// begins at the next file.
void open_listed_event(int e) {
    REM.range_start[e][0] = REM.nfiles;
    REM.event_shape[e] = 0;
    REM.event_nranges[e] = 1;
    REM.event_nfiles[e] = 0;
}

void close_listed_event() {
    REM.range_stop[REM.nevents][0] = REM.nfiles - 1;
    REM.nevents++;
}

void reset_records() {
    REM_input.nfiles = 0;
    REM_input.multiple_comparisons = 0;
    REM_input.prior_smoothing = 0.0f;
    REM_input.ratio_smoothing = 1.0f;
    REM_input.weights_given = 0;
    REM_input.overlapping_events = 0;
    REM_input.conditions[0] = '\0';
    REM_input.reml_method = REM_REML_CLASSIC;
    REM_input.design_layout = 0;
    REM_input.smoothness_method = REM_SMOOTHNESS_STATED;

    REM.initialized = 0;
    REM.nfiles = 0;
    REM.nevents = 0;
    REM.nbasis = 0;
    memset(REM.event_number, 0, sizeof REM.event_number);
    memset(REM.event_shape, 0, sizeof REM.event_shape);
    memset(REM.event_nranges, 0, sizeof REM.event_nranges);
    memset(REM.event_nfiles, 0, sizeof REM.event_nfiles);
    memset(REM.range_start, 0, sizeof REM.range_start);
    memset(REM.range_stop, 0, sizeof REM.range_stop);
    memset(REM.event_spare, 0, sizeof REM.event_spare);
}

}  // namespace

// A header line of one word out of two: 0 and *value = 0 for the first, 1 for
// the second; -1 after the keyword's message for anything else.
static int decode_choice(const char *keyword, const char *rest, const char *first,
                         const char *second, int *value) {
    char choice[kLineLength];
    const bool one_word = count_words(rest) == 1 && read_word(rest, choice) != nullptr;
    if (one_word && (strcmp(choice, first) == 0 || strcmp(choice, second) == 0)) {
        *value = strcmp(choice, first) == 0 ? 0 : 1;
        return 0;
    }
    printf("Error: `%s' requires one argument: %s or %s.\n", keyword, first, second);
    return -1;
}

int REMInternal_decode_keyword(const char *line) {
    char word[kLineLength];
    const char *after = read_word(line, word);
    if (after == nullptr) return -1;
    const char *rest = next_non_white(after);

    if (strcmp(word, "multiple-comparisons") == 0) {
        if (sscanf(rest, "%d", &REM_input.multiple_comparisons) != 1) {
            printf("Error: `multiple-comparisons' requires an integer argument.\n");
            return -1;
        }
        return 0;
    }
    if (strcmp(word, "smoothing") == 0 || strcmp(word, "smooth") == 0) {
        float prior = 0.0f;
        float ratio = 0.0f;
        if (sscanf(rest, "%f %f", &prior, &ratio) != 2) {
            printf("Error: `smoothing' requires 2 arguments (mm).\n");
            printf("1) width of smoothing kernel in prior analysis,\n");
            printf("2) width of smoothing kernel used to boost random-effects DOF\n");
            return -1;
        }
        if (!std::isfinite(prior) || !std::isfinite(ratio)) {
            printf("Error: the `smoothing' widths must be finite numbers (mm), not %g and %g.\n",
                   static_cast<double>(prior), static_cast<double>(ratio));
            return -1;
        }
        REM_input.prior_smoothing = prior;
        REM_input.ratio_smoothing = ratio;
        return 0;
    }
    if (strcmp(word, "conditions") == 0) {
        int n = count_words(rest);
        if (n > REM_MAX_CONDITIONS) {
            printf("Error: %d conditions are given; at most %d can be tested.\n", n,
                   REM_MAX_CONDITIONS);
            return -1;
        }
        snprintf(REM_input.conditions, REM_NAME_LENGTH, "%s", rest);
        return 0;
    }
    if (strcmp(word, "reml") == 0)
        return decode_choice("reml", rest, "classic", "converged", &REM_input.reml_method);
    if (strcmp(word, "design") == 0) return REMInternal_decode_design_line(rest);
    if (strcmp(word, "smoothness") == 0)
        return decode_choice("smoothness", rest, "stated", "estimated",
                             &REM_input.smoothness_method);
    if (is_event_word(word)) {
        if (!read_event_character(
                rest,
                "Error: 'subjects' or 'sessions' or 'events' requires a character "
                "argument.\n"))
            return -1;
        int shape = read_shape(rest);
        if (shape < 0) return -1;
        REM.event_shape[REM.nevents] = shape;
        return 1;
    }
    return -1;
}

int REMInternal_read_control_file_no_overlapping_events(FILE *file) {
    if (!check_event_capacity()) return 1;
    open_listed_event(REM.nevents);
    char line[kLineLength];
    char word[kLineLength];
    const char *rest = nullptr;
    int status;
    while ((status = read_word_line(file, line, word, &rest)) > 0) {
        if (is_event_word(word)) {
            close_listed_event();
            if (!read_event_character(rest, kEventCharacterMissing)) return 1;
            open_listed_event(REM.nevents);
        } else {
            if (!add_file(word, rest, true)) return 1;
            REM.event_nfiles[REM.nevents]++;
        }
    }
    if (status < 0) return 1;
    close_listed_event();
    REM_input.nfiles = REM.nfiles;
    return 0;
}

int REMInternal_read_control_file_overlapping_events(FILE *file) {
    if (!check_event_capacity()) return 1;
    if (read_index_lines(file, REM.nevents) != 0) return 1;

    char line[kLineLength];
    char word[kLineLength];
    const char *rest = nullptr;
    bool file_list = false;
    int status;
    while ((status = read_word_line(file, line, word, &rest)) > 0) {
        if (file_list) {
            if (!add_file(word, rest, false)) return 1;
        } else if (is_event_word(word)) {
            if (!read_event_character(rest, kEventCharacterMissing)) return 1;
            int shape = read_shape(rest);
            if (shape < 0) return -1;
            REM.event_shape[REM.nevents] = shape;
            if (read_index_lines(file, REM.nevents) != 0) return 1;
        } else if (is_measurements_word(word)) {
            file_list = true;
        }
    }
    if (status < 0) return 1;
    REM_input.nfiles = REM.nfiles;

    for (int e = 0; e < REM.nevents; ++e) {
        if (REM.event_nranges[e] == 0) {
            printf("Error: event %c has no starting and ending file indicators.\n",
                   REM_EventChar(REM.event_number[e]));
            return 1;
        }
    }
    for (int e = 0; e < REM.nevents; ++e) {
        for (int r = 0; r < REM.event_nranges[e]; ++r) {
            if (REM.range_stop[e][r] >= REM.nfiles) {
                printf(
                    "Error: the file range %d %d of event %c reaches beyond the last of "
                    "the %d files.\n",
                    REM.range_start[e][r], REM.range_stop[e][r], REM_EventChar(REM.event_number[e]),
                    REM.nfiles);
                return 1;
            }
        }
    }

    int *covered = int_vector(static_cast<uint32_t>(REM.nfiles > 0 ? REM.nfiles : 1));
    for (int i = 0; i < REM.nfiles; ++i) covered[i] = 0;
    for (int e = 0; e < REM.nevents; ++e)
        for (int r = 0; r < REM.event_nranges[e]; ++r)
            for (int i = REM.range_start[e][r]; i <= REM.range_stop[e][r]; ++i) covered[i] = 1;
    for (int i = 0; i < REM.nfiles; ++i) {
        if (!covered[i])
            printf("Warning: file %d [ %s ] is not included in any events!\n", i, REM_file_name(i));
    }
    free_int_vector(covered);
    return 0;
}

int REM_read_control_file(const char *path) {
    reset_records();
    FILE *file = fopen(path, "r");
    if (file == nullptr) {
        printf("Error: cannot open the file %s.\n", path);
        return 1;
    }
    g_path = path;

    // The layout is known only from the whole file: a "measurements" line
    // anywhere selects the layout with overlapping events.
    char line[kLineLength];
    char word[kLineLength];
    word[0] = '\0';
    g_line = 0;
    int status;
    while ((status = read_line(file, line)) != 0) {
        if (status < 0) {
            fclose(file);
            return 1;
        }
        read_word(line, word);  // a blank line keeps the previous word
        if (is_measurements_word(word)) REM_input.overlapping_events = 1;
    }

    rewind(file);
    g_line = 0;
    int line_number = 1;  // counts the non-blank lines only
    while ((status = read_line(file, line)) != 0) {
        if (status < 0) {
            fclose(file);
            return 1;
        }
        if (is_blank(line)) continue;
        if (REM_input.design_layout) {
            const int header = REMInternal_design_header_line(line);
            if (header != 0) {
                if (header < 0) {
                    fclose(file);
                    return 1;
                }
                break;
            }
        }
        int result = REMInternal_decode_keyword(line);
        if (result == -2) {
            fclose(file);
            return 1;
        }
        if (result == -1) {
            printf("Error reading line %d of file '%s':\n", line_number, path);
            REMInternal_describe_rem_format();
            fclose(file);
            return 1;
        }
        if (result == 1) break;
        ++line_number;
    }

    int result;
    if (REM_input.design_layout)
        result = REMInternal_read_control_file_design_layout(status > 0 ? file : nullptr);
    else
        result = REM_input.overlapping_events
                     ? REMInternal_read_control_file_overlapping_events(file)
                     : REMInternal_read_control_file_no_overlapping_events(file);
    fclose(file);
    if (result != 0) return 1;

    REMInternal_define_design_matrix();
    if (REM_input.design_layout && REM_check_design() != 0) return 1;
    REM_describe_input();
    REM.initialized = 1;
    return 0;
}

int rem_control_read_word_line(FILE *file, char *line, char *word, const char **rest) {
    return read_word_line(file, line, word, rest);
}

int rem_control_add_file(const char *path) {
    return add_file(path, "", false) ? 0 : 1;
}

int rem_control_line_number(void) {
    return g_line;
}

const char *rem_control_path(void) {
    return g_path;
}
