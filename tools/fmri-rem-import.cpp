// fmri-rem-import: first-level NIfTI maps listed in a table become a study
// folder for fmri-rem (signal files, analysis.rem, geometry.json).
#include <unistd.h>

#include <iostream>

#include "bridge.h"
#include "companion_cli.h"

int main(int argc, char **argv) {
    bridge::import_options o;
    std::vector<double> smoothing;
    CLI::App app(
        "Reads a tab-separated table of first-level NIfTI maps (columns participant_id, group, "
        "effect, one of stderr/variance/tstat, dof, optional weight and volume; paths relative "
        "to the table's folder) and writes DIR/signal/*.bfloat, DIR/analysis.rem and "
        "DIR/geometry.json for fmri-rem.",
        "fmri-rem-import");
    app.add_option("TABLE", o.table, "the study table (.tsv)")->required();
    app.add_option("-o,--out", o.out_dir, "the study folder to write")->capture_default_str();
    app.add_option("-c,--conditions", o.conditions,
                   "the conditions to test, in event characters (e.g. \"p c p-c\")")
        ->required();
    app.add_option("-s,--smoothing", smoothing,
                   "FWHM in mm of the first-level smoothing and of the variance-ratio smoothing")
        ->expected(2)
        ->required();
    app.add_option("-m,--mask", o.mask, "a NIfTI mask on the same grid (0 = leave out)");
    app.add_option("--multiple-comparisons", o.multiple_comparisons,
                   "resolution elements for corrected p values (0 = raw p)")
        ->capture_default_str();
    std::string reml = "classic";
    app.add_option("--reml", reml,
                   "the between-subject variance estimate written into the analysis file: "
                   "classic (at most 200 rows) or converged (up to 1000000)")
        ->check(CLI::IsMember({"classic", "converged"}))
        ->capture_default_str();
    app.footer(
        "Table: tab-separated with a header row. group, effect and dof (an integer, or a file "
        "holding one, such as FSL's stats/dof) are required; each row gives exactly one of "
        "variance, stderr and tstat (the error is then |effect / t|); participant_id names the "
        "signal files; weight and volume (0-based, for 4-D files) are optional; n/a or an empty "
        "cell means not given.\n\nGroups: a group written as one event character (1-9, a-z, "
        "A-Z) is that event; other names get their first letter when it is free, else the next "
        "free character, and the mapping is printed.\n\nA voxel where a value is not finite, "
        "the standard error is not positive or the mask is 0 is left out for that subject.\n\n"
        "Then: cd DIR && fmri-rem analysis.rem && fmri-rem-export");
    app.set_version_flag("-V,--version", std::string("fmri-rem-import ") + bridge::version());
    if (const int status = parse_companion_command_line(app, argc, argv); status >= 0)
        return status;
    o.prior_smoothing = smoothing[0];
    o.ratio_smoothing = smoothing[1];
    o.progress = isatty(2) != 0;
    o.converged = reml == "converged";
    return bridge::run_import(o, std::cout, std::cerr);
}
