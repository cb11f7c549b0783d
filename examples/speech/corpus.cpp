#include "corpus.h"

#include <fstream>
#include <string>
#include <string_view>
#include <utility>

#include "common/error.h"
#include "digits.h"

namespace speech {

namespace {

Utterance parse_line(std::string_view line, const std::filesystem::path& folder) {
    // As UTF-16 has them.
    if (line.find('\0') != std::string_view::npos) {
        throw common::Error("is not UTF-8 text");
    }
    const std::size_t tab = line.find('\t');
    if (tab == std::string_view::npos) {
        throw common::Error("no tab between the file and its transcript");
    }
    if (tab == 0) {
        throw common::Error("no file before the tab");
    }
    Utterance utterance;
    // Joining leaves an absolute path as it is.
    utterance.file = folder / line.substr(0, tab);
    utterance.labels = parse_transcript(line.substr(tab + 1));
    utterance.audio = probe_audio(utterance.file);
    return utterance;
}

}  // namespace

std::vector<Utterance> read_list(const std::filesystem::path& list) {
    std::ifstream in(list);
    if (!in || std::filesystem::is_directory(list)) {
        throw common::Error(list.string() + ": cannot be read");
    }
    std::vector<Utterance> utterances;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";
        if (number == 1 && line.compare(0, byte_order_mark.size(), byte_order_mark) == 0) {
            line.erase(0, byte_order_mark.size());
        }
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (line.find_first_not_of(" \t") == std::string::npos) {
            continue;
        }
        try {
            utterances.push_back(parse_line(line, list.parent_path()));
        } catch (const common::Error& error) {
            throw common::Error(list.string() + ":" + std::to_string(number) + ": " + error.what());
        }
    }
    if (utterances.empty()) {
        throw common::Error(list.string() + ": holds no utterance");
    }
    return utterances;
}

Corpus read_corpus(const std::filesystem::path& folder) {
    std::error_code ignored;
    if (!std::filesystem::is_directory(folder, ignored)) {
        throw common::Error(folder.string() + ": no such folder");
    }
    Corpus corpus;
    corpus.train = read_list(folder / "train.tsv");
    corpus.test = read_list(folder / "test.tsv");
    return corpus;
}

}  // namespace speech
