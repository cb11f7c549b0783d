#include <numeric>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

class ImageBatchNormTest : public DeviceTest {};
INSTANTIATE_TEST_SUITE_P(Places, ImageBatchNormTest, ::testing::Values(Place::kGpu), name_of_place);

/// A batch (N, C, H, W) and the formulas of its normalization in double precision.
struct Batch {
    BatNormType type;
    Dim size;
    Doubles x, gamma, bias;

    Batch(BatNormType its_type, const Dim& its_size, unsigned seed)
        : type(its_type),
          size(its_size),
          x(widen(random_values(size.product(), seed, -1, 3))),
          gamma(widen(random_values(groups(), seed + 1, 0.5, 2))),
          bias(widen(random_values(groups(), seed + 2))) {}

    int image() const { return size.product() / size[0]; }
    int groups() const { return type == NORM_1C11 ? size[1] : image(); }
    int members() const { return size.product() / groups(); }
    int group_of(int i) const {
        return type == NORM_1C11 ? i / (size[2] * size[3]) % size[1] : i % image();
    }
    Dim statistics() const {
        return type == NORM_1C11 ? Dim(1, size[1], 1, 1) : Dim(1, size[1], size[2], size[3]);
    }
    Doubles mean() const {
        Doubles sum(groups());
        for (int i = 0; i < size.product(); ++i) {
            sum[group_of(i)] += x[i] / members();
        }
        return sum;
    }
    Doubles variance() const {
        const Doubles m = mean();
        Doubles sum(groups());
        for (int i = 0; i < size.product(); ++i) {
            const double difference = x[i] - m[group_of(i)];
            sum[group_of(i)] += difference * difference / members();
        }
        return sum;
    }
    Doubles normalized(const Doubles& mean, const Doubles& variance, double epsilon) const {
        Doubles y(x.size());
        for (int i = 0; i < size.product(); ++i) {
            const int g = group_of(i);
            y[i] = gamma[g] * (x[i] - mean[g]) / std::sqrt(variance[g] + epsilon) + bias[g];
        }
        return y;
    }
};

const std::vector<Batch> kBatches = {{NORM_1C11, Dim(4, 3, 5, 7), 1},
                                     {NORM_1CHW, Dim(5, 2, 3, 4), 11},
                                     {NORM_1C11, Dim(2, 33, 1, 1), 21},
                                     {NORM_1CHW, Dim(9, 1, 1, 40), 31}};

Values narrow(const Doubles& values) {
    return Values(values.begin(), values.end());
}

/// alpha * result + beta * old
Doubles blended(double alpha, Doubles result, double beta, const Values& old) {
    for (size_t i = 0; i < result.size(); ++i) {
        result[i] = alpha * result[i] + beta * old[i];
    }
    return result;
}

// Images may be pitched. An epsilon below 1e-5, or none, counts as 1e-5.
TEST_P(ImageBatchNormTest, Inference) {
    for (const Batch& b : kBatches) {
        const Dim of = b.statistics();
        const Values mean = random_values(b.groups(), 5), old = random_values(b.x.size(), 7);
        Values var = random_values(b.groups(), 6, 0.1f, 2);
        var[0] = 0;
        for (float epsilon : {0.01f, 0.0f, -1.0f, kNan}) {
            const Doubles expected =
                b.normalized(widen(mean), widen(var), epsilon > 0 ? epsilon : 1e-5);
            const Block<float> x(b.size, device(), 2, 3), y(b.size, device(), 1, 6);
            x.tensor.copy_from(make(b.size, narrow(b.x)));
        }
    }
}

}  // namespace
}  // namespace test
}  // namespace vorn
