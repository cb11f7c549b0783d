#include "digit_images/augment.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "digit_images/frame.h"

namespace digit_images {

namespace {

constexpr double kRotation = 0.2;  // radians
constexpr double kSlant = 0.25;
constexpr double kScale = 0.15;
constexpr double kShift = 1.5;    // pixels
constexpr double kBending = 2.5;  // pixels that a control point moves at most, each way

constexpr int kSpacing = 7;  // pixels from one control point to the next
constexpr int kControls = kFrameSide / kSpacing + 3;

/// The weights of the four control points around each pixel of a row or column.
using SplineWeights = std::array<std::array<float, 4>, kFrameSide>;

SplineWeights spline_weights() {
    SplineWeights weights;
    for (int i = 0; i < kFrameSide; ++i) {
        const float t = static_cast<float>(i % kSpacing) / kSpacing, u = 1 - t;
        weights[i] = {u * u * u / 6, (4 - 6 * t * t + 3 * t * t * t) / 6,
                      (4 - 6 * u * u + 3 * u * u * u) / 6, t * t * t / 6};
    }
    return weights;
}

/// A smooth random field of displacements along one axis.
class Field {
public:
    explicit Field(common::Random* random) {
        static const SplineWeights weights = spline_weights();
        std::array<std::array<float, kControls>, kControls> controls;
        for (auto& row : controls) {
            for (float& control : row) {
                control = static_cast<float>(kBending * (2 * common::uniform(random) - 1));
            }
        }
        for (int r = 0; r < kFrameSide; ++r) {
            std::array<float, kControls> blended{};
            for (int k = 0; k < 4; ++k) {
                for (int j = 0; j < kControls; ++j) {
                    blended[j] += weights[r][k] * controls[r / kSpacing + k][j];
                }
            }
            for (int c = 0; c < kFrameSide; ++c) {
                float sum = 0;
                for (int k = 0; k < 4; ++k) {
                    sum += weights[c][k] * blended[c / kSpacing + k];
                }
                _values[r][c] = sum;
            }
        }
    }

    float at(int row, int column) const { return _values[row][column]; }

private:
    std::array<std::array<float, kFrameSide>, kFrameSide> _values;
};

}  // namespace

void to_values(const std::uint8_t* image, float* values) {
    std::transform(image, image + kFramePixels, values,
                   [](std::uint8_t pixel) { return static_cast<float>(pixel) / 255; });
}

void augment(const std::uint8_t* image, common::Random* random, float* values) {
    const auto off_by = [random](double most) {
        return static_cast<float>(most * (2 * common::uniform(random) - 1));
    };
    const float angle = off_by(kRotation), slant = off_by(kSlant);
    const float width = 1 + off_by(kScale), height = 1 + off_by(kScale);
    const float right = off_by(kShift), down = off_by(kShift);
    const Field bend_right(random), bend_down(random);
    const float c = std::cos(angle), s = std::sin(angle);

    // The ground goes on around the image, so that the four pixels of a sample are always there.
    constexpr int margin = 2, side = kFrameSide + 2 * margin;
    std::array<float, side * side> wide{};
    for (int row = 0; row < kFrameSide; ++row) {
        std::copy_n(image + row * kFrameSide, kFrameSide,
                    wide.begin() + (row + margin) * side + margin);
    }
    constexpr float middle = (kFrameSide - 1) / 2.0f, last = kFrameSide + margin - 1.001f;
    for (int row = 0; row < kFrameSide; ++row) {
        for (int column = 0; column < kFrameSide; ++column) {
            const float x = static_cast<float>(column) - middle;
            const float y = static_cast<float>(row) - middle;
            const float turned_x = c * x - s * y, turned_y = s * x + c * y;
            const float from_x = width * (turned_x + slant * turned_y) + right + middle +
                                 bend_right.at(row, column) + margin;
            const float from_y =
                height * turned_y + down + middle + bend_down.at(row, column) + margin;
            const float inside_x = std::clamp(from_x, 0.0f, last);
            const float inside_y = std::clamp(from_y, 0.0f, last);
            const int left = static_cast<int>(inside_x), top = static_cast<int>(inside_y);
            const float u = inside_x - static_cast<float>(left);
            const float v = inside_y - static_cast<float>(top);
            const float* at = wide.data() + top * side + left;
            *values++ = ((1 - v) * ((1 - u) * at[0] + u * at[1]) +
                         v * ((1 - u) * at[side] + u * at[side + 1])) /
                        255;
        }
    }
}

}  // namespace digit_images
