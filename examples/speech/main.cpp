#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <exception>
#include <iostream>
#include <string>

#include "commands.h"
#include "error.h"

namespace {

constexpr int kBadInput = 2;

/// Reports a failure in one line. The text may quote a file: line breaks and escape sequences in
/// it must not reach the terminal.
int fail(std::string text) {
    const auto control = [](unsigned char c) { return std::iscntrl(c) != 0; };
    std::replace_if(text.begin(), text.end(), control, '?');
    std::cerr << "vorn_speech: " << text << '\n';
    return kBadInput;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Learns to read spoken digits: log mel features, LSTM layers, CTC.");
    app.name("vorn_speech");
    app.require_subcommand(1);

    speech::CorpusOptions corpus;
    CLI::App* corpus_command =
        app.add_subcommand("corpus", "Validate a corpus and print a summary of it");
    corpus_command->add_option("--corpus", corpus.corpus, "Folder with train.tsv and test.tsv")
        ->required();

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // Help is raised as an error of status 0.
        return error.get_exit_code() == 0 ? app.exit(error) : fail(error.what());
    }

    try {
        return speech::run_corpus(corpus);
    } catch (const std::exception& error) {
        return fail(error.what());
    }
}
