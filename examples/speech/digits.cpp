#include "digits.h"

#include <array>
#include <cstddef>

#include "common/error.h"

namespace speech {

namespace {

constexpr std::array<std::string_view, kClassCount> kWords = {
    "-", "zero", "one", "two", "three", "four", "five", "six", "seven", "eight", "nine", "oh"};

}  // namespace

int label_of_word(std::string_view word) {
    for (int label = kBlank + 1; label < kClassCount; ++label) {
        if (kWords[label] == word) {
            return label;
        }
    }
    return kBlank;
}

std::string_view word_of_label(int label) {
    return kWords.at(label);
}

std::vector<int> parse_transcript(std::string_view text) {
    std::vector<int> labels;
    std::size_t begin = text.find_first_not_of(' ');
    while (begin != std::string_view::npos) {
        const std::size_t end = text.find(' ', begin);
        const std::string_view word = text.substr(begin, end - begin);
        const int label = label_of_word(word);
        if (label == kBlank) {
            throw common::Error("'" + std::string(word) + "' is not a digit (zero to nine, oh)");
        }
        labels.push_back(label);
        begin = text.find_first_not_of(' ', end);
    }
    if (labels.empty()) {
        throw common::Error("the transcript is empty");
    }
    return labels;
}

std::string to_transcript(const std::vector<int>& labels) {
    std::string text;
    for (int label : labels) {
        if (!text.empty()) {
            text += ' ';
        }
        text += word_of_label(label);
    }
    return text;
}

int frames_needed(const std::vector<int>& labels) {
    int frames = static_cast<int>(labels.size());
    for (std::size_t i = 1; i < labels.size(); ++i) {
        frames += labels[i] == labels[i - 1];
    }
    return frames;
}

}  // namespace speech
