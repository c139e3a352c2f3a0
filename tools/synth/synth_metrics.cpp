// Image comparison for the stitching tests.
#include <cmath>
#include <cstdlib>
#include <limits>

#include "zqavs_synth.h"

namespace zqavs_synth {

PlaneView lumaPlane(const Nv12View& image)
{
    return {image.data, image.width, image.height, image.stride};
}

double psnr(const PlaneView& actual, const PlaneView& expected, const std::vector<uint8_t>& columnMask)
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    if (actual.width != expected.width || actual.height != expected.height) return nan;
    if (!columnMask.empty() && static_cast<int>(columnMask.size()) != actual.width) return nan;
    double squared = 0.0;
    size_t count = 0;
    for (int y = 0; y < actual.height; ++y) {
        for (int x = 0; x < actual.width; ++x) {
            if (!columnMask.empty() && !columnMask[x]) continue;
            double d = static_cast<double>(actual.at(x, y)) - expected.at(x, y);
            squared += d * d;
            ++count;
        }
    }
    if (count == 0) return nan;
    if (squared == 0.0) return std::numeric_limits<double>::infinity();
    return 10.0 * std::log10(255.0 * 255.0 * count / squared);
}

}  // namespace zqavs_synth
