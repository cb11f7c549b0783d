#ifndef SPEECH_DIGITS_H_
#define SPEECH_DIGITS_H_

#include <string>
#include <string_view>
#include <vector>

namespace speech {

/// Class numbers of the output layer: 0 is the CTC blank, 1 to 10 are "zero" to "nine",
/// 11 is "oh".
constexpr int kBlank = 0;
constexpr int kClassCount = 12;

/// The class of a digit word, or kBlank when the word is not a digit.
int label_of_word(std::string_view word);

/// The word of a class, 0 <= label < kClassCount; the blank's is "-".
std::string_view word_of_label(int label);

/// The classes of a transcript: digit words separated by blanks. Throws Error on any other word
/// and on an empty transcript.
std::vector<int> parse_transcript(std::string_view text);

/// The words of `labels`, separated by single blanks.
std::string to_transcript(const std::vector<int>& labels);

/// The least number of frames on which CTC can align `labels`: one per label and one more for the
/// blank that must part each pair of equal neighbours.
int frames_needed(const std::vector<int>& labels);

}  // namespace speech

#endif  // SPEECH_DIGITS_H_
