// The native text header on arbitrary text, read through read_volume_header
// both for a data file with an extension (v.bfloat) and for one without (v),
// which must then declare its storage type.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string>

#include "fuzz_support.h"
#include "io.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const std::string stem = fuzz::scratch_dir() + "/v";
    fuzz::write_file(stem + ".hdr", data, size);
    for (const char *extension : {".bfloat", ""}) {
        char name[IO_NAME_LENGTH];
        snprintf(name, sizeof name, "%s%s", stem.c_str(), extension);
        volume_header header;
        memset(&header, 0, sizeof header);
        // A transform that cannot be inverted ends the process: a documented exit.
        fuzz::ended_by_exit([&] { read_volume_header(name, &header); });
    }
    return 0;
}
