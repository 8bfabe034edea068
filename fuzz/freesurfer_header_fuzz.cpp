// A FreeSurfer slice stack v_: the lead part of the input is the ".bhdr"
// header v.bhdr; parts "%% 000.hdr", "%% 000.bshort" or "%% 000.bfloat"
// become the files v_000.hdr (byte order), v_000.bshort, v_000.bfloat.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "fuzz_support.h"
#include "io.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const std::string dir = fuzz::scratch_dir();
    const fuzz::SplitInput input = fuzz::split_input(data, size);
    fuzz::write_file(dir + "/v.bhdr", input.lead);
    std::vector<std::string> written;
    for (const fuzz::Section &file : input.files) {
        written.push_back(dir + "/v_" + file.name);
        fuzz::write_file(written.back(), file.text);
    }
    char name[IO_NAME_LENGTH];
    snprintf(name, sizeof name, "%s/v_", dir.c_str());
    volume_header header;
    memset(&header, 0, sizeof header);
    // A transform that cannot be inverted ends the process: a documented exit.
    fuzz::ended_by_exit([&] { read_volume_header(name, &header); });
    for (const std::string &path : written) unlink(path.c_str());
    return 0;
}
