#ifndef COMMON_PROGRESS_H_
#define COMMON_PROGRESS_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>

namespace common {

/// A moment of a training run.
struct ProgressState {
    int epoch = 1;  ///< from 1
    int epochs = 1;
    std::int64_t done = 0;   ///< of this epoch
    std::int64_t total = 1;  ///< of an epoch
    std::string unit;        ///< of both, in the plural
    double loss = 0;
    double per_second = 0;
    double seconds_left = 0;  ///< of the whole run
};

/// One line: epoch, bar, percentage, loss, speed, time left; at most `width` columns,
/// the bar giving way first.
std::string progress_line(const ProgressState& state, int width);

/// Reports a training run. On a terminal one line is redrawn in place; elsewhere (a log file)
/// a plain line appears at most every ten seconds.
class Progress {
public:
    using Clock = std::chrono::steady_clock;

    /// Reports to standard error, in the form that fits it.
    Progress(int epochs, std::int64_t per_epoch, const std::string& unit);
    Progress(int epochs, std::int64_t per_epoch, std::string unit, std::ostream* out, bool terminal,
             int width, std::function<Clock::time_point()> now = Clock::now);

    /// A terminal line that was left half-drawn, by an exception say, is ended.
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// So many of epoch `epoch` (from 1) are done, at the given mean loss.
    void update(int epoch, std::int64_t done, double loss);

    /// Puts a line that stays, such as the summary of an epoch, in place of the one that is
    /// redrawn.
    void end_line(const std::string& text);

private:
    int _epochs;
    std::int64_t _per_epoch;
    std::string _unit;
    std::ostream* _out;
    bool _terminal;
    int _width;
    bool _line_open = false;
    std::function<Clock::time_point()> _now;
    Clock::time_point _start = _now();
    Clock::time_point _last_drawn = _start;
};

}  // namespace common

#endif  // COMMON_PROGRESS_H_
