#include "digit_images/pen.h"

#include FT_STROKER_H

#include <cmath>
#include <vector>

#include "common/error.h"

namespace digit_images {

namespace {

constexpr double kHeight = 1 << 14;    // of a form, in FreeType's coordinates
constexpr double kJitter = 0.09;       // of a point, each way, where a form is 1 high
constexpr double kThinnestPen = 0.03;  // radius
constexpr double kThickestPen = 0.12;

struct Point {
    double right, up;
};

/// A line from point to point, or a curve that leads from one middle between points to the next.
struct Stroke {
    bool is_curve;
    std::vector<Point> points;
};

struct Form {
    int digit;
    std::vector<Stroke> strokes;
};

const std::vector<Form>& forms() {
    static const std::vector<Form> all = {
        {1, {{false, {{0.5, 1}, {0.5, 0}}}}},
        {1, {{false, {{0.1, 0.65}, {0.5, 1}, {0.5, 0}}}}},
        {1, {{false, {{-0.05, 0.45}, {0.5, 1}, {0.45, 0}}}}},
        {1, {{false, {{0.15, 0.7}, {0.5, 1}, {0.5, 0}}}, {false, {{0.15, 0}, {0.85, 0}}}}},
        {2,
         {{true,
           {{0, 0.8},
            {0.2, 1.05},
            {0.75, 1},
            {0.55, 0.4},
            {0, -0.1},
            {0, 0.25},
            {0.4, 0.05},
            {0.85, 0.05}}}}},
        {4, {{false, {{0.3, 1}, {0, 0.35}, {0.8, 0.4}}}, {false, {{0.6, 0.75}, {0.55, 0}}}}},
        {4, {{false, {{0.05, 1}, {0.05, 0.5}, {0.65, 0.5}}}, {false, {{0.65, 1}, {0.65, 0}}}}},
        {7, {{false, {{0, 1}, {0.7, 1}, {0.3, 0}}}, {false, {{0.15, 0.5}, {0.75, 0.5}}}}},
        {7,
         {{true, {{0, 0.85}, {0.05, 1}, {0.8, 1}, {0.4, 0.5}, {0.3, 0}}},
          {false, {{0.15, 0.5}, {0.75, 0.5}}}}},
        {9,
         {{true, {{0.6, 0.9}, {0.4, 1.05}, {0, 0.95}, {0.05, 0.45}, {0.5, 0.5}, {0.65, 0.9}}},
          {false, {{0.65, 0.95}, {0.6, 0}}}}},
        {9,
         {{true, {{0.65, 0.9}, {0.4, 1.1}, {0, 0.9}, {0.1, 0.5}, {0.6, 0.55}, {0.7, 0.9}}},
          {true, {{0.7, 0.95}, {0.7, 0.3}, {0.6, -0.05}, {0.2, 0}, {0, 0.15}}}}},
    };
    return all;
}

void require(bool good) {
    if (!good) {
        throw common::Error("FreeType cannot draw a line");
    }
}

FT_Vector jittered(const Point& point, common::Random* random) {
    const auto coordinate = [random](double value) {
        return std::lround(kHeight * (value + kJitter * (2 * common::uniform(random) - 1)));
    };
    const FT_Pos right = coordinate(point.right), up = coordinate(point.up);
    return {right, up};
}

void draw(const Stroke& stroke, FT_Stroker stroker, common::Random* random) {
    std::vector<FT_Vector> points;
    for (const Point& point : stroke.points) {
        points.push_back(jittered(point, random));
    }
    require(FT_Stroker_BeginSubPath(stroker, &points.front(), true) == 0);
    for (std::size_t i = 1; i < points.size(); ++i) {
        if (!stroke.is_curve || i + 1 == points.size()) {
            require(FT_Stroker_LineTo(stroker, &points[i]) == 0);
            continue;
        }
        FT_Vector middle = {(points[i].x + points[i + 1].x) / 2,
                            (points[i].y + points[i + 1].y) / 2};
        require(FT_Stroker_ConicTo(stroker, &points[i], &middle) == 0);
    }
    require(FT_Stroker_EndSubPath(stroker) == 0);
}

}  // namespace

PenOutline write_with_pen(FT_Library library, int digit, common::Random* random) {
    std::vector<const Form*> fitting;
    for (const Form& form : forms()) {
        if (form.digit == digit) {
            fitting.push_back(&form);
        }
    }
    if (fitting.empty()) {
        return PenOutline(nullptr, OutlineDeleter{library});
    }
    const auto chosen = static_cast<std::size_t>(common::uniform(random) * fitting.size());
    const double radius = kThinnestPen + (kThickestPen - kThinnestPen) * common::uniform(random);

    FT_Stroker raw = nullptr;
    require(FT_Stroker_New(library, &raw) == 0);
    const std::unique_ptr<FT_StrokerRec_, void (*)(FT_Stroker)> stroker(raw, FT_Stroker_Done);
    FT_Stroker_Set(raw, std::lround(radius * kHeight), FT_STROKER_LINECAP_ROUND,
                   FT_STROKER_LINEJOIN_ROUND, 0);
    for (const Stroke& stroke : fitting[chosen]->strokes) {
        draw(stroke, raw, random);
    }
    FT_UInt points = 0, contours = 0;
    require(FT_Stroker_GetCounts(raw, &points, &contours) == 0);
    PenOutline outline(new FT_Outline(), OutlineDeleter{library});
    require(FT_Outline_New(library, points, static_cast<FT_Int>(contours), outline.get()) == 0);
    outline->n_points = outline->n_contours = 0;
    FT_Stroker_Export(raw, outline.get());
    return outline;
}

}  // namespace digit_images
