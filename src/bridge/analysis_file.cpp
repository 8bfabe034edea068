// The analysis file that the import writes.
#include "import_model.h"

namespace bridge {

std::string analysis_text(const analysis_header &h, const study_model &m,
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
    for (const model_column &c : m.columns)
        rem += "# event " + std::string(1, c.event) + " = " + c.name + "\n";
    for (const condition_text &c : conditions)
        if (!c.names.empty()) rem += "# condition " + c.events + " = " + c.names + "\n";
    for (const std::string &note : m.notes) rem += "# " + note + "\n";
    if (!m.design) {
        for (const model_column &c : m.columns) {
            rem += "event " + std::string(1, c.event) + "  # " + c.name + "\n";
            for (size_t u = 0; u < signals.size(); ++u) {
                if (c.values[u] != 1.0) continue;
                rem += signals[u];
                if (!weights.empty()) rem += " " + format_number(weights[u], 9);
                rem += "\n";
            }
        }
        return rem;
    }
    rem += "design";
    for (const model_column &c : m.columns) rem += " " + std::string(1, c.event);
    rem += "\nmeasurements\n";
    for (size_t u = 0; u < signals.size(); ++u) {
        rem += signals[u];
        for (const model_column &c : m.columns) rem += " " + format_number(c.values[u], 9);
        rem += "\n";
    }
    return rem;
}

}  // namespace bridge
