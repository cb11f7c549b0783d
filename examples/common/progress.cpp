#include "common/progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <utility>

#include "common/format.h"

namespace common {

namespace {

constexpr double kRedrawSeconds = 0.1;
constexpr double kPlainSeconds = 10;

int terminal_width() {
    winsize size{};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        return size.ws_col;
    }
    return 80;
}

template <typename... Args>
std::string format(const char* pattern, Args... args) {
    char text[128];
    std::snprintf(text, sizeof text, pattern, args...);
    return text;
}

std::string format_rate(double per_second, const std::string& unit) {
    const bool thousands = per_second >= 10000;
    return format("%.0f", thousands ? per_second / 1000 : per_second) + (thousands ? "k " : " ") +
           unit + "/s";
}

double seconds_between(std::chrono::steady_clock::time_point from,
                       std::chrono::steady_clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

}  // namespace

std::string progress_line(const ProgressState& state, int width) {
    const double share = std::clamp(
        static_cast<double>(state.done) / std::max<std::int64_t>(state.total, 1), 0.0, 1.0);
    const std::string head = format("epoch %d/%d ", state.epoch, state.epochs);
    const std::string tail = format(" %3.0f%%  loss %.3f  ", std::floor(100 * share), state.loss) +
                             format_rate(state.per_second, state.unit) + "  " +
                             format_duration(state.seconds_left) + " left";

    std::string bar;
    const int room = std::min(30, width - static_cast<int>(head.size() + tail.size()) - 2);
    if (room >= 4) {
        const int filled = static_cast<int>(std::floor(share * room));
        bar = std::string(filled, '=');
        if (filled < room) {
            bar += '>';
        }
        bar.resize(room, ' ');
        bar = '[' + bar + ']';
    }
    return (head + bar + tail).substr(0, std::max(width, 0));
}

Progress::Progress(int epochs, std::int64_t per_epoch, const std::string& unit)
    : Progress(epochs, per_epoch, unit, &std::cerr, isatty(STDERR_FILENO) == 1,
               terminal_width() - 1) {}

Progress::Progress(int epochs, std::int64_t per_epoch, std::string unit, std::ostream* out,
                   bool terminal, int width, std::function<Clock::time_point()> now)
    : _epochs(epochs),
      _per_epoch(per_epoch),
      _unit(std::move(unit)),
      _out(out),
      _terminal(terminal),
      _width(width),
      _now(std::move(now)) {}

Progress::~Progress() {
    if (_line_open) {
        *_out << '\n' << std::flush;
    }
}

void Progress::update(int epoch, std::int64_t done, double loss) {
    const Clock::time_point now = _now();
    if (seconds_between(_last_drawn, now) < (_terminal ? kRedrawSeconds : kPlainSeconds)) {
        return;
    }
    _last_drawn = now;

    const double elapsed = seconds_between(_start, now);
    const double done_in_all = static_cast<double>(epoch - 1) * static_cast<double>(_per_epoch) +
                               static_cast<double>(done);
    const double all = static_cast<double>(_epochs) * static_cast<double>(_per_epoch);
    ProgressState state;
    state.epoch = epoch;
    state.epochs = _epochs;
    state.done = done;
    state.total = _per_epoch;
    state.unit = _unit;
    state.loss = loss;
    state.per_second = elapsed > 0 ? done_in_all / elapsed : 0;
    state.seconds_left = (all - done_in_all) / state.per_second;

    if (_terminal) {
        // Erasing to the end of the line clears what a longer line left there.
        *_out << '\r' << progress_line(state, _width) << "\x1b[K" << std::flush;
        _line_open = true;
    } else {
        *_out << progress_line(state, _width) << '\n' << std::flush;
    }
}

void Progress::end_line(const std::string& text) {
    if (_line_open) {
        *_out << "\r\x1b[K";
        _line_open = false;
    }
    *_out << text << '\n' << std::flush;
}

}  // namespace common
