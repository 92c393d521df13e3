#include "platform/cg_geometry.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace ov::platform {

const CGRect CGRectNull{{std::numeric_limits<double>::infinity(), std::numeric_limits<double>::infinity()}, {0, 0}};

CGRect CGRectStandardize(const CGRect& rect) {
    CGRect r = rect;
    if (r.size.width < 0) {
        r.origin.x += r.size.width;
        r.size.width = -r.size.width;
    }
    if (r.size.height < 0) {
        r.origin.y += r.size.height;
        r.size.height = -r.size.height;
    }
    return r;
}

bool CGRectIsNull(const CGRect& rect) { return std::isinf(rect.origin.x) || std::isinf(rect.origin.y); }

bool CGRectIsEmpty(const CGRect& rect) { return CGRectIsNull(rect) || rect.size.width == 0 || rect.size.height == 0; }

CGRect CGRectIntersection(const CGRect& a, const CGRect& b) {
    if (CGRectIsNull(a) || CGRectIsNull(b)) return CGRectNull;
    const CGRect r1 = CGRectStandardize(a), r2 = CGRectStandardize(b);
    const double x0 = std::max(r1.origin.x, r2.origin.x);
    const double y0 = std::max(r1.origin.y, r2.origin.y);
    const double x1 = std::min(r1.origin.x + r1.size.width, r2.origin.x + r2.size.width);
    const double y1 = std::min(r1.origin.y + r1.size.height, r2.origin.y + r2.size.height);
    if (x1 < x0 || y1 < y0) return CGRectNull;
    return {{x0, y0}, {x1 - x0, y1 - y0}};
}

bool CGRectEqualToRect(const CGRect& a, const CGRect& b) {
    if (CGRectIsNull(a) || CGRectIsNull(b)) return CGRectIsNull(a) && CGRectIsNull(b);
    return CGRectStandardize(a) == CGRectStandardize(b);
}

bool CGRectContainsPoint(const CGRect& rect, const CGPoint& point) {
    if (CGRectIsNull(rect)) return false;
    const CGRect r = CGRectStandardize(rect);
    return point.x >= r.origin.x && point.x < r.origin.x + r.size.width && point.y >= r.origin.y &&
           point.y < r.origin.y + r.size.height;
}

CGRect CGRectOffset(const CGRect& rect, double dx, double dy) {
    if (CGRectIsNull(rect)) return rect;
    return {{rect.origin.x + dx, rect.origin.y + dy}, rect.size};
}

}  // namespace ov::platform
