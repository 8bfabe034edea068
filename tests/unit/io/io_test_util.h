// Shared helpers of the io tests: a scratch directory that is also the
// working directory, and a header read with its standard output captured.
#ifndef FMRI_REM_IO_TEST_UTIL_H
#define FMRI_REM_IO_TEST_UTIL_H

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

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
inline ReadResult read_header(const std::string &name, volume_header *header) {
    std::vector<char> buffer(name.begin(), name.end());
    buffer.push_back('\0');
    ::testing::internal::CaptureStdout();
    int status = read_volume_header(buffer.data(), header);
    return {status, ::testing::internal::GetCapturedStdout()};
}

}  // namespace io_test

#endif
