// fmri-rem-summary: a short readable summary of the result volumes that
// fmri-rem wrote into a folder (see summary.h).
#include <iostream>

#include "companion_cli.h"
#include "summary.h"

int main(int argc, char **argv) {
    std::string dir = ".";
    CLI::App app(
        "Prints, for each condition of the results that fmri-rem wrote into RESULTS_DIR (each "
        "T-<name> beside a P-<name>), the largest |T|, the voxel where it lies, and the numbers "
        "of voxels with p < 0.001 and positive or negative T.",
        "fmri-rem-summary");
    app.set_version_flag("-V,--version", std::string("fmri-rem-summary ") + summary::version());
    app.add_option("RESULTS_DIR", dir, "the folder where fmri-rem ran")->capture_default_str();
    if (const int status = parse_companion_command_line(app, argc, argv); status >= 0)
        return status;
    std::string text, error;
    if (!summary::summarise(dir, &text, &error)) {
        std::cerr << "Error: " << error << "\n";
        return 1;
    }
    std::cout << text;
    return 0;
}
