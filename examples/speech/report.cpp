#include "report.h"

#include <cstdio>

namespace speech {

std::string format_percent(double share) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f %%", 100 * share);
    return text;
}

std::string format_counts(const EditCounts& counts) {
    return "digit error rate " + format_percent(counts.rate()) + " (" +
           std::to_string(counts.substitutions) + " substitutions, " +
           std::to_string(counts.insertions) + " insertions, " + std::to_string(counts.deletions) +
           " deletions in " + std::to_string(counts.reference) + " digits)";
}

}  // namespace speech
