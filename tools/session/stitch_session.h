// One stitching instance on the calling thread, with its camera and output buffers.
#ifndef ZQAVS_STITCH_SESSION_H
#define ZQAVS_STITCH_SESSION_H

#include <memory>
#include <string>
#include <vector>

#include "frame_buffers.h"
#include "zqavs_synth.h"
#include "zqgfx_gpu_avs.h"

namespace zqavs {

struct StitchSetup {
    std::string calibDir;  // file mode: the calibration directory
    // buffer mode when set: the calibration in memory (must outlive the session)
    zqavs_synth::BufferModeCalibration* buffers = nullptr;
    // cameras, source and panorama sizes, alpha element type
    zqavs_synth::RigConfig rig;
    bool useSync = false;
};

class StitchSession {
public:
    ~StitchSession();
    bool init(const StitchSetup& setup, std::string* error);
    FrameBuffer& input(int camera) { return inputs_[camera]; }
    FrameBuffer& output() { return output_; }
    // Copies an NV12 image (of the source size) into camera `camera`'s buffer.
    void setInput(int camera, const zqavs_synth::Nv12Image& image);
    // One frame; *ms is its wall-clock time including the fence wait.
    bool frame(double* ms, std::string* error);
    bool resize(int width, int height, std::string* error);
    // Exposure compensation (mode 0 off, 1 gain, 2 channels); false with *error where the
    // library refuses it.
    bool setCompensation(int mode, float smoothing, std::string* error);
    // The R, G, B gains per camera applied to the last frame.
    std::vector<float> compensationGains();
    // Stitches until the gains stop moving or maxFrames frames are done; the frames it took, or
    // -1 with *error.
    int settleCompensation(int maxFrames, bool* settled, std::string* error);
    // One frame with the GPU drained between its stages, timing each.
    bool profileFrame(ZQGFX_AVS_STAGE_TIMES_T* times, std::string* error);
    zqavs_synth::Nv12View outputView() const;
    ZQGFX_AVS_CONTEXT_T& context() { return context_; }
    int outputWidth() const { return panoramaWidth_; }
    int outputHeight() const { return context_.outputBufferHeight; }

private:
    StitchSetup setup_;
    ZQGFX_AVS_CONTEXT_T context_{};
    std::string pathWithSlash_;
    std::vector<FrameBuffer> inputs_;
    FrameBuffer output_;
    std::vector<int> fds_;
    int panoramaWidth_ = 0;
    float smoothing_ = 1.0f;  // of the compensation last set
    bool initialised_ = false;
};

double medianOf(std::vector<double> values);

// The library's smoothing of compensation on video: steady, and settled in about 40 frames.
constexpr float kVideoSmoothing = 0.1f;

// Compensation modes by name ("off", "gain", "channels"), as the tool and the element take them.
const std::vector<std::string>& compensationModeNames();
// The mode number of a name above, or -1.
int compensationModeOf(const std::string& name);

}  // namespace zqavs

#endif  // ZQAVS_STITCH_SESSION_H
