// Result files: for each condition a p-value volume ("P-"), a statistic
// volume ("T-") and an effect-size volume with its error ("S-"), and on
// request the residue series.
#include <cstdint>
#include <cstdio>
#include <string>

#include "driver.h"
#include "io.h"
#include "rem.h"

namespace {

// Opens stem and writes one map of n floats; 1 on failure.
int write_single_map(const std::string &stem, int dof, const float *map, size_t n) {
    FILE *stream = nullptr;
    if (open_output_file(0, 1, dof, stem.c_str(), &stream) != 0) return 1;
    if (std::fwrite(map, sizeof(float), n, stream) != n) return 1;
    std::fclose(stream);
    return 0;
}

}  // namespace

int write_output_files(int residue_requested, int nfiles, int nconditions, int dof) {
    const size_t n = static_cast<size_t>(file_list_root.nx) * file_list_root.ny * file_list_root.nz;
    static char condition[DRIVER_NAME_LENGTH];

    for (int c = 0; c < nconditions; ++c) {
        if (REM_get_condition_string(c, condition) != 0) return 1;
        const std::string name(condition);

        if (write_single_map("P-" + name, dof, P_map[c], n) != 0) return 1;
        if (write_single_map("T-" + name, dof, T_map[c], n) != 0) return 1;

        // The effect-size volume fails only when both of its frames come up short.
        FILE *stream = nullptr;
        if (open_output_file(1, 2, dof, ("S-" + name).c_str(), &stream) != 0) return 1;
        bool effect_short = std::fwrite(S_map[c], sizeof(float), n, stream) != n;
        bool error_short = std::fwrite(dS_map[c], sizeof(float), n, stream) != n;
        if (effect_short && error_short) return 1;
        std::fclose(stream);
    }

    if (residue_requested) {
        FILE *stream = nullptr;
        if (open_output_file(1, nfiles, dof, "residue", &stream) != 0) return 1;
        const size_t count = static_cast<size_t>(nfiles) * n;
        if (std::fwrite(Residue_series, sizeof(float), count, stream) != count) return 1;
        std::fclose(stream);
    }
    return 0;
}
