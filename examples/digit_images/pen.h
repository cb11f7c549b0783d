#ifndef DIGIT_IMAGES_PEN_H_
#define DIGIT_IMAGES_PEN_H_

#include <ft2build.h>
#include FT_OUTLINE_H

#include <memory>

#include "common/random.h"

namespace digit_images {

/// Deletes an outline together with its points.
struct OutlineDeleter {
    FT_Library library;
    void operator()(FT_Outline* outline) const {
        FT_Outline_Done(library, outline);
        delete outline;
    }
};
using PenOutline = std::unique_ptr<FT_Outline, OutlineDeleter>;

/// The outline of a digit as a pen writes it: a 1 with a long flag or with none, an open 4, a 7
/// with a bar, and such forms that fonts hardly have. Its points and the pen's width are random.
/// Null for a digit that fonts have as hands do.
PenOutline write_with_pen(FT_Library library, int digit, common::Random* random);

}  // namespace digit_images

#endif  // DIGIT_IMAGES_PEN_H_
