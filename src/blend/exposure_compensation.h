// Exposure and white-balance compensation on the plane paths. Each blended seam shows the same
// part of the world through two cameras: a coarse level of the seam atlas's Gaussian pyramid
// holds both sides, so comparing them costs one small read-back a frame. That read goes into a
// pixel buffer behind a fence and is only looked at once the fence has passed (normally at the
// next frame), so the frame is never stalled for it. Gains are solved for all cameras at once
// (the least-squares gain compensation of Brown and Lowe) and applied through the remap
// programs, smoothed in the log domain so that a static scene stays still.
#ifndef ZQGFX_AVS_EXPOSURE_COMPENSATION_H
#define ZQGFX_AVS_EXPOSURE_COMPENSATION_H

#include <GLES3/gl31.h>

#include <array>
#include <cstdint>
#include <vector>

#include "gl/gl_owners.h"
#include "blend/seam_atlas.h"

namespace zqgfx_gpu_avs {


enum class CompensationMode { off = 0, gain = 1, channels = 2 };

using ChannelGains = std::array<double, 3>;  // R, G, B

// What one seam's two sides show, as the cameras delivered it (applied gains divided out).
struct SeamMeans {
    int cameraA = 0, cameraB = 0;  // side A belongs to cameraA, side B to cameraB
    ChannelGains a{}, b{};         // mean R, G, B of the kept samples, 0..1
    int samples = 0;               // how many were kept
};

// Per-seam means from an RGBA8 read of Gaussian `level` of `layout` (rows as GL reads them,
// `rowPixels` pixels apart), the side drawn with `applied[camera]` gains. Samples with a channel
// below 10 or above 245 of 255 on either side are left out, and so are samples whose two sides
// disagree far more than the seam's others do (moving objects, parallax).
std::vector<SeamMeans> measureSeams(const SeamAtlasLayout& layout, int level, const uint8_t* rgba, int rowPixels,
                                    const std::vector<ChannelGains>& applied, int cameraCount);

// Gains minimising sum over seams of N ((g_a I_a - g_b I_b)^2 / sigma_n^2 + ((1 - g_a)^2 + (1 -
// g_b)^2) / sigma_g^2), per channel (channels) or on luma (gain), clamped to [0.5, 2]. Cameras
// without a measured seam keep 1.
std::vector<ChannelGains> solveGains(CompensationMode mode, int cameraCount, const std::vector<SeamMeans>& seams);

// The 3 x 3 matrix (column-major, as glUniformMatrix3fv takes it) that applies RGB gains to
// full-range BT.601 YUV with the chroma offset removed: yuv' = M (yuv - c) + c.
std::array<GLfloat, 9> yuvGainMatrix(const ChannelGains& gains);

class ExposureCompensation {
public:
    static constexpr double kDefaultSmoothing = 0.1;

    // Turns the estimate on or off; on keeps the gains reached so far, off returns them to 1.
    void configure(CompensationMode mode, double smoothing, int cameraCount);
    bool active() const { return mode_ != CompensationMode::off; }
    CompensationMode mode() const { return mode_; }

    // Where a frame's measurement comes from: rectangles of framebuffers that together make up
    // Gaussian `level` of `layout` (one for a whole atlas level, or one per seam and side).
    struct Source {
        const SeamAtlasLayout* layout = nullptr;
        int level = 0;
        struct Read {
            GLuint framebuffer;
            AtlasRect into;  // read from (0, 0) of the framebuffer into this rectangle of the level
        };
        std::vector<Read> reads;
    };

    // Before a frame's remap: takes in a finished measurement, if there is one, without waiting.
    void collect(const SeamAtlasLayout& layout);
    // After the frame's pyramid: queues the reads of the measured level.
    bool measure(const Source& source);
    // The gains the current frame is drawn with.
    const ChannelGains& gains(int camera) const { return applied_[static_cast<size_t>(camera)]; }
    int cameraCount() const { return static_cast<int>(applied_.size()); }
    void release();

private:
    // One read in flight: its buffer, its fence and the gains its frame was drawn with.
    struct PendingRead {
        GlBuffer buffer;
        GlFence fence;
        std::vector<ChannelGains> drawnWith;
        size_t bytes = 0;
        int level = 0;
    };
    static constexpr int kReadsInFlight = 2;

    void follow(const std::vector<ChannelGains>& estimate);

    CompensationMode mode_ = CompensationMode::off;
    double smoothing_ = kDefaultSmoothing;
    std::vector<ChannelGains> applied_;
    PendingRead reads_[kReadsInFlight];
    int nextRead_ = 0;
};

}  // namespace zqgfx_gpu_avs

#endif  // ZQGFX_AVS_EXPOSURE_COMPENSATION_H
