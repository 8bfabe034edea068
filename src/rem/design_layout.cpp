// The layout with a design matrix of the user's own: the "design" line, the
// header around it and the file list with one value per column.
#include <ctype.h>
#include <stdlib.h>
#include <string.h>

#include <cmath>
#include <string>
#include <vector>

#include "design_layout.h"
#include "rem.h"

namespace {

const int kLineLength = 1024;

// Values of the file list, row by row (nevents values a file).
std::vector<float> g_values;

bool is_space(char c) {
    return isspace(static_cast<unsigned char>(c)) != 0;
}

// The words of text, split at white space.
std::vector<std::string> words_of(const char *text) {
    std::vector<std::string> words;
    while (*text != '\0') {
        while (*text != '\0' && is_space(*text)) ++text;
        const char *start = text;
        while (*text != '\0' && !is_space(*text)) ++text;
        if (text > start) words.emplace_back(start, static_cast<size_t>(text - start));
    }
    return words;
}

bool is_event_word(const std::string &word) {
    return word == "event" || word == "subjects" || word == "sessions";
}

bool is_measurements_word(const std::string &word) {
    return word == "measurements" || word == "measurements:";
}

// The design columns as the design line names them: "p c a".
std::string column_names() {
    std::string names;
    for (int e = 0; e < REM.nevents; ++e) {
        if (e > 0) names += ' ';
        names += REM_EventChar(REM.event_number[e]);
    }
    return names;
}

void print_event_line_error() {
    printf(
        "Error: line %d of file '%s' is an event line; with a `design' line the files follow "
        "`measurements', each with one value per design column.\n",
        rem_control_line_number(), rem_control_path());
}

// One file line: the path and exactly one finite number per column.
int read_file_line(const char *word, const char *rest) {
    const std::vector<std::string> values = words_of(rest);
    const int k = REM.nevents;
    if (static_cast<int>(values.size()) != k) {
        printf("Error: line %d of file '%s' gives %d values for the %d design columns (%s).\n",
               rem_control_line_number(), rem_control_path(), static_cast<int>(values.size()), k,
               column_names().c_str());
        return 1;
    }
    std::vector<float> row(static_cast<size_t>(k));
    for (int j = 0; j < k; ++j) {
        const char *text = values[static_cast<size_t>(j)].c_str();
        char *stop = nullptr;
        row[static_cast<size_t>(j)] = strtof(text, &stop);
        if (*stop != '\0' || !std::isfinite(row[static_cast<size_t>(j)])) {
            printf(
                "Error: line %d of file '%s': the value '%s' of design column %c is not a "
                "finite number.\n",
                rem_control_line_number(), rem_control_path(), text,
                REM_EventChar(REM.event_number[j]));
            return 1;
        }
    }
    if (rem_control_add_file(word) != 0) return 1;
    g_values.insert(g_values.end(), row.begin(), row.end());
    return 0;
}

}  // namespace

int REMInternal_decode_design_line(const char *rest) {
    if (REM_input.design_layout) {
        printf("Error: line %d of file '%s' repeats the `design' line.\n",
               rem_control_line_number(), rem_control_path());
        return -2;
    }
    const std::vector<std::string> names = words_of(rest);
    if (names.empty()) {
        printf("Error: `design' requires one event character per design column.\n");
        return -2;
    }
    for (size_t e = 0; e < names.size(); ++e) {
        const std::string &name = names[e];
        const int number = name.size() == 1 ? REM_EventNumberFromChar(name[0]) : 0;
        if (number <= 0) {
            printf(
                "Error: the `design' columns are named by single event characters (1-9, a-z, "
                "A-Z), not '%s'.\n",
                name.c_str());
            return -2;
        }
        for (size_t f = 0; f < e; ++f) {
            if (names[f] == name) {
                printf("Error: event %c is named twice in the `design' line.\n", name[0]);
                return -2;
            }
        }
    }
    // At most 61 distinct characters: within the event capacity.
    REM.nevents = static_cast<int>(names.size());
    for (int e = 0; e < REM.nevents; ++e) {
        REM.event_number[e] = REM_EventNumberFromChar(names[static_cast<size_t>(e)][0]);
        REM.event_shape[e] = 0;
        REM.event_nranges[e] = 0;
        REM.event_nfiles[e] = 0;
    }
    g_values.clear();
    REM_input.design_layout = 1;
    return 0;
}

int REMInternal_design_header_line(const char *line) {
    const std::vector<std::string> words = words_of(line);
    if (words.empty()) return 0;
    if (is_measurements_word(words[0])) return 1;
    if (is_event_word(words[0])) {
        print_event_line_error();
        return -1;
    }
    return 0;
}

int REMInternal_read_control_file_design_layout(FILE *file) {
    if (file == nullptr) {
        printf(
            "Error: the `design' line of file '%s' must be followed by a `measurements' line "
            "and the files, each with one value per design column.\n",
            rem_control_path());
        return 1;
    }
    char line[kLineLength];
    char word[kLineLength];
    const char *rest = nullptr;
    int status;
    while ((status = rem_control_read_word_line(file, line, word, &rest)) > 0) {
        if (is_event_word(word)) {
            print_event_line_error();
            return 1;
        }
        if (read_file_line(word, rest) != 0) return 1;
    }
    if (status < 0) return 1;
    REM_input.nfiles = REM.nfiles;

    const int n = REM.nfiles, k = REM.nevents;
    if (n == 0) {
        printf("Error: no files follow the `measurements' line of file '%s'.\n",
               rem_control_path());
        return 1;
    }
    for (int j = 0; j < k; ++j) {
        for (int i = 0; i < n; ++i)
            if (rem_design_layout_value(i, j) != 0.0f) REM.event_nfiles[j]++;
        if (REM.event_nfiles[j] == 0) {
            printf("Error: design column %c is 0 for every file: the design cannot be estimated.\n",
                   REM_EventChar(REM.event_number[j]));
            return 1;
        }
    }
    if (n <= k) {
        printf(
            "Error: %d files for %d design columns leave no degrees of freedom for the "
            "random-effects variance.\n",
            n, k);
        return 1;
    }
    return 0;
}

float rem_design_layout_value(int i, int j) {
    return g_values[static_cast<size_t>(i) * static_cast<size_t>(REM.nevents) +
                    static_cast<size_t>(j)];
}
