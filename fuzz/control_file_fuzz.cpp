// The analysis file reader on arbitrary text: REM_read_control_file reads
// the input as an analysis file (and, when it is read, builds the design and
// describes the input); the conditions of a file that was read are then
// turned into contrasts.
#include <stddef.h>
#include <stdint.h>

#include <string>

#include "fuzz_support.h"
#include "rem.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const std::string path = fuzz::scratch_dir() + "/analysis.txt";
    fuzz::write_file(path, data, size);
    // An event without a character ends the process in the input
    // description ("Programming error: event number ..."): a documented exit.
    fuzz::ended_by_exit([] {
        int count = 0;
        if (REM_read_control_file(path.c_str()) == 0)
            REM_define_conditions(REM_input.conditions, &count);
    });
    return 0;
}
