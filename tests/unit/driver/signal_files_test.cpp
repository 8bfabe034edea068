// Reading the degrees of freedom from a signal file's text header.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "driver.h"
#include "test_support.h"

namespace {

using test_support::TempDir;

TEST(ReadDegreesOfFreedom, HeaderTable) {
    struct Case {
        const char *header;
        int result;
        int dof;
    };
    const Case cases[] = {
        {"x 4\ny 4\nz 2\nt 2\ndegrees-of-freedom 17\n", 0, 17},
        {"degrees-of-freedom 0\n", 0, 0},
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
    };
    TempDir dir;
    file_list_entry entry;
    std::memset(&entry, 0, sizeof entry);
    const std::string data = dir.file("subject.bfloat");
    std::strcpy(entry.name, data.c_str());
    for (const Case &c : cases) {
        test_support::write_file(dir.file("subject.hdr"), c.header);
        int dof = -7;
        testing::internal::CaptureStdout();
        int result = read_degrees_of_freedom(&entry, &dof);
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(result, c.result) << c.header;
        EXPECT_EQ(dof, c.dof) << c.header;
        if (c.result == 0) {
            EXPECT_EQ(out, "") << c.header;
        } else {
            EXPECT_EQ(out, "Error: the keyword 'degrees-of-freedom' was not found in " +
                               dir.file("subject.hdr") + "\n");
        }
    }
}

TEST(ReadDegreesOfFreedom, MissingHeaderOrExtension) {
    TempDir dir;
    file_list_entry entry;
    std::memset(&entry, 0, sizeof entry);
    std::strcpy(entry.name, dir.file("absent.bfloat").c_str());
    int dof = -1;
    testing::internal::CaptureStdout();
    EXPECT_EQ(read_degrees_of_freedom(&entry, &dof), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Error: cannot open file " + dir.file("absent.hdr") + ".\n");
    EXPECT_EQ(dof, 0);
}

}  // namespace
