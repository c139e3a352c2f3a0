// Seam alpha maps: the finest level's weights, reduced level by level.
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

// The 2x2 box the library's pyramid applies between levels (a bilinear sample at each coarser
// pixel's centre); an odd last column or row is dropped as the level sizes truncate. Rows are
// averaged first so that identical rows reduce to exactly their own pairwise means.
static std::vector<double> reduceLevel(const std::vector<double>& finer, LevelSize finerSize, LevelSize size)
{
    std::vector<double> coarser(static_cast<size_t>(size.width) * size.height);
    for (int y = 0; y < size.height; ++y) {
        const double* top = &finer[static_cast<size_t>(2 * y) * finerSize.width];
        const double* bottom = top + finerSize.width;
        for (int x = 0; x < size.width; ++x)
            coarser[static_cast<size_t>(y) * size.width + x] =
                ((top[2 * x] + top[2 * x + 1]) / 2.0 + (bottom[2 * x] + bottom[2 * x + 1]) / 2.0) / 2.0;
    }
    return coarser;
}

static void appendLevel(const std::vector<double>& weights, AlphaType type, std::vector<uint8_t>* bytes)
{
    for (double weight : weights) {
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

AlphaMap buildAlphaMap(const AlphaSeam& seam, AlphaType type, std::vector<double> finest)
{
    AlphaMap map;
    map.camera = seam.camera;
    map.next = seam.next;
    map.width = seam.width;
    map.height = seam.height;
    map.levels = seam.levels;
    map.type = type;
    const size_t elementBytes = type == AlphaType::U8 ? 1 : sizeof(float);
    map.bytes.reserve(alphaElementCount(seam.width, seam.height, seam.levels) * elementBytes);
    const std::vector<LevelSize> sizes = alphaLevelSizes(seam.width, seam.height, seam.levels);
    std::vector<double> level = std::move(finest);
    for (int l = 0; l < seam.levels; ++l) {
        if (l > 0) level = reduceLevel(level, sizes[l - 1], sizes[l]);
        appendLevel(level, type, &map.bytes);
    }
    return map;
}

AlphaMap buildAlphaMap(int camera, int next, int width, int height, int levels, AlphaType type,
                       SeamProfile profile)
{
    // Every row of the finest level carries the same profile across the seam.
    const std::vector<double> row = seamProfile(width, profile);
    std::vector<double> finest;
    finest.reserve(row.size() * static_cast<size_t>(height));
    for (int y = 0; y < height; ++y) finest.insert(finest.end(), row.begin(), row.end());
    return buildAlphaMap({camera, next, width, height, levels}, type, std::move(finest));
}

}  // namespace zqavs_synth
