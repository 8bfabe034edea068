// fmri-rem-export: the result volumes that fmri-rem wrote into a folder become
// NIfTI statistical maps (t or F, z, signed -log10 p, effect, variance), the
// variance maps, the residuals, a mask and JSON sidecars.
#include <unistd.h>

#include <iostream>

#include "bridge.h"
#include "companion_cli.h"

int main(int argc, char **argv) {
    bridge::export_options o;
    CLI::App app(
        "Writes the results of fmri-rem in RESULTS_DIR as gzip-compressed NIfTI-1 maps with "
        "intents and BIDS-style names, on the grid of the imported NIfTI files "
        "(geometry.json in RESULTS_DIR or its parent).",
        "fmri-rem-export");
    app.add_option("RESULTS_DIR", o.results_dir, "the folder where fmri-rem ran")
        ->capture_default_str();
    app.add_option("-o,--out", o.out_dir, "the folder for the maps (default RESULTS_DIR/nifti)");
    app.add_option("-g,--geometry", o.geometry,
                   "geometry.json written by fmri-rem-import (default: found beside the results)");
    app.footer(
        "Per condition: contrast-<label>_stat-<t|F|z|logp|effect|variance>_statmap.nii.gz (F "
        "for a condition of several rows; the label is the condition's name from the analysis "
        "file's comments, else its event characters, with - written Minus, , And, + Plus, "
        "* Times, . p and : By). Once: "
        "desc-<within|between|betweensmoothed>_stat-variance_statmap.nii.gz, "
        "stat-residuals_statmap.nii.gz (after fmri-rem -r), mask.nii.gz, a JSON sidecar per map "
        "and dataset_description.json. The t, F, effect and variance maps hold the result files' "
        "values bit for bit; z and -log10 p are computed from T (two-sided t, upper tail of F; "
        "p corrected where the analysis file sets multiple-comparisons); 0 where a voxel was not "
        "analysed or a value is not finite.");
    app.set_version_flag("-V,--version", std::string("fmri-rem-export ") + bridge::version());
    if (const int status = parse_companion_command_line(app, argc, argv); status >= 0)
        return status;
    o.progress = isatty(2) != 0;
    return bridge::run_export(o, std::cout, std::cerr);
}
