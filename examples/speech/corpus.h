#ifndef SPEECH_CORPUS_H_
#define SPEECH_CORPUS_H_

#include <filesystem>
#include <vector>

#include "audio.h"

namespace speech {

/// One line of a list: a sound file and what is said in it.
struct Utterance {
    std::filesystem::path file;
    std::vector<int> labels;  ///< see digits.h
    AudioInfo audio;
};

/// A corpus is a folder with two lists, `train.tsv` and `test.tsv`.
struct Corpus {
    std::vector<Utterance> train;
    std::vector<Utterance> test;
};

/// Reads a list. Each line is the path of a sound file, absolute or relative to the list's folder,
/// a tab, and the digit words of the transcript. Blank lines are skipped; line ends and the
/// byte order mark may be those of Windows. The header of every sound file is read. Throws Error,
/// with the list and the line, at the first thing that is wrong, and when there is no utterance.
std::vector<Utterance> read_list(const std::filesystem::path& list);

/// Reads both lists of the folder. Throws Error as read_list() does.
Corpus read_corpus(const std::filesystem::path& folder);

}  // namespace speech

#endif  // SPEECH_CORPUS_H_
