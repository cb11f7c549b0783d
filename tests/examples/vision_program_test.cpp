#include <gtest/gtest.h>

#include "idx_files.h"
#include "seven_segments.h"
#include "test_files.h"
#include "vorn/vorn.h"

namespace {

const std::string kProgram = VORN_VISION_PROGRAM;

/// IDX files of digits as clocks show them.
class VisionProgram : public testing::Test {
protected:
    void SetUp() override {
        if (!vorn::has_gpu()) {
            GTEST_SKIP() << "no GPU";
        }
        const digit_images::ImageSet set = seven_segments(kCount);
        _folder.write("images", idx({kCount, static_cast<std::uint32_t>(set.rows),
                                     static_cast<std::uint32_t>(set.columns)},
                                    std::string(set.pixels.begin(), set.pixels.end())));
        _folder.write("labels", idx({kCount}, std::string(set.labels.begin(), set.labels.end())));
    }

    std::string train(const std::string& more) const {
        return kProgram + " train --filters 2 --hidden 16 --epochs 2 --out " + _model.string() +
               " " + more;
    }

    static constexpr std::uint32_t kCount = 200;
    TemporaryFolder _folder;
    std::filesystem::path _model = _folder / "model";
    std::string _with_model = " --model " + _model.string() + " ";
    std::string _data =
        "--images " + (_folder / "images").string() + " --labels " + (_folder / "labels").string();
};

TEST_F(VisionProgram, TrainsTestsAndFinds) {
    const Outcome trained = run(_folder, train(_data + " --batch 2 --learning-rate 0.01"));
    ASSERT_EQ(trained.status, 0) << trained.err;
    EXPECT_NE(trained.out.find("\ntest set: accuracy "), std::string::npos);
    EXPECT_NE(trained.err.find("\nepoch 2: loss "), std::string::npos) << trained.err;

    const std::string page = (_folder / "page.png").string();
    const std::string found = " --picture " + page + " --pages 2 --seed 3 ";
    const Outcome test = run(_folder, kProgram + " test" + _with_model + _data);
    const Outcome find = run(_folder, kProgram + " find" + _with_model + found + _data);
    EXPECT_EQ(test.status, 0) << test.err;
    EXPECT_EQ(find.status, 0) << find.err;
    EXPECT_NE(test.out.find(" of 200 images right\n"), std::string::npos) << test.out;
    EXPECT_NE(find.out.find("\n2 pages: "), std::string::npos) << find.out;
    EXPECT_NE(find.out.find(" digits found and read, "), std::string::npos) << find.out;
    EXPECT_EQ(run(_folder, kProgram + " test --device gpu" + _with_model + _data), test);
    EXPECT_EQ(run(_folder, kProgram + " find --device gpu" + _with_model + found + _data), find);
    if (std::filesystem::exists(page)) {  // gnuplot is there
        const Outcome in_file = run(_folder, kProgram + " find" + _with_model + "--page " + page);
        EXPECT_EQ(in_file.status, 0) << in_file.err;
        EXPECT_EQ(in_file.out.find("digit   left    top  width height  posterior\n"), 0u);
    }
}

TEST_F(VisionProgram, RefusesBadInputInOneLine) {
    ASSERT_EQ(run(_folder, train(_data)).status, 0);
    const std::string good = read_file(_model), model = _model.string();
    const auto replaced = [&good](const std::string& from, const std::string& to) {
        std::string text = good;
        return text.replace(text.find(from), from.size(), to);
    };
    expect_models_refused(
        _folder, "vorn_vision", kProgram + " test" + _with_model + _data,
        {
            {"", "is no model file of this program"},
            {good.substr(0, good.size() - 1), "is truncated at 'norm3.variance'"},
            {good + "x", "goes on past its last tensor"},
            {replaced("hidden 16", "hidden 8192"), "is truncated"},
            {replaced("filters 2", "filters 1"),
             "'conv1.weight' has not the shape that the head tells"},
            {replaced("filter_side 5", "filter_side 4"), "network: filter_side must be odd"},
            {replaced("grid 7", "grid 0"), "network: grid must be 1 to 32, not 0"},
            {replaced("classes 11", "classes 10"), "the network does not fit its classes"},
        });

    _folder.write("model", good);
    const std::string find = kProgram + " find" + _with_model;
    const std::string bad_page = _folder.write("page", "x").string();
    expect_refused(
        _folder, "vorn_vision",
        {
            {train(_data + " --filters 513"), "--filters: Value 513 not in range 1 to 512"},
            {train(_data + " --picture " + model), model + ": cannot be two of model, picture and"},
            {find + "--page " + bad_page, bad_page + ": is no PNG file that can be read: "},
            {find + "--page " + bad_page + " --pages 2", "--page"},
            {find + "--page " + bad_page + " --picture " + bad_page,
             bad_page + ": is read, and cannot be the picture"},
            {find + _data + " --picture /nowhere/p", "/nowhere/p: cannot be written"},
            {kProgram + " find --model " + bad_page + " " + _data,
             bad_page + ": is no model file of this program"},
            {kProgram, "A subcommand is required"},
        });
    EXPECT_EQ(read_file(_model), good);
}

}  // namespace
