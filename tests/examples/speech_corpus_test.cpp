#include <gtest/gtest.h>

#include "speech/corpus.h"
#include "speech/digits.h"
#include "speech/error.h"
#include "speech_test_files.h"

namespace {

const std::string kSecond = wav<std::int16_t>(16000, 1, std::vector<std::int16_t>(16000, 100));

TEST(SpeechCorpus, ReadsLists) {
    const TemporaryFolder folder;
    const auto a = folder.write("a.wav", kSecond);
    folder.write("b c.wav", kSecond);
    const auto list = folder.write(
        "train.tsv", "a.wav\tzero  oh nine \r\n\r\n \n" + a.string() + "\tone\nb c.wav\tten\n");
    EXPECT_EQ(message_of<speech::Error>([&] { speech::read_list(list); }),
              list.string() + ":5: 'ten' is not a digit (zero to nine, oh)");

    folder.write("train.tsv",
                 "a.wav\tzero  oh nine \r\n\r\n \n" + a.string() + "\tone\nb c.wav\ttwo");
    const auto utterances = speech::read_list(list);
    ASSERT_EQ(utterances.size(), 3u);
    EXPECT_EQ(utterances[0].labels, (std::vector<int>{1, 11, 10}));
    EXPECT_EQ(speech::to_transcript(utterances[0].labels), "zero oh nine");
    EXPECT_EQ(utterances[1].file, a);
    EXPECT_EQ(utterances[2].file, folder / "b c.wav");
    EXPECT_EQ(utterances[2].audio.samples, 16000);
}

TEST(SpeechCorpus, SaysWhatIsWrongWithAList) {
    const TemporaryFolder folder;
    folder.write("a.wav", kSecond);
    folder.write("none.wav", wav<std::int16_t>(16000, 1, {}));
    const std::string list = (folder / "list.tsv").string();
    struct {
        std::string contents, message;
    } cases[] = {
        {"", ": holds no utterance"},
        {"\n\r\n", ": holds no utterance"},
        {"a.wav\tone\na.wav one\n", ":2: no tab between the file and its transcript"},
        {"\tone\n", ":1: no file before the tab"},
        {"a.wav\t\n", ":1: the transcript is empty"},
        {"a.wav\t  \r\n", ":1: the transcript is empty"},
        {"a.wav\tOne\n", ":1: 'One' is not a digit (zero to nine, oh)"},
        {"a.wav\tone -\n", ":1: '-' is not a digit (zero to nine, oh)"},
        {"\n\nb.wav\tone\n", ":3: " + (folder / "b.wav").string() + ": no such file"},
        {"none.wav\tone\n", ":1: " + (folder / "none.wav").string() + ": holds no samples"},
    };
    for (const auto& c : cases) {
        folder.write("list.tsv", c.contents);
        EXPECT_EQ(message_of<speech::Error>([&] { speech::read_list(list); }), list + c.message);
    }
}

TEST(SpeechProgram, SummarisesACorpusAndRefusesBadOnes) {
    const TemporaryFolder folder;
    const std::string program = VORN_SPEECH_PROGRAM;
    const std::string corpus = program + " corpus --corpus " + folder.path().string();
    folder.write("a.wav", kSecond);
    folder.write("b.wav", wav<std::int16_t>(8000, 1, std::vector<std::int16_t>(880, 9)));
    struct {
        std::string command, message;
    } refused[] = {
        {program, "A subcommand is required"},
        {program + " corpus", "--corpus is required"},
        {program + " corpus --corpus /nowhere", "/nowhere: no such folder"},
        {corpus, (folder / "train.tsv").string() + ": cannot be read"},
        {corpus + " --fast", "The following argument was not expected: --fast"},
    };
    for (const auto& c : refused) {
        const Outcome outcome = run(folder, c.command);
        EXPECT_EQ(outcome.status, 2);
        EXPECT_EQ(outcome.err, "vorn_speech: " + c.message + "\n");
        EXPECT_EQ(outcome.out, "");
    }
    EXPECT_EQ(run(folder, program + " --help").status, 0);

    // 0.11 s make 9 analysis frames, 3 rows; "two two" takes three of them, "two two one" four.
    folder.write("train.tsv", "a.wav\tone two three\nb.wav\ttwo two\nb.wav\ttwo two one\n");
    folder.write("test.tsv", "./a.wav\tone\n");
    const Outcome outcome = run(folder, corpus);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out,
              "train: 3 utterances, 8 digits, 0.00 hours; longest 1.0 s (a.wav)\n"
              "test: 1 utterances, 1 digits, 0.00 hours; longest 1.0 s (a.wav)\n");
    EXPECT_EQ(outcome.err, "warning: " + (folder / "b.wav").string() +
                               ": 3 frames cannot carry 3 digits, which need 4\nwarning: " +
                               (folder / "./a.wav").string() + ": is in both lists\n");
}

TEST(SpeechProgram, MakesACorpusThatRepeats) {
    const TemporaryFolder folder;
    const std::string script = VORN_MAKE_CORPUS;
    const Outcome made = run(folder, script + " --train 3 --test 2 " + (folder / "a").string());
    if (made.err.find(" is missing ") != std::string::npos) {
        GTEST_SKIP() << made.err;
    }
    ASSERT_EQ(made.status, 0) << made.err;
    ASSERT_EQ(run(folder, script + " --train 4 --test 2 " + (folder / "b").string()).status, 0);
    ASSERT_EQ(
        run(folder, script + " --seed 2 " + (folder / "c").string() + " --train 3 --test 2").status,
        0);
    const speech::Corpus corpus = speech::read_corpus(folder / "a");
    ASSERT_EQ(corpus.train.size(), 3u);
    ASSERT_EQ(corpus.test.size(), 2u);
    for (const auto& utterance : corpus.train) {
        EXPECT_EQ(utterance.audio.rate, 16000);
        EXPECT_GE(utterance.labels.size(), 3u);
        EXPECT_LE(utterance.labels.size(), 7u);
        EXPECT_GT(utterance.audio.seconds(), 0.15 * static_cast<double>(utterance.labels.size()));
        const auto name = utterance.file.filename();
        const std::string sound = read_file(utterance.file);
        EXPECT_EQ(sound, read_file(folder / "b" / "train" / name));
        EXPECT_NE(sound, read_file(folder / "c" / "train" / name));
    }
    EXPECT_EQ(read_file(folder / "a" / "test.tsv"), read_file(folder / "b" / "test.tsv"));
}

}  // namespace
