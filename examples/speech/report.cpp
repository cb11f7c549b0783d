#include "report.h"

#include "common/format.h"

namespace speech {

std::string format_counts(const EditCounts& counts) {
    return "digit error rate " + common::format_percent(counts.rate()) + " (" +
           std::to_string(counts.substitutions) + " substitutions, " +
           std::to_string(counts.insertions) + " insertions, " + std::to_string(counts.deletions) +
           " deletions in " + std::to_string(counts.reference) + " digits)";
}

}  // namespace speech
