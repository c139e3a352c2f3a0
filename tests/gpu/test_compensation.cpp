// Exposure and white-balance compensation on the real driver: cameras of known exposure and
// colour cast are made to agree, converge without flicker, and ignore what only one camera sees.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "stitch_fixture.h"
#include "zqgfx_gpu_avs.h"

namespace {

using stitch_test::Frame;
using stitch_test::Rig;
using stitch_test::RigSession;

enum Mode { kOff = 0, kGain = 1, kChannels = 2 };

zqavs_synth::RigConfig rigWith(std::vector<double> gains, std::vector<double> casts = {})
{
    zqavs_synth::RigConfig config = stitch_test::smallRig();
    config.gains = std::move(gains);
    config.casts = std::move(casts);
    return config;
}

// The exposure camera c was rendered with in channel k.
double exposure(const zqavs_synth::RigConfig& config, int c, int k)
{
    return (config.gains.empty() ? 1.0 : config.gains[c]) * (config.casts.empty() ? 1.0 : config.casts[3 * c + k]);
}

std::vector<float> appliedGains(RigSession& live, int cameras)
{
    std::vector<float> gains(static_cast<size_t>(3 * cameras));
    EXPECT_EQ(ZQGFX_AVS_get_compensation(&live.session.context(), gains.data(), static_cast<int>(gains.size())),
              ZQGFX_AVS_SUCCESS);
    return gains;
}

// Largest departure from 1 of gain x exposure of any camera and channel against camera 0's: the
// cameras agree when every product is the same.
double disagreement(const std::vector<float>& gains, const zqavs_synth::RigConfig& config, bool perChannel)
{
    double worst = 0;
    for (int c = 1; c < config.cameras; ++c)
        for (int k = 0; k < (perChannel ? 3 : 1); ++k) {
            const double p = gains[3 * c + k] * exposure(config, c, k), p0 = gains[k] * exposure(config, 0, k);
            worst = std::max(worst, std::fabs(p / p0 - 1.0));
        }
    return worst;
}

// PSNR of the panorama's luma against the scene's, after one global gain fitted by least squares.
double lumaPsnrAfterGlobalGain(const Frame& frame, const Frame& scene)
{
    double xy = 0, xx = 0;
    for (int row = 0; row < frame.height; ++row)
        for (int x = 0; x < frame.width; ++x) {
            xy += frame.at(x, row) * static_cast<double>(scene.at(x, row));
            xx += frame.at(x, row) * static_cast<double>(frame.at(x, row));
        }
    Frame fitted = frame;
    for (int row = 0; row < frame.height; ++row)
        for (int x = 0; x < frame.width; ++x)
            fitted.at(x, row) = static_cast<uint8_t>(std::clamp(std::lround(frame.at(x, row) * xy / xx), 0L, 255L));
    return zqavs_synth::psnr(fitted.luma(), scene.luma(), std::vector<uint8_t>(frame.width, 1));
}

Frame sceneFrame(const Rig& rig)
{
    return stitch_test::copyFrame(zqavs_synth::rgbToNv12(rig.scene).view());
}

Frame stitchFrames(RigSession& live, int frames)
{
    Frame last;
    for (int f = 0; f < frames; ++f) last = live.next();
    return last;
}

struct Case {
    const char* name;
    zqavs_synth::RigConfig config;
    Mode mode;
    double minPsnr;     // luma against the scene after one global gain
    bool saturatedSky;  // the scene's top rows near white: the brighter cameras clip there
};

TEST(Compensation, CamerasOfKnownExposureAndCastAgree)
{
    // Where a camera's exposure pushes the scene's highlights past white, no gain brings them
    // back: those rows get a lower bar.
    const Case cases[] = {
        {"no differences", rigWith({}), kChannels, 38.0, false},
        {"one dark camera", rigWith({1.0, 0.7, 1.0, 1.0}), kGain, 38.0, false},
        {"gains and casts below white", rigWith({0.80, 0.95, 0.88, 1.0}, {1, 0.97, 0.92, 0.95, 1, 1, 1, 0.94, 0.96, 1, 1, 1}),
         kChannels, 38.0, false},
        {"gains and casts, highlights clipped",
         rigWith({0.80, 1.15, 0.95, 1.25}, {1.08, 1, 0.94, 1, 1.05, 1, 0.95, 1, 1.06, 1.04, 1, 0.92}), kChannels, 35.0,
         false},
        {"saturated sky", rigWith({0.80, 1.15, 0.95, 1.25}), kGain, 0.0, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        zqavs_synth::RigConfig config = c.config;
        if (c.saturatedSky) {
            config.scene_image = zqavs_synth::makeScene(config);
            std::fill(config.scene_image.rgb.begin(), config.scene_image.rgb.begin() + config.scene_image.rgb.size() / 4,
                      250);
        }
        const Rig rig(config);
        RigSession live;
        ASSERT_EQ(live.open(rig), "");
        const Frame off = live.next();
        ASSERT_EQ(ZQGFX_AVS_set_compensation(&live.session.context(), c.mode, 1.0f), ZQGFX_AVS_SUCCESS);
        const Frame on = stitchFrames(live, 4);
        const std::vector<float> gains = appliedGains(live, config.cameras);
        EXPECT_LT(disagreement(gains, config, c.mode == kChannels), 0.02);
        const Frame scene = sceneFrame(rig);
        const double before = lumaPsnrAfterGlobalGain(off, scene), after = lumaPsnrAfterGlobalGain(on, scene);
        EXPECT_GE(after, std::max(c.minPsnr, before - 0.1)) << "off: " << before;

        // Turned off again, the frame is that of an instance that never compensated.
        ASSERT_EQ(ZQGFX_AVS_set_compensation(&live.session.context(), kOff, 1.0f), ZQGFX_AVS_SUCCESS);
        EXPECT_TRUE(live.next().bytes == off.bytes);
    }
}

TEST(Compensation, ConvergesStaysStillAndFollowsAStepWithoutOvershoot)
{
    zqavs_synth::RigConfig config = rigWith({0.80, 1.15, 0.95, 1.25});
    Rig rig(config);
    RigSession live;
    ASSERT_EQ(live.open(rig), "");
    ASSERT_EQ(ZQGFX_AVS_set_compensation(&live.session.context(), kGain, 0.1f), ZQGFX_AVS_SUCCESS);
    stitchFrames(live, 40);
    EXPECT_LT(disagreement(appliedGains(live, config.cameras), config, false), 0.02) << "after 40 frames";
    // Still once the gains have stopped (within half a percent of their estimate).
    Frame previous = stitchFrames(live, 20);
    for (int f = 0; f < 3; ++f) {
        const Frame next = live.next();
        int worst = 0;
        for (size_t i = 0; i < next.bytes.size(); ++i) worst = std::max(worst, std::abs(next.bytes[i] - previous.bytes[i]));
        EXPECT_LE(worst, 1) << "frame " << f << " after convergence";
        previous = next;
    }

    // Camera 2's exposure steps up by 20 %: its gain falls towards the new agreement, never past it.
    config.gains[2] *= 1.2;
    rig.config = config;
    rig.calib.rig.gains = config.gains;
    live.session.setInput(2, zqavs_synth::renderCamera(rig.calib, 2, rig.scene));
    double error = 0;
    for (int f = 0; f < 60; ++f) {
        live.next();
        const std::vector<float> gains = appliedGains(live, config.cameras);
        const double ratio = gains[6] * exposure(config, 2, 0) / (gains[3] * exposure(config, 1, 0)) - 1.0;
        if (f > 0) {
            EXPECT_LE(ratio, error + 0.002) << "frame " << f;
        }
        EXPECT_GT(ratio, -0.01) << "overshoot at frame " << f;
        error = ratio;
    }
    EXPECT_LT(std::fabs(error), 0.02);
}

TEST(Compensation, AnObjectOnlyOneCameraSeesDoesNotMoveTheGains)
{
    const zqavs_synth::RigConfig config = rigWith({0.80, 1.15, 0.95, 1.25});
    Rig plain(config), withObject(config);
    // A dark block near camera 1's left edge: in its overlap with camera 0, seen by camera 1 only.
    zqavs_synth::Nv12Image& image = withObject.cameras[1];
    for (int row = 60; row < 180; ++row)
        std::fill_n(&image.data[static_cast<size_t>(row) * image.stride + 6], 40, uint8_t{40});
    std::vector<float> gains[2];
    for (int k = 0; k < 2; ++k) {
        RigSession live;
        ASSERT_EQ(live.open(k == 0 ? plain : withObject), "");
        ASSERT_EQ(ZQGFX_AVS_set_compensation(&live.session.context(), kChannels, 1.0f), ZQGFX_AVS_SUCCESS);
        stitchFrames(live, 4);
        gains[k] = appliedGains(live, config.cameras);
    }
    for (size_t i = 0; i < gains[0].size(); ++i) EXPECT_NEAR(gains[1][i] / gains[0][i], 1.0, 0.02) << "gain " << i;
}

}  // namespace
