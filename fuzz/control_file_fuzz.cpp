// The analysis file reader on arbitrary text: REM_read_control_file reads
// the input as an analysis file (and, when it is read, builds the design and
// describes the input).
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
    fuzz::ended_by_exit([] { REM_read_control_file(path.c_str()); });
    return 0;
}
