// A short readable summary of the result volumes that fmri-rem wrote into a
// folder: for each condition (each "T-<name>.hdr" beside a "P-<name>.bfloat",
// in the order of the names) the largest |T| with its voxel and the number
// of voxels whose p value is below 0.001, as a table of plain text.
#ifndef FMRI_REM_SUMMARY_H
#define FMRI_REM_SUMMARY_H

#include <string>

namespace summary {

// The summary of the results in folder dir into *text; false with *error set
// (one line, without "Error: ").
bool summarise(const std::string &dir, std::string *text, std::string *error);

// The program's version, as the companion programs print it.
const char *version();

}  // namespace summary

#endif
