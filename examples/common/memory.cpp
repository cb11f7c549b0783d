#include "common/memory.h"

#include <unistd.h>

#include <iomanip>
#include <sstream>

#include "common/error.h"

namespace common {

double physical_memory() {
    return static_cast<double>(sysconf(_SC_PHYS_PAGES)) *
           static_cast<double>(sysconf(_SC_PAGESIZE));
}

void check_memory(std::int64_t parameters) {
    // A parameter, its gradient, three values of Adam's; and the best model is read back at last.
    constexpr int values = 2 + 3 + 2;
    const double needed = sizeof(float) * values * static_cast<double>(parameters);
    const double there = physical_memory();
    if (needed > there) {
        std::ostringstream text;
        text << std::fixed << std::setprecision(1) << "training this network takes "
             << needed / (1 << 30) << " GiB and more, and there are " << there / (1 << 30)
             << "; try a lower --hidden or --layers";
        throw Error(text.str());
    }
}

}  // namespace common
