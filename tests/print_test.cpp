#include <algorithm>
#include <iostream>
#include <regex>
#include <sstream>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

/// Catches what goes to std::cout, and counts the flushes.
class Captured : public std::stringbuf {
public:
    Captured() : _saved(std::cout.rdbuf(this)) {}
    ~Captured() override { std::cout.rdbuf(_saved); }

    int flushes = 0;

private:
    int sync() override { return ++flushes, 0; }

    std::streambuf* _saved;
};

/// `print` prints this text and flushes after each line.
void expect_prints(const std::string& text, const std::function<void()>& print) {
    std::cout << std::scientific;
    std::cout.precision(2);
    Captured captured;
    print();
    EXPECT_EQ(captured.str(), text);
    EXPECT_EQ(captured.flushes, std::count(text.begin(), text.end(), '\n')) << text;
    EXPECT_FALSE(std::cout.flags() & std::ios::floatfield) << "neither fixed nor scientific";
    EXPECT_EQ(std::cout.precision(), 6);
}

class PrintTest : public DeviceTest {};
INSTANTIATE_TEST_SUITE_P(Places, PrintTest, kAllPlaces, name_of_place);

TEST_P(PrintTest, Lists) {
    const Tensor<float> matrix = make(Dim(2, 2), Values{1, 2, 3, 1e6f});
    const std::string three = "x\n0 1.000000\n1 2.000000\n2 3.000000\n";
    expect_prints(three, [&] { matrix.show("x", 3); });
    expect_prints(three + "3 1000000.000000\n", [&] { matrix.show("x", 10); });
    // A pitched host view of ld() 9 (two columns and guards) counts its coordinates by the pitch.
    const bool by_pitch = GetParam() == Place::kHostPitched;
    const std::string all = "x\nDim [0, 0] 1.000000\nDim [0, 1] 2.000000\n" +
                            std::string(by_pitch ? "Dim [0, 2]" : "Dim [1, 0]") + " 3.000000\n" +
                            (by_pitch ? "Dim [0, 3]" : "Dim [1, 1]") + " 1000000.000000\n";
    expect_prints(all, [&] { matrix.show("x"); });
    expect_prints(all, [&] { matrix.show("x", -7); });

    const Tensor<int> ints = make(Dim(1, 2), std::vector<int>{7, -8});
    expect_prints("ids\n0 7\n", [&] { ints.show("ids", 1); });
    expect_prints("ids\nDim [0, 0] 7\nDim [0, 1] -8\n", [&] { ints.show("ids", 0); });
    expect_prints("nothing\n", [&] { Tensor<int>(device()).show("nothing"); });
}

TEST_P(PrintTest, Rectangles) {
    const Tensor<float> matrix =
        make(Dim(3, 4), Values{0, 1, 2, 3, 10, 11, 12, 13, 20, 21, 22, 23.5f});
    expect_prints("m\n[1, 2 - 3]\t12.000000 13.000000 \n[2, 2 - 3]\t22.000000 23.500000 \n",
                  [&] { matrix.show("m", 1, 2, 3, 4); });
    expect_prints("no columns\n[0, 2 - 1]\t\n[1, 2 - 1]\t\n",
                  [&] { matrix.show("no columns", Dim(0, 2), Dim(2, 2)); });
    expect_prints("no rows\n", [&] { matrix.show("no rows", 1, 0, 1, 4); });

    const auto of_shape = [&](const Dim& shape) { return make(shape, counting<int>(8)); };
    expect_prints("v\n[2 - 4]\t2 3 4 \n", [&] { of_shape(Dim(8)).show("v", 2, 5); });
    expect_prints("c\n[0, 1, 0 - 0]\t2 \n[1, 1, 0 - 0]\t6 \n",
                  [&] { of_shape(Dim(2, 2, 2)).show("c", 0, 1, 0, 2, 2, 1); });
    expect_prints("n\n[0, 0, 0, 1 - 1]\t1 \n[0, 0, 1, 1 - 1]\t3 \n",
                  [&] { of_shape(Dim(2, 1, 2, 2)).show("n", 0, 0, 0, 1, 1, 1, 2, 2); });
    const Dim five(2, 1, 2, 1, 2);
    expect_prints("five\n[1, 0, 0, 0, 0 - 1]\t4 5 \n[1, 0, 1, 0, 0 - 1]\t6 7 \n",
                  [&] { of_shape(five).show("five", Dim(1, 0, 0, 0, 0), five); });
}

TEST(Printing, OfOtherAxesIsLoggedAndGoesOn) {
    const Tensor<float> cube(Dim(2, 3, 4)), row(Dim(4));
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    cube.show("x", 0, 4);
    cube.show("x", 1, 0, 2, 3);
    row.show("x", 0, 0, 0, 1, 1, 1);
    cube.show("x", 0, 0, 0, 0, 1, 1, 1, 1);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    const std::string log = ::testing::internal::GetCapturedStderr();
    std::string pattern;
    for (const char* shape : {"[2, 3, 4]", "[2, 3, 4]", "[4]", "[2, 3, 4]"}) {
        pattern += "[^\n]*" + literal(": invalid argument, dim Dim " + std::string(shape) + "\n");
    }
    EXPECT_TRUE(std::regex_match(log, std::regex(pattern))) << log;
}

TEST(Printing, Failures) {
    const Tensor<float> matrix(Dim(2, 3)), empty, other(nullptr, Dim(2, 2), GPU);
    const std::string axes = "Check failed: (static_cast<int>(tensor.get_dim())) == (";
    const std::string negative = failed("(size[i]) >= (0)", "Invalid Dim");
    const std::string counts = failed("(in1.get_element_count()) == (in2.get_element_count())");
    expect_failures({
        {axes + "start.get_axis()) ", [&] { matrix.show("x", Dim(0), Dim(1)); }},
        {axes + "end.get_axis()) ", [&] { matrix.show("x", Dim(0, 0), Dim(1)); }},
        {negative, [&] { matrix.show("x", 0, 2, 2, 1); }},
        {negative, [&] { matrix.show("x", 2, 0, 1, 2); }},
        {kBadIndex, [&] { matrix.show("x", 0, 0, 2, 4); }},
        {kNotImplemented, [&] { empty.show("x", Dim(), Dim()); }},
        {counts, [&] { matrix.check(empty); }},
        {counts, [&] { matrix.check(other); }},
    });
}

// Every device and pitch against every other.
TEST_P(PrintTest, CheckCountsDifferences) {
    Values a = random_values(24, 3), b = a;
    a[0] = kNan;
    b[7] = kNan;
    a[8] = b[8] = kInf;
    b[20] = kInf;  // the first of five
    b[1] += 2e-5f;
    b[11] -= 2e-5f;
    b[23] += 2e-5f;
    a[12] = kInf, b[12] = -kInf;
    b[13] += 9e-6f;
    const Tensor<float> here = make(Dim(4, 6), a);
    Tensor<float> wide(Dim(4, 9));
    Tensor<float> view = wide.range_col(2, 8);
    view.copy_from(dense(Dim(4, 6), b, CPU));
    std::vector<Tensor<float>> others = {dense(Dim(4, 6), b, CPU), view};
    if (has_gpu()) {
        others.push_back(dense(Dim(3, 8), b, GPU));
        others.push_back(Tensor<float>(wide, GPU).range_col(2, 8));
    }
    for (const Tensor<float>& other : others) {
        EXPECT_EQ(here.check(other), 5u);
        EXPECT_EQ(other.check(here, "name", 3), 5u);
    }
    EXPECT_EQ(here.check(here), 0u);
    expect_same_bits(values_of(here), a);
    EXPECT_EQ(Tensor<float>(device()).check(Tensor<float>()), 0u);

    // The float 1e-5 lies just below the double, the next one above it.
    const float step = 1e-5f, above = std::nextafter(step, 1.f);
    EXPECT_EQ(make<float>({step, -step}).check(make<float>({0, 0})), 0u);
    EXPECT_EQ(make<float>({above, 0}).check(make<float>({0, above})), 2u);

    const Tensor<int> ints = make(Dim(4), std::vector<int>{1, 2, 16777216, 5});
    EXPECT_EQ(ints.check(make(Dim(2, 2), std::vector<int>{1, 3, 16777217, 4})), 2u)
        << "large integers compare as float";
}

}  // namespace
}  // namespace test
}  // namespace vorn
