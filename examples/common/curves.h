#ifndef COMMON_CURVES_H_
#define COMMON_CURVES_H_

#include <iosfwd>
#include <string>
#include <vector>

namespace common {

/// How training stood after an epoch.
struct EpochPoint {
    int epoch;          ///< from 1
    double loss;        ///< mean training loss
    double error_rate;  ///< on the test set, 1 = all wrong
};

/// Writes, as a part of a gnuplot script, the plot of the training loss and of the test set's error
/// rate by epoch, with its data, in the upper half of the picture. `rate` names the error rate.
void write_curves(std::ostream& out, const std::string& title, const std::string& rate,
                  const std::vector<EpochPoint>& epochs);

}  // namespace common

#endif  // COMMON_CURVES_H_
