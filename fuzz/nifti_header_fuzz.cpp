// A NIfTI-1 header on arbitrary bytes, read through read_volume_header: as a
// single file v.nii, or (built with NIFTI_PAIR) as the header v.hdr of the
// pair v.hdr/v.img.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string>

#include "fuzz_support.h"
#include "io.h"

#ifdef NIFTI_PAIR
const char kWritten[] = "/v.hdr";
const char kRead[] = "/v.img";
#else
const char kWritten[] = "/v.nii";
const char kRead[] = "/v.nii";
#endif

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const std::string written = fuzz::scratch_dir() + kWritten;
    static const std::string read = fuzz::scratch_dir() + kRead;
    fuzz::write_file(written, data, size);
    char name[IO_NAME_LENGTH];
    snprintf(name, sizeof name, "%s", read.c_str());
    volume_header header;
    memset(&header, 0, sizeof header);
    // A transform that cannot be inverted ends the process: a documented exit.
    fuzz::ended_by_exit([&] { read_volume_header(name, &header); });
    return 0;
}
