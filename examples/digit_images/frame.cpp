#include "digit_images/frame.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

namespace digit_images {

namespace {

/// Fainter pixels are noise, or the blurred edge of a stroke.
constexpr float kFaintest = 0.3f;
/// The ground is what this share of the pixels does not exceed: no digit fills so much.
constexpr double kGroundShare = 0.1;

/// One image as numbers from 0, the ground, to 1, the brightest stroke.
class Picture {
public:
    Picture(int rows, int columns) : _rows(rows), _columns(columns), _values(rows * columns) {}

    void set(const std::uint8_t* pixels, bool invert) {
        std::array<int, 256> histogram{};
        for (std::size_t i = 0; i < _values.size(); ++i) {
            ++histogram[invert ? 255 - pixels[i] : pixels[i]];
        }
        int ground = 0, most = 255;
        for (auto below = histogram[0]; below < kGroundShare * _values.size();) {
            below += histogram[++ground];
        }
        while (histogram[most] == 0) {
            --most;
        }
        const float scale = most > ground ? 1.0f / static_cast<float>(most - ground) : 0;
        for (std::size_t i = 0; i < _values.size(); ++i) {
            const int value = invert ? 255 - pixels[i] : pixels[i];
            _values[i] = scale * static_cast<float>(std::max(value - ground, 0));
        }
    }

    /// Draws the digit into a frame.
    void frame(std::uint8_t* out) const {
        int top = _rows, bottom = -1, left = _columns, right = -1;
        double mass = 0, row_sum = 0, column_sum = 0;
        for (int r = 0; r < _rows; ++r) {
            for (int c = 0; c < _columns; ++c) {
                const float v = _values[r * _columns + c];
                if (v > kFaintest) {
                    top = std::min(top, r);
                    bottom = r;
                    left = std::min(left, c);
                    right = std::max(right, c);
                    mass += v;
                    row_sum += v * r;
                    column_sum += v * c;
                }
            }
        }
        if (bottom < 0) {
            std::fill_n(out, kFramePixels, 0);
            return;
        }
        const double step = std::max(bottom - top + 1, right - left + 1) / double{kDigitSide};
        // A pixel of the frame averages over so many samples each way.
        const int samples = std::max(1, static_cast<int>(std::ceil(step)));
        for (int r = 0; r < kFrameSide; ++r) {
            for (int c = 0; c < kFrameSide; ++c) {
                float sum = 0;
                for (int i = 0; i < samples; ++i) {
                    const double y = r + (i + 0.5) / samples - kFrameSide / 2.0;
                    for (int j = 0; j < samples; ++j) {
                        const double x = c + (j + 0.5) / samples - kFrameSide / 2.0;
                        sum += at(row_sum / mass + y * step, column_sum / mass + x * step);
                    }
                }
                out[r * kFrameSide + c] = static_cast<std::uint8_t>(
                    std::lround(255 * sum / static_cast<float>(samples * samples)));
            }
        }
    }

private:
    float pixel(int row, int column) const {
        const bool inside = row >= 0 && row < _rows && column >= 0 && column < _columns;
        return inside ? _values[row * _columns + column] : 0;
    }

    /// Between the centres of pixels, which have whole coordinates.
    float at(double row, double column) const {
        const int r = static_cast<int>(std::floor(row)), c = static_cast<int>(std::floor(column));
        const auto down = static_cast<float>(row - r), right = static_cast<float>(column - c);
        return (1 - down) * ((1 - right) * pixel(r, c) + right * pixel(r, c + 1)) +
               down * ((1 - right) * pixel(r + 1, c) + right * pixel(r + 1, c + 1));
    }

    int _rows, _columns;
    std::vector<float> _values;
};

}  // namespace

bool is_dark_on_light(const ImageSet& set) {
    double edge = 0, all = 0;
    std::int64_t edge_pixels = 0;
    for (int i = 0; i < set.count(); ++i) {
        const std::uint8_t* pixel = set.image(i);
        for (int r = 0; r < set.rows; ++r) {
            for (int c = 0; c < set.columns; ++c, ++pixel) {
                all += *pixel;
                if (r == 0 || r == set.rows - 1 || c == 0 || c == set.columns - 1) {
                    edge += *pixel;
                    ++edge_pixels;
                }
            }
        }
    }
    return edge / static_cast<double>(edge_pixels) > all / static_cast<double>(set.pixels.size());
}

ImageSet to_frame(const ImageSet& set) {
    const bool invert = is_dark_on_light(set);
    ImageSet framed(kFrameSide, kFrameSide);
    framed.pixels.reserve(static_cast<std::size_t>(set.count()) * kFramePixels);
    Picture picture(set.rows, set.columns);
    for (int i = 0; i < set.count(); ++i) {
        picture.set(set.image(i), invert);
        picture.frame(framed.add(set.labels[i]));
    }
    return framed;
}

}  // namespace digit_images
