#ifndef EXAMPLES_SEVEN_SEGMENTS_H_
#define EXAMPLES_SEVEN_SEGMENTS_H_

#include <cstdint>
#include <vector>

#include "digit_images/frame.h"
#include "digit_images/image_set.h"

/// Framed images of digits as clocks show them, in turn.
inline digit_images::ImageSet seven_segments(int count) {
    using digit_images::kFrameSide;
    struct Segment {
        int row, column, height, width;
    };
    constexpr Segment segments[] = {{4, 8, 2, 12},  {4, 18, 11, 2}, {13, 18, 11, 2}, {22, 8, 2, 12},
                                    {13, 8, 11, 2}, {4, 8, 11, 2},  {13, 8, 2, 12}};
    constexpr std::uint8_t lit[] = {0x3f, 0x06, 0x5b, 0x4f, 0x66, 0x6d, 0x7d, 0x07, 0x7f, 0x6f};
    digit_images::ImageSet set(kFrameSide, kFrameSide);
    for (int i = 0; i < count; ++i) {
        const int digit = i % digit_images::kDigits;
        std::uint8_t* image = set.add(static_cast<std::uint8_t>(digit));
        for (int s = 0; s < 7; ++s) {
            const Segment& segment = segments[s];
            for (int p = 0; lit[digit] >> s & 1 && p < segment.height * segment.width; ++p) {
                image[(segment.row + p / segment.width) * kFrameSide + segment.column +
                      p % segment.width] = 255;
            }
        }
    }
    return set;
}

#endif  // EXAMPLES_SEVEN_SEGMENTS_H_
