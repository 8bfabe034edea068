// Shared helpers of the io tests: a scratch directory that is also the
// working directory, a header read with its standard output captured, and a
// one-line summary of a header's fields.
#ifndef FMRI_REM_IO_TEST_UTIL_H
#define FMRI_REM_IO_TEST_UTIL_H

#include <gtest/gtest.h>

#include <sstream>

#include "io.h"
#include "test_support.h"

namespace io_test {

class ScratchDirTest : public ::testing::Test {
  protected:
    test_support::TempDir dir;
    test_support::ScopedChdir here{dir.path()};
};

struct ReadResult {
    int status;
    std::string out;
};

// read_volume_header on a writable copy of name.
inline ReadResult read_header(std::string name, volume_header *header) {
    ::testing::internal::CaptureStdout();
    const int status = read_volume_header(&name[0], header);
    return {status, ::testing::internal::GetCapturedStdout()};
}

// "nx ny nz nt | storage header-storage data-type | dof | time resolution |
// resolution | voxel_to_space diagonal | origin | direction | oblique"
inline std::string summary(const volume_header &h) {
    std::ostringstream o;
    const float diagonal[3] = {h.voxel_to_space.m[0][0], h.voxel_to_space.m[1][1],
                               h.voxel_to_space.m[2][2]};
    o << h.nx << " " << h.ny << " " << h.nz << " " << h.nt << " | " << h.storage_type << " "
      << h.header_storage_type << " " << h.data_type << " | " << h.degrees_of_freedom << " | "
      << h.time_resolution << " |";
    for (const float *v : {h.resolution, diagonal, h.origin, h.direction})
        o << " " << v[0] << " " << v[1] << " " << v[2] << " |";
    o << " " << h.oblique;
    return o.str();
}

}  // namespace io_test

#endif
