#include "digit_images/plot.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <sstream>

#include "common/gnuplot.h"
#include "digit_images/frame.h"

namespace digit_images {

namespace {

/// Tiles on a grid, each with room for a label above it.
struct Grid {
    int across, down;
    int side;  ///< of a tile, in its pixels
    int gap;
    int label_height;

    int tiles() const { return across * down; }
    int width() const { return across * (side + gap) - gap; }
    int height() const { return down * (side + label_height); }
    int left_of(int i) const { return i % across * (side + gap); }
    int top_of(int i) const { return i / across * (side + label_height) + label_height; }
    /// What of so many things is shown.
    int shown(std::size_t count) const {
        return static_cast<int>(std::min<std::size_t>(count, tiles()));
    }
};

/// The tiles as one image, its data under a name; zero where there is none.
template <typename PixelOf>
void write_mosaic(std::ostream& out, const std::string& name, const Grid& grid, int shown,
                  PixelOf pixel_of) {
    std::vector<float> pixels(grid.width() * grid.height());
    for (int i = 0; i < shown; ++i) {
        for (int p = 0; p < grid.side * grid.side; ++p) {
            const int row = grid.top_of(i) + p / grid.side,
                      column = grid.left_of(i) + p % grid.side;
            pixels[row * grid.width() + column] = static_cast<float>(pixel_of(i, p));
        }
    }
    out << name << " << END\n";
    for (int r = 0; r < grid.height(); ++r) {
        for (int c = 0; c < grid.width(); ++c) {
            out << pixels[r * grid.width() + c] << (c + 1 == grid.width() ? '\n' : ' ');
        }
    }
    out << "END\n";
}

/// Begins a plot of a mosaic in the lower half of the picture, from a share of its width on.
void begin_plot(std::ostream& out, const Grid& grid, const std::string& title, double from,
                double width) {
    out << "set origin " << from << ", 0\nset size ratio -1 " << width << ", 0.5\n"
        << "set title " << common::gnuplot_string(title) << " font ',15'\n"
        << "set xrange [-0.5:" << grid.width() - 0.5 << "]\nset yrange [" << grid.height() - 0.5
        << ":-0.5]\n";
}

void frame_tile(std::ostream& out, const Grid& grid, int i) {
    const int left = grid.left_of(i), top = grid.top_of(i);
    out << "set object rectangle from " << left - 0.5 << ", " << top - 0.5 << " to "
        << left + grid.side - 0.5 << ", " << top + grid.side - 0.5
        << " front fillstyle empty border lc rgb '" << common::kFaint << "'\n";
}

void write_mistakes(std::ostream& out, const Grid& grid, const std::vector<Mistake>& mistakes,
                    double from, double width) {
    begin_plot(out, grid,
               mistakes.empty() ? "No mistake on the test set"
                                : "The worst mistakes on the test set: said / read",
               from, width);
    out << "set palette defined (0 '#ffffff', 255 '" << common::kInk << "')\nset cbrange [0:255]\n";
    for (int i = 0; i < grid.shown(mistakes.size()); ++i) {
        frame_tile(out, grid, i);
        out << "set label '" << mistakes[i].said << " / ";
        mistakes[i].read == kDigits ? out << "none" : out << mistakes[i].read;
        out << "' at " << grid.left_of(i) + (grid.side - 1) / 2.0 << ", " << grid.top_of(i) - 3.5
            << " center front font ',12' textcolor '" << common::kRed << "'\n";
    }
    out << "plot $mistakes matrix with image pixels\nunset object\nunset label\n";
}

void write_filters(std::ostream& out, const Grid& grid, const Filters& filters, double width) {
    begin_plot(out, grid, "Filters of the first layer", 0, width);
    out << "set palette defined (-1 '" << common::kOrange << "', 0 '#ffffff', 1 '" << common::kBlue
        << "')\nset cbrange [-1:1]\n";
    for (int i = 0; i < grid.shown(filters.count()); ++i) {
        frame_tile(out, grid, i);
    }
    out << "plot $filters matrix with image pixels\nunset object\n";
}

}  // namespace

std::vector<Mistake> mistakes_to_show(const Evaluation& evaluation, const ImageSet& set) {
    std::vector<Mistake> mistakes;
    for (const int i : worst_mistakes(evaluation, set, kMistakesShown)) {
        mistakes.push_back({set.image(i), set.labels[i], evaluation.read[i]});
    }
    return mistakes;
}

std::string picture_script(const std::filesystem::path& png,
                           const std::vector<common::EpochPoint>& epochs,
                           const std::vector<Mistake>& mistakes, const Filters& filters) {
    const bool with_filters = filters.count() > 0;
    const double filter_width = with_filters ? 0.3 : 0;
    const Grid mistake_grid = {with_filters ? 8 : 12, 3, kFrameSide, 6, 9};
    const Grid filter_grid = {4, 4, filters.side, 1, 1};
    std::ostringstream out;
    out << std::setprecision(6);
    write_mosaic(out, "$mistakes", mistake_grid, mistake_grid.shown(mistakes.size()),
                 [&](int i, int p) { return mistakes[i].image[p]; });
    if (with_filters) {
        const int area = filters.side * filters.side;
        std::vector<float> largest(filters.count(), 1e-30f);  // of each, which is shown in full
        for (std::size_t i = 0; i < filters.weights.size(); ++i) {
            largest[i / area] = std::max(largest[i / area], std::abs(filters.weights[i]));
        }
        write_mosaic(out, "$filters", filter_grid, filter_grid.shown(filters.count()),
                     [&](int i, int p) { return filters.weights[i * area + p] / largest[i]; });
    }
    common::write_picture_head(out, png);
    common::write_curves(out, "Learning to read written digits", "error rate", epochs);
    out << "unset border\nunset tics\nunset grid\nunset xlabel\nunset ylabel\nunset key\n"
        << "unset colorbox\nset tmargin 3\nset bmargin 1\n";
    if (with_filters) {
        out << "set lmargin 4\nset rmargin 2\n";
        write_filters(out, filter_grid, filters, filter_width);
    }
    write_mistakes(out, mistake_grid, mistakes, filter_width, 1 - filter_width);
    out << "unset multiplot\n";
    return out.str();
}

}  // namespace digit_images
