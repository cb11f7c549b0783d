#include "vorn/ops/math_ops.h"

#include <unistd.h>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

using Ints = std::vector<int>;

// Masks of 0, 1 and 2, mixed.
Ints masks(index_t count) {
    Ints mask(count);
    for (index_t i = 0; i < count; ++i) {
        mask[i] = static_cast<int>(i * 7 / 3 % 3);
    }
    return mask;
}

class LossTest : public DeviceTest {};
INSTANTIATE_TEST_SUITE_P(Places, LossTest, kDensePlaces, name_of_place);

// ---- Cross entropy

struct Extents {
    int outer, channel, inner;

    int items() const { return outer * inner; }
    int count() const { return items() * channel; }
    int at(int item, int c) const { return (item / inner * channel + c) * inner + item % inner; }
    Dim dim() const { return inner == 1 ? Dim(outer, channel) : Dim(outer, channel, inner); }
};

// Both sides of the blocks and caps of the kernels, and of what the host does at a time. Labels
// have a fraction, which is cut off.
TEST_P(LossTest, CrossEntropyMatchesTheFormula) {
    const float alpha = -1.5f, beta = 0.25f;
    for (const Extents& e : {Extents{1, 2, 1},
                             {7, 513, 1},
                             {513, 3, 1},
                             {40961, 2, 1},
                             {2, 5, 3},
                             {3, 70, 2},
                             {2, 9, 63},
                             {2, 4, 64},
                             {1, 3, 513},
                             {1, 2, 1025},
                             {20481, 2, 2},
                             {2, 600, 2}}) {
        SCOPED_TRACE(e.dim().to_string());
        const Values x = random_values(e.count(), 1), old = random_values(e.count(), 2);
        const Ints mask = masks(e.items());
        Values label = random_values(e.items(), 3, -0.9f, e.channel - 0.01f);
        Doubles loss, gradient(e.count());
        for (int i = 0; i < e.items(); ++i) {
            const int labelled = std::max(0, static_cast<int>(std::floor(label[i])));
            loss.push_back((mask[i] == 1) * alpha * x[e.at(i, labelled)] + beta * old[i]);
            for (int c = 0; c < e.channel; ++c) {
                const int at = e.at(i, c);
                gradient[at] =
                    (mask[i] != 0) * alpha * ((c == labelled) - double(x[at])) + beta * old[at];
            }
        }
        const TensorF in = make(e.dim(), x), labels = make(label);
        const Tensor<int> on = make(mask);
        TensorF out = make(Values(old.begin(), old.begin() + e.items()));
        TensorF error = make(e.dim(), old);
        if (e.inner == 1) {
            out.cross_entropy(in, labels, on, alpha, beta);
            error.cross_entropy_bp(in, labels, on, alpha, beta);
        } else {
            out.cross_entropy(in, labels, on, e.outer, e.channel, e.inner, alpha, beta);
            error.cross_entropy_bp(in, labels, on, e.outer, e.channel, e.inner, alpha, beta);
        }
        expect_close(values_of(out), loss, 1e-6, 1e-6);
        expect_close(values_of(error), gradient, 1e-6, 1e-6);
    }
}

}  // namespace
}  // namespace test
}  // namespace vorn
