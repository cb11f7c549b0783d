#include "progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iostream>

namespace speech {

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

std::string format_rate(double frames_per_second) {
    if (frames_per_second >= 10000) {
        return format("%.0fk frames/s", frames_per_second / 1000);
    }
    return format("%.0f frames/s", frames_per_second);
}

double seconds_between(std::chrono::steady_clock::time_point from,
                       std::chrono::steady_clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

}  // namespace

std::string format_duration(double seconds) {
    if (!std::isfinite(seconds) || seconds >= 1e8) {
        return "-";
    }
    const long whole = std::lround(std::max(seconds, 0.0));
    if (whole < 60) {
        return format("%ld s", whole);
    }
    if (whole < 3600) {
        return format("%ld min %02ld s", whole / 60, whole % 60);
    }
    return format("%ld h %02ld min", whole / 3600, whole / 60 % 60);
}

std::string progress_line(const ProgressState& state, int width) {
    const double share = std::clamp(
        static_cast<double>(state.done) / std::max<std::int64_t>(state.total, 1), 0.0, 1.0);
    const std::string head = format("epoch %d/%d ", state.epoch, state.epochs);
    const std::string tail = format(" %3.0f%%  loss %.3f  ", std::floor(100 * share), state.loss) +
                             format_rate(state.frames_per_second) + "  " +
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

Progress::Progress(int epochs, std::int64_t frames_per_epoch)
    : Progress(epochs, frames_per_epoch, &std::cerr, isatty(STDERR_FILENO) == 1,
               terminal_width() - 1) {}

Progress::Progress(int epochs, std::int64_t frames_per_epoch, std::ostream* out, bool terminal,
                   int width)
    : _epochs(epochs),
      _frames_per_epoch(frames_per_epoch),
      _out(out),
      _terminal(terminal),
      _width(width) {}

Progress::~Progress() {
    if (_line_open) {
        *_out << '\n' << std::flush;
    }
}

void Progress::update(int epoch, std::int64_t done, double loss) {
    const Clock::time_point now = Clock::now();
    if (seconds_between(_last_drawn, now) < (_terminal ? kRedrawSeconds : kPlainSeconds)) {
        return;
    }
    _last_drawn = now;

    const double elapsed = seconds_between(_start, now);
    const double frames = static_cast<double>(epoch - 1) * static_cast<double>(_frames_per_epoch) +
                          static_cast<double>(done);
    const double all = static_cast<double>(_epochs) * static_cast<double>(_frames_per_epoch);
    ProgressState state;
    state.epoch = epoch;
    state.epochs = _epochs;
    state.done = done;
    state.total = _frames_per_epoch;
    state.loss = loss;
    state.frames_per_second = elapsed > 0 ? frames / elapsed : 0;
    state.seconds_left = (all - frames) / state.frames_per_second;

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

}  // namespace speech
