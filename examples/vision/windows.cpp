#include "vision/windows.h"

namespace vision {

namespace {

constexpr int kLeastSide = 8, kMostSide = 60;  // pixels of the longer side
constexpr int kMostGap = 4;                    // pixels between two pieces of a digit

/// The box of each piece of ink whose pixels touch at sides or corners.
std::vector<Box> ink_pieces(const Page& page) {
    std::vector<char> seen(page.values.size());
    std::vector<Box> pieces;
    std::vector<int> open;
    const auto visit = [&](int r, int c) {
        const int at = r * page.columns + c;
        if (!seen[at] && page.values[at] > kFaintestInk) {
            seen[at] = 1;
            open.push_back(at);
        }
    };
    for (int r = 0; r < page.rows; ++r) {
        for (int c = 0; c < page.columns; ++c) {
            visit(r, c);
            if (open.empty()) {
                continue;
            }
            Box box = {c, r, c + 1, r + 1};
            while (!open.empty()) {
                const int row = open.back() / page.columns, column = open.back() % page.columns;
                open.pop_back();
                box = union_box(box, {column, row, column + 1, row + 1});
                for (int y = std::max(row - 1, 0); y <= std::min(row + 1, page.rows - 1); ++y) {
                    for (int x = std::max(column - 1, 0);
                         x <= std::min(column + 1, page.columns - 1); ++x) {
                        visit(y, x);
                    }
                }
            }
            pieces.push_back(box);
        }
    }
    return pieces;
}

bool may_be_digit(const Box& box) {
    return box.longer_side() >= kLeastSide && box.longer_side() <= kMostSide;
}

}  // namespace

std::vector<Box> candidate_boxes(const Page& page) {
    std::vector<Box> pieces = ink_pieces(page);
    // Single pixels are noise.
    pieces.erase(std::remove_if(pieces.begin(), pieces.end(),
                                [](const Box& box) { return box.longer_side() < 2; }),
                 pieces.end());
    std::vector<Box> candidates;
    const auto offer = [&](const Box& box) {
        if (may_be_digit(box)) {
            candidates.push_back(box);
        }
    };
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        offer(pieces[i]);
        const Box near = pieces[i].widened(kMostGap);
        for (std::size_t j = i + 1; j < pieces.size(); ++j) {
            if (!intersection(near, pieces[j]).is_empty()) {
                offer(union_box(pieces[i], pieces[j]));
            }
        }
    }
    return candidates;
}

void append_window(int page, const Box& box, std::vector<float>* windows) {
    const float side = static_cast<float>(box.longer_side());
    const float left = static_cast<float>(box.left + box.right) / 2 - side / 2;
    const float top = static_cast<float>(box.top + box.bottom) / 2 - side / 2;
    for (const float value :
         {static_cast<float>(page), left, top, left + side - 1, top + side - 1}) {
        windows->push_back(value);
    }
}

}  // namespace vision
