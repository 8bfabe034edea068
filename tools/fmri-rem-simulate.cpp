// fmri-rem-simulate: writes a synthetic group study for fmri-rem (see
// simulate.h for the model and the files).
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "companion_cli.h"
#include "simulate.h"

namespace {

// A whole number in [low, high], read as strtol reads it in base 10.
bool whole(const std::string &text, long low, long high, int *value) {
    char *end = nullptr;
    errno = 0;
    long v = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || end == text.c_str() || *end != '\0' || v < low || v > high) return false;
    *value = static_cast<int>(v);
    return true;
}

// A finite number of at least low, read as a double and kept as a float.
bool real(const std::string &text, float low, float *value) {
    char *end = nullptr;
    double v = std::strtod(text.c_str(), &end);
    if (end == text.c_str() || *end != '\0' || !(v >= low) || !std::isfinite(v)) return false;
    *value = static_cast<float>(v);
    return true;
}

std::string range(long low, long high) {
    return "a whole number from " + std::to_string(low) + " to " + std::to_string(high);
}

std::string at_least(float low) {
    char text[64];
    std::snprintf(text, sizeof text, "a number of at least %g", low);
    return text;
}

// An option of count values that read(value index, text) takes or refuses; a
// refused value is an error that says what was expected.  Given again, the
// option's last values count.
template <typename Read>
CLI::Option *add_values(CLI::App &app, const std::string &names, int count, Read read,
                        const std::string &expected, const std::string &help) {
    const std::string name = names.substr(names.rfind(',') + 1);
    CLI::Option *option = app.add_option_function<std::vector<std::string>>(
        names,
        [=, &app](const std::vector<std::string> &texts) {
            if (app.get_option(name)->count() % count != 0)
                throw CLI::ValidationError(name, "needs " + std::to_string(count) + " values");
            for (size_t k = 0; k < texts.size(); ++k)
                if (!read(k, texts[k]))
                    throw CLI::ValidationError(name, "'" + texts[k] + "' is not " + expected);
        },
        help);
    return option->expected(count)->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
}

}  // namespace

int main(int argc, char **argv) {
    simulate::options o;
    CLI::App app(
        "Writes a synthetic group study for fmri-rem: per subject a two-frame volume (effect, "
        "standard error) with a native text header holding its degrees of freedom, "
        "DIR/analysis.rem grouping the subjects into events (p and c for two groups, else a, "
        "b, ...) with the conditions of each group and of each pair of neighbouring groups, and "
        "the true group effects and between-subject variance (true-*.bfloat) for comparison.",
        "fmri-rem-simulate");
    app.set_version_flag("-V,--version", std::string("fmri-rem-simulate ") + simulate::version());
    app.add_option("-o,--out", o.out, "the study folder to write")
        ->type_name("DIR")
        ->capture_default_str();
    auto size = [&o](size_t k, const std::string &t) {
        return whole(t, 1, 1024, k == 0 ? &o.nx : k == 1 ? &o.ny : &o.nz);
    };
    add_values(app, "--size", 3, size, range(1, 1024), "volume size in voxels (default 32 32 16)")
        ->type_name("NX NY NZ");
    auto voxel = [&o](size_t, const std::string &t) { return real(t, 1e-3f, &o.voxel); };
    add_values(app, "--voxel", 1, voxel, at_least(1e-3f), "voxel size (isotropic)")
        ->type_name("MM")
        ->default_str("3");
    auto groups = [&o](size_t, const std::string &t) { return whole(t, 1, 26, &o.groups); };
    add_values(app, "--groups", 1, groups, range(1, 26), "number of groups")
        ->type_name("G")
        ->default_str("2");
    auto subjects = [&o](size_t, const std::string &t) {
        return whole(t, 1, simulate::converged_files, &o.subjects);
    };
    add_values(app, "--subjects", 1, subjects, range(1, simulate::converged_files),
               "subjects per group (at most 200 in all without --converged)")
        ->type_name("S")
        ->default_str("12");
    app.add_flag("--converged", o.converged,
                 "\"reml converged\" in the analysis file, which lifts the 200-file capacity "
                 "(up to 1000000 subjects in all)");
    auto threads = [&o](size_t, const std::string &t) { return whole(t, 1, 1024, &o.threads); };
    add_values(app, "--threads", 1, threads, range(1, 1024),
               "subjects written at once (default: one per core; the files are the same for "
               "any number)")
        ->type_name("T");
    auto seed = [&o](size_t, const std::string &t) {
        char *end = nullptr;
        o.seed = std::strtoull(t.c_str(), &end, 10);
        return end != t.c_str() && *end == '\0';
    };
    add_values(app, "--seed", 1, seed, "a whole number", "random seed")
        ->type_name("N")
        ->default_str("1");
    auto smoothing = [&o](size_t k, const std::string &t) {
        return real(t, 0.0f, k == 0 ? &o.prior_fwhm : &o.ratio_fwhm);
    };
    add_values(app, "--smoothing", 2, smoothing, at_least(0.0f),
               "smoothness of the subject maps and the smoothing of the variance ratio, mm "
               "(default 6 8)")
        ->type_name("P R");
    auto between = [&o](size_t, const std::string &t) { return real(t, 0.0f, &o.between); };
    add_values(app, "--between", 1, between, at_least(0.0f),
               "between-subject standard deviation (its mean over the volume)")
        ->type_name("SD")
        ->default_str("0.5");
    auto within = [&o](size_t, const std::string &t) { return real(t, 1e-6f, &o.within); };
    add_values(app, "--within", 1, within, at_least(1e-6f),
               "typical standard error of a subject's effect")
        ->type_name("SE")
        ->default_str("0.4");
    auto effect = [&o](size_t, const std::string &t) { return real(t, -1e6f, &o.effect); };
    add_values(app, "--effect", 1, effect, at_least(-1e6f), "peak group effect")
        ->type_name("A")
        ->default_str("1");
    auto dof = [&o](size_t, const std::string &t) { return whole(t, 1, 1000000, &o.dof); };
    add_values(app, "--dof", 1, dof, range(1, 1000000),
               "typical degrees of freedom of a subject's analysis")
        ->type_name("D")
        ->default_str("120");
    app.add_option("--prefix", o.prefix, "text put before each file name in the analysis file")
        ->type_name("P");
    app.add_flag("--null", o.null_study, "no group effects");
    app.add_flag(
        "--no-mask", [&o](int64_t) { o.mask = false; },
        "data everywhere (no zero voxels outside the brain)");
    app.add_flag("--uniform", o.uniform, "the same variances at every voxel");
    auto between_fwhm = [&o](size_t, const std::string &t) {
        return real(t, 0.0f, &o.between_fwhm);
    };
    add_values(app, "--between-fwhm", 1, between_fwhm, at_least(0.0f),
               "smoothness of the subjects' deviations from their group effect (default: the "
               "first --smoothing)")
        ->type_name("MM");
    auto spread = [&o](size_t, const std::string &t) { return real(t, 0.0f, &o.error_spread); };
    add_values(app, "--error-spread", 1, spread, at_least(0.0f),
               "each subject's standard error also varies over space, a smooth (20 mm) "
               "log-normal factor of spread S")
        ->type_name("S")
        ->default_str("0");
    app.footer(
        "The files are written into DIR.tmp-<pid> and moved into DIR when all are complete; "
        "into a DIR that exists they replace the files of the same names. The same options "
        "give the same files byte for byte.");
    if (const int status = parse_companion_command_line(app, argc, argv); status >= 0)
        return status;
    std::string error;
    if (!simulate::write_study(o, std::cout, &error)) {
        std::cerr << "Error: " << error << "\n";
        return 1;
    }
    return 0;
}
