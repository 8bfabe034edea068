// The example analysis files printed after an error in the header.
#include <stdio.h>

#include "rem.h"

namespace {

// A line without its line end is followed directly by the next one.
const struct {
    const char *text;
    bool line_end;
} kExample[] = {
    {"\nExample input file:\n", true},
    {"smoothing 0.5 1.5  # [prior smoothing (mm)] [smoothing for var. ratio]", true},
    {"conditions p c p-c # mandatory; Statistical tests MUST be included", true},
    {"event p # pre-treated group", true},
    {"../group1/subject1/S-1.bfloat # any previous output file", true},
    {"../group1/subject2/S-1.bfloat # same output file, but diffent analysis", true},
    {"../group1/subjectn/S-1.bfloat", true},
    {"event c # control group", false},
    {"../group2/subject1/S-1.bfloat", true},
    {"../group2/subject2/S-1.bfloat", true},
    {"../group2/subjectn/S-1.bfloat", true},
    {"...", true},
    {"\nOR\n", true},
    {"\nExample input file:\n", true},
    {"smoothing 0.5 1.5  # [prior smoothing (mm)] [smoothing for var. ratio]", true},
    {"conditions p c p-c # mandatory; Statistical tests MUST be included", true},
    {"event p square # pre-treated group, DC level", true},
    {"0 7            # start, stop files; there could be more entries below", true},
    {"event P ramp   # pre-treated group, linear change over time", false},
    {"0 7            # start, stop files", true},
    {"event c square # pre-treated group, DC level", true},
    {"8 15           # start, stop files", true},
    {"event C ramp   # pre-treated group, linear change over time", false},
    {"8 15           # start, stop files", true},
    {"measurements:", false},
    {"../group1/subject1/S-1.bfloat", true},
    {"../group1/subject2/S-1.bfloat", true},
    {"../group1/subject3/S-1.bfloat", true},
    {"...", true},
    {"../group1/subjectn/S-1.bfloat", true},
    {"../group1/subjectn/S-1.bfloat", true},
    {"../group2/subject1/S-1.bfloat", true},
    {"../group2/subject2/S-1.bfloat", true},
    {"../group2/subject3/S-1.bfloat", true},
    {"...", true},
    {"../group2/subjectn/S-1.bfloat", true},
    {"...", true},
};

}  // namespace

void REMInternal_describe_rem_format(void) {
    for (const auto &line : kExample) printf(line.line_end ? "%s\n" : "%s", line.text);
}
