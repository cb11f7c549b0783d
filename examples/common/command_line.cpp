#include "common/command_line.h"

#include <algorithm>
#include <cctype>
#include <exception>
#include <iostream>

namespace common {

namespace {

constexpr int kBadInput = 2;

/// Reports a failure in one line. The text may quote a file: line breaks and escape sequences in
/// it must not reach the terminal.
int fail(const CLI::App& app, std::string text) {
    const auto control = [](unsigned char c) { return std::iscntrl(c) != 0; };
    std::replace_if(text.begin(), text.end(), control, '?');
    std::cerr << app.get_name() << ": " << text << '\n';
    return kBadInput;
}

/// The status, or that of a failure where standard output, full say, did not take everything.
int flushed(const CLI::App& app, int status) {
    return std::cout.flush() ? status : fail(app, "standard output: cannot be written");
}

}  // namespace

const CLI::Validator kNotEmpty(
    [](const std::string& given) { return std::string(given.empty() ? "must not be empty" : ""); },
    "");

void add_device(CLI::App* command, std::string* device) {
    command->add_option("--device", *device, "Where the network computes: cpu or gpu")
        ->check(CLI::IsMember({"cpu", "gpu"}))
        ->capture_default_str();
}

void add_seed(CLI::App* command, std::uint64_t* seed) {
    add_number(command, "--seed", seed, "Start of the random numbers",
               in_range<std::uint64_t>(0, std::numeric_limits<std::uint64_t>::max()));
}

int run_program(CLI::App* app, int argc, char** argv, const std::function<int()>& run) {
    // At least one is required below: CLI11 would ask for it before it names a wrong one.
    app->require_subcommand(0, 1);
    try {
        app->parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // Help is raised as an error of status 0.
        return error.get_exit_code() == 0 ? flushed(*app, app->exit(error))
                                          : fail(*app, error.what());
    }
    if (app->get_subcommands().empty()) {
        return fail(*app, "A subcommand is required");
    }
    try {
        return flushed(*app, run());
    } catch (const std::exception& error) {
        return fail(*app, error.what());
    }
}

}  // namespace common
