#include "stitch_session.h"

#include <algorithm>
#include <chrono>
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

}  // namespace zqavs
