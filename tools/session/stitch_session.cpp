#include "stitch_session.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>

namespace zqavs {

StitchSession::~StitchSession()
{
    if (initialised_) ZQGFX_AVS_deinit(&context_);
}

bool StitchSession::init(const StitchSetup& setup, std::string* error)
{
    setup_ = setup;
    const zqavs_synth::RigConfig& rig = setup.rig;
    panoramaWidth_ = rig.bld_width;
    context_ = zqavs_synth::makeContext(rig, setup.useSync);
    if (setup.buffers) {
        setup.buffers->attach(&context_);
    } else {
        pathWithSlash_ = setup.calibDir;
        if (pathWithSlash_.empty() || pathWithSlash_.back() != '/') pathWithSlash_ += '/';
        context_.meshFilePath = &pathWithSlash_[0];
    }
    inputs_.resize(rig.cameras);
    for (auto& buffer : inputs_)
        if (!buffer.allocate(rig.src_width, rig.src_height, error)) return false;
    if (!output_.allocate(rig.bld_width, rig.bld_height, error)) return false;
    memset(output_.data(), 0, output_.size());
    fds_.clear();
    for (auto& buffer : inputs_) fds_.push_back(buffer.fd());
    fds_.push_back(output_.fd());
    context_.inputFdArray = fds_.data();
    if (ZQGFX_AVS_init(&context_) != ZQGFX_AVS_SUCCESS) {
        *error = "ZQGFX_AVS_init failed (see the library's lines above)";
        return false;
    }
    initialised_ = true;
    return true;
}

void StitchSession::setInput(int camera, const zqavs_synth::Nv12Image& image)
{
    memcpy(inputs_[camera].data(), image.data.data(), std::min(image.data.size(), inputs_[camera].size()));
}

bool StitchSession::frame(double* ms, std::string* error)
{
    const auto start = std::chrono::steady_clock::now();
    if (ZQGFX_AVS_AllProcess(&context_) != ZQGFX_AVS_SUCCESS) {
        *error = "ZQGFX_AVS_AllProcess failed (see the library's lines above)";
        return false;
    }
    if (setup_.useSync) {
        void* sync = ZQGFX_AVS_create_sync();
        if (!sync || ZQGFX_AVS_wait_sync(sync) != ZQGFX_AVS_SUCCESS) {
            *error = "waiting on the frame's fence failed";
            return false;
        }
    }
    *ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    return true;
}

bool StitchSession::profileFrame(ZQGFX_AVS_STAGE_TIMES_T* times, std::string* error)
{
    if (ZQGFX_AVS_profile_frame(&context_, times) != ZQGFX_AVS_SUCCESS) {
        *error = "profiling a frame failed (see the library's lines above)";
        return false;
    }
    return true;
}

bool StitchSession::resize(int width, int height, std::string* error)
{
    if (width > setup_.rig.bld_width || height != setup_.rig.bld_height) {
        *error = "a resize may narrow the panorama but not widen it or change its height";
        return false;
    }
    context_.outputBufferWidth = static_cast<uint32_t>(width);
    panoramaWidth_ = width;
    context_.outputBufferHeight = static_cast<uint32_t>(height);
    if (ZQGFX_AVS_resize(&context_) != ZQGFX_AVS_SUCCESS) {
        *error = "ZQGFX_AVS_resize failed";
        return false;
    }
    return true;
}

bool StitchSession::setCompensation(int mode, float smoothing, std::string* error)
{
    if (ZQGFX_AVS_set_compensation(&context_, mode, smoothing) == ZQGFX_AVS_SUCCESS) {
        smoothing_ = smoothing;
        return true;
    }
    *error = std::string("no exposure compensation on the ") + ZQGFX_AVS_get_path() +
             " path (the library's line above says why)";
    return false;
}

std::vector<float> StitchSession::compensationGains()
{
    std::vector<float> gains(static_cast<size_t>(setup_.rig.cameras) * 3, 1.0f);
    ZQGFX_AVS_get_compensation(&context_, gains.data(), static_cast<int>(gains.size()));
    return gains;
}

int StitchSession::settleCompensation(int maxFrames, bool* settled, std::string* error)
{
    // An estimate acts a frame after it is measured, and its read-back may take a frame longer:
    // a few frames in a row without movement mean it has settled. The gains move by the
    // smoothing's share of their distance to the estimate per frame, so that distance is what
    // is held under 1e-3.
    constexpr int kStillFrames = 3;
    const float still = 1e-3f * smoothing_;
    std::vector<float> last = compensationGains();
    int stillFrames = 0, frames = 0;
    while (frames < maxFrames && stillFrames < kStillFrames) {
        double ms = 0.0;
        if (!frame(&ms, error)) return -1;
        ++frames;
        const std::vector<float> now = compensationGains();
        float moved = 0.0f;
        for (size_t i = 0; i < now.size(); ++i) moved = std::max(moved, std::abs(now[i] - last[i]));
        stillFrames = moved < still ? stillFrames + 1 : 0;
        last = now;
    }
    *settled = stillFrames == kStillFrames;
    return frames;
}

zqavs_synth::Nv12View StitchSession::outputView() const
{
    return {output_.data(), panoramaWidth_, static_cast<int>(context_.outputBufferHeight), (panoramaWidth_ + 15) & ~15};
}

double medianOf(std::vector<double> values)
{
    if (values.empty()) return 0.0;
    std::sort(values.begin(), values.end());
    const size_t mid = values.size() / 2;
    return values.size() % 2 ? values[mid] : (values[mid - 1] + values[mid]) / 2.0;
}

const std::vector<std::string>& compensationModeNames()
{
    static const std::vector<std::string> names{"off", "gain", "channels"};
    return names;
}

int compensationModeOf(const std::string& name)
{
    const std::vector<std::string>& names = compensationModeNames();
    const auto it = std::find(names.begin(), names.end(), name);
    return it == names.end() ? -1 : static_cast<int>(it - names.begin());
}

}  // namespace zqavs
