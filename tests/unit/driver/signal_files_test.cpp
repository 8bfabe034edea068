// Reading the degrees of freedom from a signal file's text header.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "driver.h"
#include "test_support.h"

namespace {

TEST(ReadDegreesOfFreedom, HeaderTable) {
    struct Case {
        const char *header;  // null: no header file
        int result, dof;
    };
    const Case cases[] = {
        {"x 4\ny 4\nz 2\nt 2\ndegrees-of-freedom 17\n", 0, 17},
        {"\n\n   \ndegrees-of-freedom 9 # comment\n", 0, 9},
        {"degrees-of-freedom\t42\n", 0, 42},
        // An indented keyword matches, but its value is looked for inside
        // the keyword and is not found.
        {"   degrees-of-freedom 12\n", 0, 0},
        {"degrees-of-freedom 5\ndegrees-of-freedom 6\n", 0, 5},
        {"degrees-of-freedomX 5\n", 1, 0},
        {"# degrees-of-freedom 5\nx 4\n", 1, 0},
        {"DEGREES-OF-FREEDOM 5\n", 1, 0},
        {"", 1, 0},
        {nullptr, 1, 0},
    };
    test_support::TempDir dir;
    file_list_entry entry;
    std::memset(&entry, 0, sizeof entry);
    std::strcpy(entry.name, dir.file("subject.bfloat").c_str());
    const std::string header = dir.file("subject.hdr");
    for (const Case &c : cases) {
        SCOPED_TRACE(c.header ? c.header : "(no header)");
        std::remove(header.c_str());
        if (c.header) test_support::write_file(header, c.header);
        int dof = -7;
        testing::internal::CaptureStdout();
        EXPECT_EQ(read_degrees_of_freedom(&entry, &dof), c.result);
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(dof, c.dof);
        EXPECT_EQ(out, c.result == 0 ? ""
                       : c.header    ? "Error: the keyword 'degrees-of-freedom' was not found in " +
                                        header + "\n"
                                  : "Error: cannot open file " + header + ".\n");
    }
}

}  // namespace
