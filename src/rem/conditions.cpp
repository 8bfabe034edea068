// Conditions: each word of the conditions text becomes a contrast matrix over
// the basis functions, one row per comma-separated part.  A coefficient is
// +1 or -1 by the sign in force, or a decimal number written before "*" and
// the one event character it applies to.
#include <ctype.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <cmath>
#include <string>

#include "rem.h"
#include "util.h"

namespace {

bool is_space(char c) {
    return isspace(static_cast<unsigned char>(c)) != 0;
}

// Finds the next word at or after text: returns its start and stores its
// length, or returns null when no word is left.
const char *next_word(const char *text, size_t *length) {
    while (*text != '\0' && is_space(*text)) ++text;
    if (*text == '\0') return nullptr;
    size_t n = 0;
    while (text[n] != '\0' && !is_space(text[n])) ++n;
    *length = n;
    return text;
}

// Column count of the contrast matrices, kept with them.
int ncoeff_save = -1;

bool is_number_character(char c) {
    return (c >= '0' && c <= '9') || c == '.';
}

// A coefficient at word[j]: a run of digits and points followed by "*".
// Returns the length of the run with its "*" (0 when there is none here),
// after storing its value; -1 after a message when the run is not one
// decimal number, is not finite, or is not followed by an event character.
int read_coefficient(const char *word, size_t length, size_t j, float *value) {
    size_t end = j;
    while (end < length && is_number_character(word[end])) ++end;
    if (end == j || end >= length || word[end] != '*') return 0;
    const std::string condition(word, length);
    const std::string number(word + j, end - j);
    char *stop = nullptr;
    *value = strtof(number.c_str(), &stop);
    if (*stop != '\0' || number.find('.') != number.rfind('.') || !std::isfinite(*value)) {
        printf("Error: the coefficient %s in condition %s is not a finite decimal number.\n",
               number.c_str(), condition.c_str());
        return -1;
    }
    if (end + 1 >= length || REM_EventNumberFromChar(word[end + 1]) <= 0) {
        printf(
            "Error: the coefficient %s* in condition %s must be followed by an event "
            "character.\n",
            number.c_str(), condition.c_str());
        return -1;
    }
    return static_cast<int>(end - j + 1);
}

}  // namespace

int REM_define_conditions(const char *text, int *count) {
    if (!REM.initialized) {
        printf("Error: the REM basis functions should be defined before the conditions.\n");
        return 1;
    }
    if (ncoeff_save < 0) ncoeff_save = REM.nbasis;

    // A second definition replaces the first; the slots are cleared so that
    // nothing can be freed twice.
    for (int c = 0; c < REM_MAX_CONDITIONS; ++c) {
        if (REM.condition_contrast[c] != nullptr)
            free_float_matrix(REM.condition_contrast[c],
                              static_cast<uint32_t>(REM.condition_nrows[c]));
        REM.condition_contrast[c] = nullptr;
        REM.condition_nrows[c] = 0;
    }
    REM.nconditions = 0;
    ncoeff_save = REM.nbasis;

    size_t length = 0;
    int nwords = 0;
    for (const char *p = next_word(text, &length); p != nullptr; p = next_word(p + length, &length))
        ++nwords;
    if (nwords == 0) {
        *count = 0;
        return 0;
    }
    if (nwords > REM_MAX_CONDITIONS) {
        printf("Error: %d conditions are given; at most %d can be tested.\n", nwords,
               REM_MAX_CONDITIONS);
        *count = 0;
        return 1;
    }

    for (const char *p = next_word(text, &length); p != nullptr;
         p = next_word(p + length, &length)) {
        int commas = 0;
        for (size_t j = 0; j < length; ++j)
            if (p[j] == ',') ++commas;
        const int c = REM.nconditions;
        REM.condition_nrows[c] = commas + 1;
        float **contrast =
            float_matrix(static_cast<uint32_t>(commas + 1), static_cast<uint32_t>(REM.nbasis));
        for (int row = 0; row <= commas; ++row)
            for (int e = 0; e < REM.nbasis; ++e) contrast[row][e] = 0.0f;
        REM.condition_contrast[c] = contrast;
        REM.nconditions++;
    }
    *count = REM.nconditions;

    int c = 0;
    for (const char *p = next_word(text, &length); p != nullptr;
         p = next_word(p + length, &length), ++c) {
        const size_t kept = length < REM_NAME_LENGTH - 1 ? length : REM_NAME_LENGTH - 1;
        memcpy(REM.condition_name[c], p, kept);
        REM.condition_name[c][kept] = '\0';
        int row = 0;
        float sign = 1.0f;
        for (size_t j = 0; j < length; ++j) {
            char ch = p[j];
            float coefficient = sign;
            if (ch == ',') {
                ++row;
                sign = 1.0f;
                continue;
            }
            if (ch == '-' || ch == '+') {
                sign = ch == '-' ? -1.0f : 1.0f;
                continue;
            }
            const int run = read_coefficient(p, length, j, &coefficient);
            if (run < 0) return 1;
            if (run > 0) {
                j += static_cast<size_t>(run);
                ch = p[j];
                coefficient = sign * coefficient;
            }
            const int number = REM_EventNumberFromChar(ch);
            bool found = false;
            for (int e = 0; e < REM.nevents && e < REM.nbasis; ++e) {
                if (REM.event_number[e] == number) {
                    REM.condition_contrast[c][row][e] = coefficient;
                    found = true;
                }
            }
            if (!found) {
                printf("Error: one of the events in the conditions (%d) is not defined.\n", number);
                return 1;
            }
        }
    }
    return 0;
}
