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
        "effect, one of stderr/variance/tstat, dof, optional weight, volume, session and "
        "covariates; paths relative to the table's folder) and writes DIR/signal/*.bfloat, "
        "DIR/analysis.rem and DIR/geometry.json for fmri-rem.",
        "fmri-rem-import");
    app.add_option("TABLE", o.table, "the study table (.tsv)")->required();
    app.add_option("-o,--out", o.out_dir, "the study folder to write")->capture_default_str();
    app.add_option("-c,--conditions", o.conditions,
                   "the conditions to test: names of groups, covariates or design columns (or "
                   "their event characters) joined by + and -, a number and * before a name "
                   "to weigh it, \",\" between the rows of an F test (e.g. \"patients controls "
                   "patients-controls age 0.5*patients+0.5*controls\")")
        ->required();
    app.add_option("--covariates", o.covariates,
                   "table columns that enter the model beside the groups (e.g. age,sex): numbers "
                   "centred on their mean, a text column as an indicator per level but the first")
        ->delimiter(',');
    app.add_option("--by-group", o.by_group,
                   "numeric columns with one slope per group (named age:patients, ...), centred "
                   "on their mean over all files")
        ->delimiter(',');
    app.add_flag(
        "--no-centre", [&](int64_t) { o.centre = false; }, "keep the covariates' raw values");
    app.add_option("--paired", o.paired,
                   "FIRST-SECOND sessions (e.g. post-pre): one file per participant_id, the "
                   "effect FIRST - SECOND, the variance var(FIRST) + var(SECOND)");
    app.add_option(
        "--design-matrix", o.design_matrix,
        "a .tsv of participant_id (or subject_label) and numeric columns used as the design "
        "as they are (in place of the groups and covariates)");
    std::string reml = "converged";
    app.add_option("--reml", reml,
                   "the between-subject variance estimate written into the analysis file "
                   "(converged is the import's default; fmri-rem's own default is classic)")
        ->check(CLI::IsMember({"classic", "converged"}))
        ->capture_default_str();
    std::string smoothness = "estimated";
    app.add_option("--smoothness", smoothness,
                   "how the degrees of freedom of the smoothed variance ratio are found, written "
                   "into the analysis file: estimated from the data's own smoothness (the "
                   "import's default) or stated (from the first smoothing width; fmri-rem's own "
                   "default)")
        ->check(CLI::IsMember({"stated", "estimated"}))
        ->capture_default_str();
    app.add_option("-s,--smoothing", smoothing,
                   "FWHM in mm of the first-level smoothing and of the variance-ratio smoothing")
        ->expected(2)
        ->required();
    app.add_option("-m,--mask", o.mask, "a NIfTI mask on the same grid (0 = leave out)");
    app.add_option("--multiple-comparisons", o.multiple_comparisons,
                   "resolution elements for corrected p values (0 = raw p)")
        ->capture_default_str();
    app.footer(
        "Table: tab-separated with a header row. effect and dof (a number, a file "
        "holding one, such as FSL's stats/dof, or a t map: SPM's spmT (its description gives "
        "SPM{T_[df]}), an AFNI bucket's t sub-brick, a t map with a t-test intent; a value that is "
        "not an integer enters rounded down) are required; each "
        "row gives exactly one of variance, stderr and tstat (the error is then |effect / t|); "
        "participant_id names the signal files; weight is optional; n/a or an empty cell means "
        "not given. Without a group column (or with one group) all files are one group, also "
        "called all.\n\nVolumes of 4-D files (0-based): AFNI's selector in the cell "
        "(stats.nii.gz[1], or a sub-brick label: stats.nii.gz[condA#0_Coef]), else the columns "
        "effect_volume, stderr_volume, variance_volume, "
        "tstat_volume, else the column volume for all of them. Analyze 7.5 files are placed "
        "as SPM2 and nibabel place them (x flipped, origin from the originator field).\n\n"
        "Events: a group, covariate or design column written as "
        "one event character (1-9, a-z, A-Z) is that event; other names get their first letter "
        "when it is free, else the next free character; the mapping is printed and written into "
        "the analysis file. Groups alone give event lines; covariates, slopes and design "
        "matrices give a `design' block.\n\nPaired: the two sessions' estimates are taken as "
        "independent; a first-level contrast of the two is better where there is one.\n\nA voxel "
        "where a value is not finite, "
        "the standard error is not positive or the mask is 0 is left out for that subject.\n\n"
        "Rows are read on all cores (OMP_NUM_THREADS to use fewer), with the same results for "
        "any number; with --reml classic a table gives at most 200 signal files.\n\n"
        "Then: cd DIR && fmri-rem analysis.rem && fmri-rem-export");
    app.set_version_flag("-V,--version", std::string("fmri-rem-import ") + bridge::version());
    if (const int status = parse_companion_command_line(app, argc, argv); status >= 0)
        return status;
    o.converged = reml == "converged";
    o.smoothness_estimated = smoothness == "estimated";
    o.prior_smoothing = smoothing[0];
    o.ratio_smoothing = smoothing[1];
    o.progress = isatty(2) != 0;
    return bridge::run_import(o, std::cout, std::cerr);
}
