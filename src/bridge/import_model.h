// The import's model: which table rows make one signal file (one row, or the
// two sessions of a participant), the columns of the design with their
// event characters and names, the conditions written in event characters,
// and the text of the analysis file.
#ifndef FMRI_REM_IMPORT_MODEL_H
#define FMRI_REM_IMPORT_MODEL_H

#include <string>
#include <utility>
#include <vector>

#include "bridge_internal.h"

namespace bridge {

// One signal file: one table row, or (--paired) the rows of the two sessions
// of one participant, the first minus the second.
struct signal_unit {
    std::vector<size_t> rows;  // indices into the table's rows
    std::string id;            // participant_id ("" when the table has none)
};

// Every row its own signal file.
std::vector<signal_unit> single_rows(const table &t);

// --paired "post-pre": the rows of each participant with session `post` and
// `pre`, in order of the participant's first row.  Participants without both
// sessions are named in *incomplete; rows of other sessions are counted in
// *other_rows.  first/second receive the two session values.
struct pairing {
    std::string first, second;
    std::vector<std::string> incomplete;
    size_t other_rows = 0;
};
std::vector<signal_unit> pair_rows(const table &t, const std::string &levels, pairing *p);

// One column of the design: its event character, its name and one value per
// signal unit.
struct model_column {
    char event = 0;
    std::string name;
    std::vector<double> values;
};

struct model_options {
    std::vector<std::string> covariates;  // --covariates
    std::vector<std::string> by_group;    // --by-group
    std::string design_matrix;            // --design-matrix (a .tsv), "" for none
    bool centre = true;
};

struct study_model {
    // False: groups alone, written as event lines (each unit in the group of
    // its column holding 1); true: a design written value by value.
    bool design = false;
    std::vector<model_column> columns;
    // Names the conditions may use besides the columns' names ("all" for a
    // single group), with their event characters.
    std::vector<std::pair<std::string, char>> aliases;
    std::vector<std::string> notes;  // lines printed about centring and levels
};

// The groups (a table without `group`, or with one value, is one group that
// answers to "all"), covariates, per-group slopes or a design matrix of the
// user's.  Throws a failure on unknown columns, missing or non-numeric values,
// constant covariates, unmatched design-matrix rows and a rank-deficient
// design (naming the columns).
study_model build_model(const table &t, const std::vector<signal_unit> &units,
                        const model_options &o);

// "patients -> p, controls -> c, age -> a".
std::string describe_model(const study_model &m);

// One condition as the analysis file holds it (event characters), and the
// text the user gave when it used names ("" when it is written as given).
struct condition_text {
    std::string events;
    std::string names;
};

// The conditions of --conditions: names of the model's columns or event
// characters, joined by + and -, an optional number and * before each, "," to
// separate the rows of an F test.  Throws on anything that is not in the
// model.
std::vector<condition_text> translate_conditions(const std::string &text, const study_model &m);

// Everything the analysis file needs besides the model.
struct analysis_settings {
    std::string table;
    double prior_smoothing = 0, ratio_smoothing = 0;
    int multiple_comparisons = 0;
    bool converged = true;
    bool smoothness_estimated = true;
};

// The analysis file: groups alone as event lines (with a weight per file when
// `weights` is not empty), any other design under `design` and
// `measurements`; the names as "# event" and "# condition" comment lines.
std::string analysis_text(const analysis_settings &h, const study_model &m,
                          const std::vector<condition_text> &conditions,
                          const std::vector<std::string> &signals,
                          const std::vector<double> &weights);

// Shared by the model's files.
bool parse_number(const std::string &s, double *v);
std::string format_number(double v, int digits);  // %.<digits>g

}  // namespace bridge

#endif
