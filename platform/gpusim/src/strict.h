#ifndef GPUSIM_DETAIL_STRICT_H_
#define GPUSIM_DETAIL_STRICT_H_

// Checks that cost time or change how the process dies: those of a run with GPUSIM_STRICT=1.

namespace gpusim {

bool strict();

/// In a strict run, an access that kills the process is reported with its kernel first.
void report_illegal_accesses();

}  // namespace gpusim

#endif  // GPUSIM_DETAIL_STRICT_H_
