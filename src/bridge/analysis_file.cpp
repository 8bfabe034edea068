// The analysis file that the import writes.
#include "import_model.h"

namespace bridge {

namespace {

// fmri-rem reads lines of up to 1023 characters, comments included.
std::string line(const std::string &text) {
    if (text.size() > 1022)
        throw failure("the analysis file line `" + text.substr(0, 40) +
                      "...' is longer than the 1023 characters fmri-rem reads; use shorter names");
    return text + "\n";
}

}  // namespace

std::string analysis_text(const analysis_settings &h, const study_model &m,
                          const std::vector<condition_text> &conditions,
                          const std::vector<std::string> &signals,
                          const std::vector<double> &weights) {
    std::string rem =
        "# Written by fmri-rem-import " + std::string(version()) + " from " + h.table + "\n";
    rem += "smoothing " + format_number(h.prior_smoothing, 9) + " " +
           format_number(h.ratio_smoothing, 9) + "\n";
    rem += "conditions";
    for (const condition_text &c : conditions) rem += " " + c.events;
    rem += "\nmultiple-comparisons " + std::to_string(h.multiple_comparisons) + "\n";
    rem += std::string("reml ") + (h.converged ? "converged" : "classic") + "\n";
    // degrees of freedom of the smoothed ratio from the data's own smoothness
    rem += std::string("smoothness ") + (h.smoothness_estimated ? "estimated" : "stated") + "\n";
    for (const model_column &c : m.columns)
        rem += line("# event " + std::string(1, c.event) + " = " + c.name);
    for (const condition_text &c : conditions)
        if (!c.names.empty()) rem += line("# condition " + c.events + " = " + c.names);
    for (const std::string &note : m.notes)
        rem += line("# " + (note.size() > 1000 ? note.substr(0, 1000) + "..." : note));
    if (!m.design) {
        for (const model_column &c : m.columns) {
            rem += line("event " + std::string(1, c.event) + "  # " + c.name);
            for (size_t u = 0; u < signals.size(); ++u) {
                if (c.values[u] != 1.0) continue;
                rem +=
                    line(signals[u] + (weights.empty() ? "" : " " + format_number(weights[u], 9)));
            }
        }
        return rem;
    }
    rem += "design";
    for (const model_column &c : m.columns) rem += " " + std::string(1, c.event);
    rem += "\nmeasurements\n";
    for (size_t u = 0; u < signals.size(); ++u) {
        std::string values = signals[u];
        for (const model_column &c : m.columns) values += " " + format_number(c.values[u], 9);
        rem += line(values);
    }
    return rem;
}

}  // namespace bridge
