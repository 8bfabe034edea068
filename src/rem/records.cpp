// The model's two process-wide records and the event alphabet: events are
// named by one character ("1"-"9", "a"-"z", "A"-"Z") and numbered 1 to 61.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "rem.h"

rem_input REM_input;
rem_model REM;

int REM_EventNumberFromChar(char c) {
    if (c >= '1' && c <= '9') return c - '1' + 1;
    if (c >= 'a' && c <= 'z') return c - 'a' + 10;
    if (c >= 'A' && c <= 'Z') return c - 'A' + 36;
    if (c == ',') return -1;
    return 0;
}

int REM_EventCharFromInteger(int number, char *c) {
    if (number >= 1 && number <= 9) {
        *c = static_cast<char>('1' + number - 1);
    } else if (number >= 10 && number <= 35) {
        *c = static_cast<char>('a' + number - 10);
    } else if (number >= 36 && number <= 61) {
        *c = static_cast<char>('A' + number - 36);
    } else {
        return 1;
    }
    return 0;
}

char REM_EventChar(int number) {
    char c = 0;
    if (REM_EventCharFromInteger(number, &c) != 0) {
        printf("Programming error: event number %d apparently is not defined!\n", number);
        fflush(stdout);
        exit(1);
    }
    return c;
}

int REM_get_event_number(int index) {
    if (index >= 0 && index < REM.nevents) return REM.event_number[index];
    return 0;
}

int REM_get_condition_string(int index, char *text) {
    if (index < 0 || index >= REM.nconditions) return 1;
    strcpy(text, REM.condition_name[index]);
    return 0;
}

namespace {

// Names and weights of the files beyond the records' arrays, in file order.
std::vector<std::string> g_more_names;
std::vector<float> g_more_weights;

}  // namespace

const char *REM_file_name(int index) {
    if (index < REM_MAX_FILES) return REM_input.file_name[index];
    return g_more_names[static_cast<size_t>(index - REM_MAX_FILES)].c_str();
}

float REM_file_weight(int index) {
    if (index < REM_MAX_FILES) return REM_input.file_weight[index];
    return g_more_weights[static_cast<size_t>(index - REM_MAX_FILES)];
}

void REM_store_file(int index, const char *name, float weight) {
    if (index < REM_MAX_FILES) {
        snprintf(REM_input.file_name[index], REM_NAME_LENGTH, "%s", name);
        REM_input.file_weight[index] = weight;
        if (index == 0) {  // a new list: forget the files of an earlier one
            g_more_names.clear();
            g_more_weights.clear();
        }
        return;
    }
    const size_t at = static_cast<size_t>(index - REM_MAX_FILES);
    g_more_names.resize(at);
    g_more_weights.resize(at);
    g_more_names.emplace_back(name, strnlen(name, REM_NAME_LENGTH - 1));
    g_more_weights.push_back(weight);
}
