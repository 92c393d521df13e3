#include "sources/natural_compare.h"

namespace ov {

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }
unsigned char fold(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c - 'A' + 'a') : static_cast<unsigned char>(c); }

}  // namespace

int localizedStandardCompare(std::string_view a, std::string_view b) {
    size_t i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        if (isDigit(a[i]) && isDigit(b[j])) {
            // Whole digit runs, leading zeros skipped: the longer number is larger.
            size_t ie = i, je = j;
            while (ie < a.size() && isDigit(a[ie])) ++ie;
            while (je < b.size() && isDigit(b[je])) ++je;
            size_t is = i, js = j;
            while (is + 1 < ie && a[is] == '0') ++is;
            while (js + 1 < je && b[js] == '0') ++js;
            const size_t la = ie - is, lb = je - js;
            if (la != lb) return la < lb ? -1 : 1;
            for (size_t k = 0; k < la; ++k)
                if (a[is + k] != b[js + k]) return a[is + k] < b[js + k] ? -1 : 1;
            i = ie;
            j = je;
            continue;
        }
        const unsigned char ca = fold(a[i]), cb = fold(b[j]);
        if (ca != cb) return ca < cb ? -1 : 1;
        ++i;
        ++j;
    }
    if (i < a.size()) return 1;
    if (j < b.size()) return -1;
    return 0;
}

}  // namespace ov
