#pragma once
// Points, sizes and rectangles in display points, as the window server and the
// screen capture use them.

namespace ov::platform {

struct CGPoint {
    double x = 0;
    double y = 0;
    friend bool operator==(const CGPoint&, const CGPoint&) = default;
};

struct CGSize {
    double width = 0;
    double height = 0;
    friend bool operator==(const CGSize&, const CGSize&) = default;
};

struct CGRect {
    CGPoint origin;
    CGSize size;
    friend bool operator==(const CGRect&, const CGRect&) = default;
};

// The Core Graphics rectangle functions the recorders use. Rectangles with a
// negative size are taken as their standardised form, as there.
CGRect CGRectStandardize(const CGRect& rect);
bool CGRectIsNull(const CGRect& rect);
// Null, or of zero width or height.
bool CGRectIsEmpty(const CGRect& rect);
// The null rectangle (infinite origin) when the two don't meet.
CGRect CGRectIntersection(const CGRect& a, const CGRect& b);
bool CGRectEqualToRect(const CGRect& a, const CGRect& b);
// Half-open: the left and top edges belong to the rectangle, the others don't.
bool CGRectContainsPoint(const CGRect& rect, const CGPoint& point);
CGRect CGRectOffset(const CGRect& rect, double dx, double dy);
extern const CGRect CGRectNull;

}  // namespace ov::platform
