// Seam alpha maps: one weight profile across the seam, reduced level by level.
#include <cmath>
#include <cstring>

#include "zqavs_synth.h"

namespace zqavs_synth {

std::vector<LevelSize> alphaLevelSizes(int width, int height, int levels)
{
    std::vector<LevelSize> sizes;
    for (int l = 0; l < levels; ++l) sizes.push_back({width >> l, height >> l});
    return sizes;
}

// Weight of side A at each column of the full-size level: 1 at the left edge, 0 at the right.
static std::vector<double> seamProfile(int width, SeamProfile profile)
{
    std::vector<double> weights(static_cast<size_t>(width));
    for (int x = 0; x < width; ++x) {
        if (profile == SeamProfile::LinearRamp)
            weights[x] = 1.0 - (x + 0.5) / width;
        else
            weights[x] = x < width / 2 ? 1.0 : 0.0;
    }
    return weights;
}

static std::vector<double> reduceProfile(const std::vector<double>& finer, int width)
{
    std::vector<double> coarser(static_cast<size_t>(width));
    for (int x = 0; x < width; ++x) coarser[x] = (finer[2 * x] + finer[2 * x + 1]) / 2.0;
    return coarser;
}

static void appendLevel(const std::vector<double>& row, int height, AlphaType type, std::vector<uint8_t>* bytes)
{
    for (int y = 0; y < height; ++y) {
        for (double weight : row) {
            if (type == AlphaType::U8) {
                bytes->push_back(static_cast<uint8_t>(std::lround(weight * 255.0)));
            } else {
                float value = static_cast<float>(weight);
                uint8_t raw[sizeof value];
                std::memcpy(raw, &value, sizeof value);
                bytes->insert(bytes->end(), raw, raw + sizeof value);
            }
        }
    }
}

AlphaMap buildAlphaMap(int camera, int next, int width, int height, int levels, AlphaType type,
                       SeamProfile profile)
{
    AlphaMap map;
    map.camera = camera;
    map.next = next;
    map.width = width;
    map.height = height;
    map.levels = levels;
    map.type = type;
    const size_t elementBytes = type == AlphaType::U8 ? 1 : sizeof(float);
    map.bytes.reserve(alphaElementCount(width, height, levels) * elementBytes);
    // Rows of a level are identical: the weight only varies across the seam.
    std::vector<double> row = seamProfile(width, profile);
    const std::vector<LevelSize> sizes = alphaLevelSizes(width, height, levels);
    for (int l = 0; l < levels; ++l) {
        if (l > 0) row = reduceProfile(row, sizes[l].width);
        appendLevel(row, sizes[l].height, type, &map.bytes);
    }
    return map;
}

}  // namespace zqavs_synth
