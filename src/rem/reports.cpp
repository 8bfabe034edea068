// Reports on the model: the events and files as read from the control file
// (standard output) and the design matrix as a text table (basis.dat).
#include <stdio.h>

#include "rem.h"

namespace {

void print_event_heading(int e) {
    const char *format = REM.event_shape[e] == 1 ? "\nRAMP event %c has %d samples:\n"
                                                 : "\nSQUARE event %c has %d samples:\n";
    printf(format, REM_EventChar(REM.event_number[e]), REM.event_nfiles[e]);
}

}  // namespace

void REM_describe_input(void) {
    if (REM_input.design_layout) {
        printf("\nDESIGN matrix of %d files and %d columns, events", REM.nfiles, REM.nbasis);
        for (int e = 0; e < REM.nbasis; ++e) printf(" %c", REM_EventChar(REM.event_number[e]));
        printf(":\n");
        for (int i = 0; i < REM.nfiles; ++i) {
            printf("file[%d] = %s", i, REM_file_name(i));
            for (int e = 0; e < REM.nbasis; ++e)
                printf(" , %c = %g", REM_EventChar(REM.event_number[e]),
                       static_cast<double>(REM.design[i][e]));
            printf("\n");
        }
        return;
    }
    if (REM_input.overlapping_events) {
        for (int e = 0; e < REM.nevents; ++e) {
            print_event_heading(e);
            for (int r = 0; r < REM.event_nranges[e]; ++r)
                printf("%d %d   (ON, OFF)\n", REM.range_start[e][r], REM.range_stop[e][r]);
        }
        printf("measurement files:\n");
        for (int i = 0; i < REM_input.nfiles; ++i)
            printf("file[%d] = %s , magnitude = %g\n", i, REM_file_name(i),
                   static_cast<double>(REM_file_weight(i)));
        return;
    }
    for (int e = 0; e < REM.nevents; ++e) {
        print_event_heading(e);
        const int start = REM.range_start[e][0];
        const int stop = REM.range_stop[e][0];
        for (int i = start; i <= stop; ++i)
            printf("file[%d] = %s , magnitude = %g\n", i - start, REM_file_name(i),
                   static_cast<double>(REM_file_weight(i)));
    }
}

void REM_describe_basis_functions(void) {
    FILE *file = fopen("basis.dat", "w");
    if (file == nullptr) {
        printf("Cannot open basis function output file ...\n");
        return;
    }
    fprintf(file, "x ");
    for (int e = 0; e < REM.nevents; ++e)
        fprintf(file, "event%c ", REM_EventChar(REM.event_number[e]));
    fprintf(file, "\n");
    for (int i = 0; i < REM.nfiles; ++i) {
        fprintf(file, "%d ", i);
        for (int j = 0; j < REM.nbasis; ++j)
            fprintf(file, "%f ", static_cast<double>(REM.design[i][j]));
        fprintf(file, "\n");
    }
    fclose(file);
}
