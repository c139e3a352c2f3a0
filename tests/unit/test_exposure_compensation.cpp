// The gain solve on its own: seams of cameras with known exposures, in a chain, a ring, and with
// a camera no seam reaches.
#include <gtest/gtest.h>

#include <cmath>

#include "blend/exposure_compensation.h"

namespace {

using zqgfx_gpu_avs::ChannelGains;
using zqgfx_gpu_avs::CompensationMode;
using zqgfx_gpu_avs::SeamMeans;

struct SolveRow {
    const char* name;
    std::vector<double> exposure;          // per camera, all channels
    std::vector<std::pair<int, int>> seams;  // camera pairs that overlap
    CompensationMode mode;
};

TEST(GainSolve, CamerasOfKnownExposureComeOutEqualAfterTheirGains)
{
    const SolveRow rows[] = {
        {"chain", {0.80, 1.15, 0.95, 1.25}, {{0, 1}, {1, 2}, {2, 3}}, CompensationMode::channels},
        {"ring", {0.80, 1.15, 0.95, 1.25}, {{0, 1}, {1, 2}, {2, 3}, {3, 0}}, CompensationMode::gain},
        {"camera 2 without a seam", {1.2, 0.9, 0.6, 1.0}, {{0, 1}, {3, 0}}, CompensationMode::channels},
        {"a dark scene", {0.5, 1.0}, {{0, 1}}, CompensationMode::gain},
    };
    for (const SolveRow& row : rows) {
        SCOPED_TRACE(row.name);
        const double scene = row.seams.size() == 1 ? 0.1 : 0.45;  // the seams' mean, 0..1
        std::vector<SeamMeans> seams;
        for (const auto& [a, b] : row.seams) {
            SeamMeans m;
            m.cameraA = a, m.cameraB = b, m.samples = 500;
            for (int c = 0; c < 3; ++c) m.a[c] = scene * row.exposure[a], m.b[c] = scene * row.exposure[b];
            seams.push_back(m);
        }
        const int n = static_cast<int>(row.exposure.size());
        const std::vector<ChannelGains> gains = zqgfx_gpu_avs::solveGains(row.mode, n, seams);
        for (int i = 0; i < n; ++i) {
            bool seen = false;
            for (const auto& [a, b] : row.seams) seen = seen || a == i || b == i;
            for (int c = 0; c < 3; ++c) {
                if (!seen) {
                    EXPECT_EQ(gains[i][c], 1.0) << "camera " << i;
                    continue;
                }
                EXPECT_NEAR(gains[i][c] * row.exposure[i] / (gains[0][c] * row.exposure[0]), 1.0, 1e-3) << "camera " << i;
                EXPECT_TRUE(gains[i][c] >= 0.5 && gains[i][c] <= 2.0);
            }
        }
    }
}

}  // namespace
