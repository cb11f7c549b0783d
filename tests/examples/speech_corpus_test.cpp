#include <gtest/gtest.h>

#include <cmath>

#include "speech/audio.h"
#include "speech/corpus.h"
#include "speech/digits.h"
#include "speech_test_files.h"

namespace {

std::vector<float> tone(double frequency, int rate, int count) {
    std::vector<float> samples(count);
    for (int t = 0; t < count; ++t) {
        samples[t] = static_cast<float>(0.5 * std::sin(2 * M_PI * frequency * t / rate));
    }
    return samples;
}

TEST(SpeechAudio, ResamplesTones) {
    const TemporaryFolder folder;
    struct {
        int from, to;
        double frequency;
        bool passes;  // below half of both rates
    } cases[] = {{44100, 16000, 1000, true},   {8000, 16000, 1000, true},
                 {22050, 16000, 6000, true},   {48000, 16000, 300, true},
                 {44100, 16000, 10000, false}, {16000, 16000, 1000, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.from) + " Hz, tone of " + std::to_string(c.frequency));
        // Longer than one block of the reader.
        const auto file =
            folder.write("t.wav", wav(c.from, 1, tone(c.frequency, c.from, 2 * c.from)));
        const auto result = speech::read_audio(file, c.to);
        const auto expected = tone(c.passes ? c.frequency : 0, c.to, 2 * c.to);
        ASSERT_EQ(result.size(), expected.size());
        // Near the ends the filter sees the silence outside.
        for (std::size_t t = 500; t + 500 < result.size(); ++t) {
            ASSERT_NEAR(result[t], expected[t], 1e-3) << t;
        }
    }
}

TEST(SpeechAudio, ReadsAndMixes) {
    const TemporaryFolder folder;
    const auto stereo = folder.write(
        "stereo.wav", wav<std::int16_t>(16000, 2, {16384, -8192, 0, 32767, -32768, -32768}));
    EXPECT_EQ(speech::probe_audio(stereo).samples, 3);
    EXPECT_EQ(speech::read_audio(stereo, 16000),
              (std::vector<float>{0.125f, 32767 / 65536.0f, -1.0f}));

    // The header of a streamed file can only guess its length; any other tells of a file cut off.
    const std::string warning = "warning: " + (folder / "cut.wav").string() +
                                ": is cut off: 4 bytes of sound of the 8 in its header\n";
    for (const bool streamed : {false, true}) {
        std::string cut = wav<std::int16_t>(16000, 1, {16384, -16384});
        cut.replace(40, 4, streamed ? "\x00\xf0\xff\x7f" : "\x08\0\0\0", 4);
        testing::internal::CaptureStderr();
        EXPECT_EQ(speech::read_audio(folder.write("cut.wav", cut), 16000),
                  (std::vector<float>{0.5f, -0.5f}));
        EXPECT_EQ(testing::internal::GetCapturedStderr(), streamed ? "" : warning);
    }
}

TEST(SpeechAudio, RefusesWhatIsNoSound) {
    const TemporaryFolder folder;
    const std::string whole = wav<std::int16_t>(16000, 1, {5, 5});
    const std::string unreadable = ": not a readable sound file (";  // and libsndfile's reason
    struct {
        std::string contents, message;
    } cases[] = {
        {"", unreadable},
        {"three four", unreadable},
        {whole.substr(0, 30), unreadable},
        {whole.substr(0, 44), ": holds no samples"},
        {wav<float>(16000, 1, {0, NAN, 0}), ": holds a sample that is not finite"},
        {wav<float>(16000, 1, {INFINITY}), ": holds a sample that is not finite"},
        {wav<std::int16_t>(20, 1, {1, 2}), ": cannot resample from 20 to 16000 Hz"},
    };
    const auto expect_refused = [](const std::filesystem::path& file, const std::string& why) {
        const std::string message = message_of([&] { speech::read_audio(file, 16000); });
        EXPECT_EQ(message.find(file.string() + why), 0u) << message;
        EXPECT_EQ(message.find('\n'), std::string::npos);
    };
    for (const auto& c : cases) {
        expect_refused(folder.write("sound.wav", c.contents), c.message);
    }
    expect_refused(folder / "missing.wav", ": no such file");
    expect_refused(folder.path(), ": is not a regular file");
}

const std::string kSecond = wav<std::int16_t>(16000, 1, std::vector<std::int16_t>(16000, 100));

TEST(SpeechCorpus, ReadsListsAndSaysWhatIsWrongWithThem) {
    const TemporaryFolder folder;
    const auto a = folder.write("a.wav", kSecond);
    folder.write("b c.wav", kSecond);
    folder.write("none.wav", wav<std::int16_t>(16000, 1, {}));
    const std::string good =
        "\xEF\xBB\xBF"
        "a.wav\tzero  oh nine \r\n\r\n \n" +
        a.string() + "\tone\nb c.wav\ttwo";
    const auto list = folder.write("list.tsv", good);
    const auto utterances = speech::read_list(list);
    ASSERT_EQ(utterances.size(), 3u);
    EXPECT_EQ(utterances[0].labels, (std::vector<int>{1, 11, 10}));
    EXPECT_EQ(speech::to_transcript(utterances[0].labels), "zero oh nine");
    EXPECT_EQ(utterances[1].file, a);
    EXPECT_EQ(utterances[2].file, folder / "b c.wav");
    EXPECT_EQ(utterances[2].audio.samples, 16000);

    struct {
        std::string contents, message;
    } cases[] = {
        {"\n\r\n", ": holds no utterance"},
        {good + "\n\tone\n", ":6: no file before the tab"},
        {"a.wav\tone\na.wav one\n", ":2: no tab between the file and its transcript"},
        {std::string("a\0\t\0", 4), ":1: is not UTF-8 text"},
        {"a.wav\t  \r\n", ":1: the transcript is empty"},
        {"a.wav\tone One\n", ":1: 'One' is not a digit (zero to nine, oh)"},
        {"a.wav\tone -\n", ":1: '-' is not a digit (zero to nine, oh)"},
        {"\n\nb.wav\tone\n", ":3: " + (folder / "b.wav").string() + ": no such file"},
        {"none.wav\tone\n", ":1: " + (folder / "none.wav").string() + ": holds no samples"},
    };
    for (const auto& c : cases) {
        folder.write("list.tsv", c.contents);
        EXPECT_EQ(message_of([&] { speech::read_list(list); }), list.string() + c.message);
    }
}

TEST(SpeechProgram, SummarisesACorpusAndRefusesBadOnes) {
    const TemporaryFolder folder;
    const std::string program = VORN_SPEECH_PROGRAM;
    const std::string corpus = program + " corpus --corpus " + folder.path().string();
    struct {
        std::string command, message;
    } refused[] = {
        {program, "A subcommand is required"},
        {program + " copus", "The following argument was not expected: copus"},
        {program + " corpus --corpus /nowhere", "/nowhere: no such folder"},
        {corpus, (folder / "train.tsv").string() + ": cannot be read"},
    };
    for (const auto& c : refused) {
        EXPECT_EQ(run(folder, c.command), (Outcome{2, "", "vorn_speech: " + c.message + "\n"}));
    }
    EXPECT_EQ(run(folder, program + " --help").status, 0);

    // 0.11 s make 9 analysis frames, 3 rows; "two two" takes three of them, "two two one" four.
    folder.write("a.wav", kSecond);
    folder.write("b.wav", wav<std::int16_t>(8000, 1, std::vector<std::int16_t>(880, 9)));
    folder.write("train.tsv", "a.wav\tone two three\nb.wav\ttwo two\nb.wav\ttwo two one\n");
    folder.write("test.tsv", "./a.wav\tone\n");
    const Outcome summary = {0,
                             "train: 3 utterances, 8 digits, 0.00 hours; longest 1.0 s (a.wav)\n"
                             "test: 1 utterances, 1 digits, 0.00 hours; longest 1.0 s (a.wav)\n",
                             "warning: " + (folder / "b.wav").string() +
                                 ": 3 frames cannot carry 3 digits, which need 4\nwarning: " +
                                 (folder / "./a.wav").string() + ": is in both lists\n"};
    EXPECT_EQ(run(folder, corpus), summary);
    EXPECT_EQ(run(folder, "(" + corpus + " 2>/dev/null >/dev/full)").status, 2);

    // What training would refuse.
    folder.write("a.wav", wav<float>(16000, 1, std::vector<float>(16000, NAN)));
    EXPECT_EQ(run(folder, corpus),
              (Outcome{2, summary.out,
                       summary.err + "vorn_speech: " + (folder / "a.wav").string() +
                           ": holds a sample that is not finite\n"}));
}

TEST(SpeechProgram, MakesACorpusThatRepeats) {
    const TemporaryFolder folder;
    const std::string script = std::string(VORN_MAKE_CORPUS) + " --test 2 ";
    const Outcome made = run(folder, script + "--train 3 " + (folder / "a").string());
    if (made.err.find(" is missing ") != std::string::npos) {
        GTEST_SKIP() << made.err;
    }
    ASSERT_EQ(made.status, 0) << made.err;
    ASSERT_EQ(run(folder, script + "--train 4 " + (folder / "b").string()).status, 0);
    ASSERT_EQ(run(folder, script + "--seed 2 " + (folder / "c").string() + " --train 3").status, 0);
    const speech::Corpus corpus = speech::read_corpus(folder / "a");
    ASSERT_EQ(corpus.train.size(), 3u);
    ASSERT_EQ(corpus.test.size(), 2u);
    for (const auto& utterance : corpus.train) {
        EXPECT_EQ(utterance.audio.rate, 16000);
        EXPECT_NEAR(static_cast<double>(utterance.labels.size()), 5, 2);
        EXPECT_GT(utterance.audio.seconds(), 0.15 * static_cast<double>(utterance.labels.size()));
        const auto name = utterance.file.filename();
        const std::string sound = read_file(utterance.file);
        EXPECT_EQ(sound, read_file(folder / "b" / "train" / name));
        EXPECT_NE(sound, read_file(folder / "c" / "train" / name));
    }
    EXPECT_EQ(read_file(folder / "a" / "test.tsv"), read_file(folder / "b" / "test.tsv"));
}

}  // namespace
