#ifndef COMMON_COMMAND_LINE_H_
#define COMMON_COMMAND_LINE_H_

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdint>
#include <functional>
#include <limits>
#include <sstream>
#include <string>
#include <system_error>

namespace common {

/// Unlike CLI::Range, lets no NaN pass, nor a number that wraps.
template <typename T>
CLI::Validator in_range(T least, T most) {
    std::ostringstream range;
    range << least << " to " << most;
    const auto check = [least, most, text = range.str()](const std::string& given) {
        T value{};
        const char* end = given.data() + given.size();
        const auto [stop, error] = std::from_chars(given.data(), end, value);
        const bool good = error == std::errc() && stop == end && value >= least && value <= most;
        return good ? "" : "Value " + given + " not in range " + text;
    };
    return CLI::Validator(check, range.str());
}

extern const CLI::Validator kNotEmpty;

/// An option with a number in a range, whose value at the call is its default.
template <typename T>
void add_number(CLI::App* command, const char* name, T* value, const char* help,
                const CLI::Validator& range) {
    command->add_option(name, *value, help)->check(range)->capture_default_str();
}

/// --device, cpu or gpu.
void add_device(CLI::App* command, std::string* device);

/// --seed.
void add_seed(CLI::App* command, std::uint64_t* seed);

/// Parses the command line and calls what the chosen subcommand's callback put into `run`, which
/// returns the exit status. A failure, of standard output too, is reported as one line on standard
/// error that starts with the program's name, and gives status 2.
int run_program(CLI::App* app, int argc, char** argv, const std::function<int()>& run);

}  // namespace common

#endif  // COMMON_COMMAND_LINE_H_
