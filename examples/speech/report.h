#ifndef SPEECH_REPORT_H_
#define SPEECH_REPORT_H_

#include <string>

#include "scoring.h"

namespace speech {

/// Like "digit error rate 2.35 % (10 substitutions, 2 insertions, 17 deletions in 1234 digits)".
std::string format_counts(const EditCounts& counts);

}  // namespace speech

#endif  // SPEECH_REPORT_H_
