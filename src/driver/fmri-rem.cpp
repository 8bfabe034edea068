// fmri-rem: group-level random-effects analysis of fMRI results.
//
// Reads the analysis file named on the command line, loads the signal files
// it lists, estimates the between-subject variance at every voxel, smooths
// the variance ratio, tests every condition and writes the result volumes.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "driver.h"
#include "signal_data.h"
#include "voxel_passes.h"
#include "rem.h"
#include "util.h"

namespace {

const int kNameLength = 1024;

void print_syntax() {
    std::printf("Syntax: executable [file name] [optional arguments]\n");
    std::printf("optional arguments:\n");
    std::printf("-h for this help\n");
    std::printf("-H for more help using a menu\n");
    std::printf("-r to write out a residue time series\n");
    std::printf("\n");
}

// Links the file names of the analysis file into the signal file list,
// starting with file_list_root; returns the number of names linked.
int build_file_list() {
    file_list_entry *current = &file_list_root;
    file_list_entry *previous = nullptr;
    int k = 0;
    for (k = 0; k < REM_input.nfiles; ++k) {
        std::strncpy(current->name, REM_file_name(k), DRIVER_NAME_LENGTH - 1);
        current->name[DRIVER_NAME_LENGTH - 1] = '\0';
        if (current != &file_list_root) previous->next = current;
        previous = current;
        if (k + 1 < REM_input.nfiles) {
            current = static_cast<file_list_entry *>(std::calloc(1, sizeof(file_list_entry)));
            if (current == nullptr) alloc_error("file_list_entry");
            current->next = nullptr;
        }
    }
    return k;
}

// Leaves a start-up file for the image viewer unless one exists already.
int write_viewer_file(const char *control_file) {
    FILE *existing = std::fopen(".vistra", "r");
    if (existing != nullptr) {
        std::fclose(existing);
        return 0;
    }
    FILE *file = std::fopen(".vistra", "w");
    if (file == nullptr) return 1;
    std::fprintf(file, "vt -r %s\n", control_file);
    std::fclose(file);
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    static char control_file[kNameLength];
    int control_file_given = 0;
    int help_requested = 0;
    int residue_requested = 0;
    int index = 0;
    int option;

    while ((option = my_getopt(argc, argv, "hHri:", &index)) != 0) {
        switch (option) {
            case 'h':
                help_requested = 1;
                break;
            case 'H':
                help_menu(0, "rem-menu.txt");
                std::exit(0);
            case 'r':
                residue_requested = 1;
                break;
            case 'i': {
                if (index >= argc || argv[index] == nullptr) {
                    std::printf("Error: option -i requires the name of an analysis file.\n");
                    std::exit(1);
                }
                const char *name = argv[index];
                if (std::strlen(name) >= static_cast<size_t>(kNameLength)) {
                    std::printf("Error: the analysis file name is longer than %d characters.\n",
                                kNameLength - 1);
                    std::exit(1);
                }
                if (REM_read_control_file(name) != 0) {
                    std::printf("Program terminated due to error in analysis file %s\n", name);
                    std::exit(1);
                }
                std::strcpy(control_file, name);
                control_file_given = 1;
                break;
            }
            default:
                if (option == -1) {
                    std::printf("Option -%s not valid.\n", argv[index]);
                } else {
                    std::printf("Valid option -%c not yet programmed.\n", argv[index][0]);
                }
                std::printf("Program exiting.\n");
                std::exit(1);
        }
    }

    if (!control_file_given || help_requested) {
        print_syntax();
        std::exit(help_requested ? 0 : 1);
    }
    std::printf("\n");

    int nlinked = build_file_list();

    // The route decides whether the signal data are read as the passes go
    // or held in memory.
    const voxel_route route = voxel_route_from_environment();
    if (load_signal_files(route.read_on_demand) != 0) std::exit(1);

    REM_describe_basis_functions();

    int nconditions = 0;
    if (REM_define_conditions(REM_input.conditions, &nconditions) != 0) std::exit(1);
    if (nconditions == 0) {
        std::printf("Error: no test conditions are defined.\n");
        std::exit(1);
    }

    static char condition[kNameLength];
    std::printf("Conditions to be tested: ");
    for (int c = 0; c < nconditions; ++c) {
        if (REM_get_condition_string(c, condition) != 0) return 1;
        std::printf("%s ", condition);
    }
    std::printf("\n");

    int dof = 0;
    compute_effective_dof(&dof);

    // A design that cannot be estimated would keep the voxel passes going
    // for ever.
    if (REM_check_design() != 0) std::exit(1);

    if (analyze_random_effects_on(route, residue_requested, nconditions, dof) != 0) std::exit(1);

    if (write_output_files(residue_requested, nlinked, nconditions, dof) != 0) {
        std::printf("Error writing output files.\n");
        std::exit(1);
    }

    if (write_viewer_file(control_file) != 0) return 1;
    return 0;
}
