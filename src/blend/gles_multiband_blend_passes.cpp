// Multiband blend engine: the two per-frame passes (Gaussian pyramids, then the blended collapse
// of the Laplacian pyramid into the output image).
#include "blend/gles_multiband_blend.h"

#include "gl/DebugLog.h"

namespace zqgfx_gpu_avs {

namespace {

// One texture of a draw: bound to unit k (its index in the list) and announced to uniform `uniform`.
struct SamplerInput {
    GLuint texture;
    GLuint uniform;
    const char* missingMessage;
};

// Binds each input to its unit; returns the message of the first input without a texture, else null.
template <size_t N>
const char* bindSamplerInputs(const SamplerInput (&inputs)[N])
{
    for (size_t unit = 0; unit < N; ++unit) {
        glActiveTexture(static_cast<GLenum>(GL_TEXTURE0 + unit));
        glBindTexture(GL_TEXTURE_2D, inputs[unit].texture);
        if (inputs[unit].texture == 0) return inputs[unit].missingMessage;
        glUniform1i(static_cast<GLint>(inputs[unit].uniform), static_cast<GLint>(unit));
        checkGlError("glUniform1i");
    }
    return nullptr;
}

}  // namespace

// ---- pass 1: Gaussian pyramids ---------------------------------------------------------------

// Level 0 of both sides is the remap engine's overlap framebuffer: side A the last overlap block
// of the camera, side B the first one of the next camera.
bool zqglMultibandBlend::fillSeamBaseLevels(int camera)
{
    int next = seamNextCamera(camera, cameraNum);
    if (readFileTexID[camera].empty() || readFileTexID[next].empty()) {
        AVS_LOGE("camera %d or %d has no overlap block to blend!", camera, next);
        return false;
    }
    if (gaussFboAttrA[camera] == nullptr || gaussFboAttrB[camera] == nullptr) return true;  // reported by the draw
    size_t last = readFileTexID[camera].size() - 1;
    gaussFboAttrA[camera][0].texture_id = readFileTexID[camera][last];
    gaussFboAttrA[camera][0].fbo_id = readFileFboID[camera][last];
    gaussFboAttrB[camera][0].texture_id = readFileTexID[next][0];
    gaussFboAttrB[camera][0].fbo_id = readFileFboID[next][0];
    return true;
}

ExposureCompensation::Source zqglMultibandBlend::exposureSource() const
{
    ExposureCompensation::Source source;
    const SeamAtlasLayout& layout = measuredLayout();
    const int level = layout.measuredLevel();
    source.layout = &layout;
    source.level = level;
    if (layout.levels() == 0) return source;
    if (portablePath()) {
        source.reads.push_back({seamAtlas.gaussFramebuffer(level), {0, 0, layout.gridWidth(level), 2 * layout.gridHeight(level)}});
        return source;
    }
    for (int s = 0; s < layout.seamCount(); ++s) {
        const int camera = layout.seam(s).camera;
        for (SeamAtlasLayout::Side side : {SeamAtlasLayout::sideA, SeamAtlasLayout::sideB}) {
            const drmSharedFramebuffer* pyramid = (side == SeamAtlasLayout::sideA ? gaussFboAttrA : gaussFboAttrB)[camera];
            if (pyramid != nullptr) source.reads.push_back({pyramid[level].fbo_id, layout.sideRect(s, side, level)});
        }
    }
    return source;
}

FrameCounters& zqglMultibandBlend::frameCounters()
{
    return frameCountersOf(_multiResource);
}

int zqglMultibandBlend::glesMultibandDrawGauss(int* do_blend_array)
{
    AvsTimer timer;
    if (portablePath()) {  // every seam's pyramids at once, one pass a level
        if (seamAtlas.reduce(frameCounters()) < 0) {
            AVS_LOGE("seam atlas pyramids failed!");
            return -1;
        }
        AVS_LOG_TIME(timer);
        return 0;
    }
    for (int i = 0; i < cameraNum; ++i) {
        if (do_blend_array[i] <= 0) continue;
        if (!fillSeamBaseLevels(i)) return -1;
        int levels = _multiResource->multi_band_num[i];
        int width = _multiResource->output_width[i];
        int height = _multiResource->bld_height;
        int retA = draw_gauss_multi_texture(levels, gaussFboAttrA[i], width, height);
        int retB = draw_gauss_multi_texture(levels, gaussFboAttrB[i], width, height);
        if (retA < 0 || retB < 0) {
            AVS_LOGE("draw_gauss_multi_texture failed!");
            return -1;
        }
    }
    AVS_LOG_TIME(timer);
    return 0;
}

// Each level is one bilinear sample of the finer level at the pixel's centre: a 2 x 2 box filter
// where sizes halve exactly.
int zqglMultibandBlend::draw_gauss_multi_texture(int multiNum, drmSharedFramebuffer* gaussFboAttr, int multiW,
                                                 int multiH)
{
    AvsTimer timer;
    if (gaussFboAttr == nullptr) {
        AVS_LOGE("avs-debug drmSharedFramebuffer* gaussFboAttr=NULL!");
        return -1;
    }
    for (int l = 1; l < multiNum; ++l) {
        glViewport(0, 0, pyramidLevelSize(multiW, l), pyramidLevelSize(multiH, l));
        checkGlError("glViewport");
        glActiveTexture(GL_TEXTURE0);
        glBindTexture(GL_TEXTURE_2D, gaussFboAttr[l - 1].texture_id);
        if (!checkGlError("glBindTexture")) return -1;
        glBindFramebuffer(GL_FRAMEBUFFER, gaussFboAttr[l].fbo_id);
        if (!checkGlError("glBindFramebuffer")) return -1;
        // The quad covers every pixel; the clear stays [kept:K3].
        glClearColor(0.0f, 0.0f, 1.0f, 1.0f);
        glClear(GL_COLOR_BUFFER_BIT);

        glUseProgram(gProgram);
        get_program_handle(gProgram);
        bindQuadAttributes(false);
        glUniform1i(static_cast<GLint>(gvTextureSamplerHandle), 0);
        glDrawArrays(GL_TRIANGLES, 0, kQuadVertexCount);
        if (!checkGlError("glDrawArrays")) return -1;
        frameCounters().draw(gaussFboAttr[l].fbo_id, GL_TRIANGLES, kQuadVertexCount,
                             static_cast<int64_t>(pyramidLevelSize(multiW, l)) * pyramidLevelSize(multiH, l));
    }
    AVS_LOG_TIME(timer);
    return 0;
}

// ---- pass 2: blended collapse ----------------------------------------------------------------

// Level 0 goes into the seam's rectangle of the output image (scaled by the viewport, no clear);
// the other levels into their own result framebuffers.
int zqglMultibandBlend::bindBlendTarget(int camera, int level, const OutputPlane& out)
{
    if (level == 0) {
        glBindFramebuffer(GL_FRAMEBUFFER, out.fbo);
        if (!checkGlError("glBindFramebuffer")) return -1;
        setPlaneViewport(out, _multiResource->resize_startx[camera], 0, _multiResource->resize_width[camera],
                         _multiResource->resize_height[camera]);
        if (!checkGlError("glViewport")) return -1;
        return 0;
    }
    const drmSharedFramebuffer& target = outFboAttr[camera][level];
    glBindFramebuffer(GL_FRAMEBUFFER, target.fbo_id);
    if (!checkGlError("glBindFramebuffer")) return -1;
    glViewport(0, 0, pyramidLevelSize(_multiResource->output_width[camera], level),
               pyramidLevelSize(_multiResource->bld_height, level));
    if (!checkGlError("glViewport")) return -1;
    glClearColor(0.0f, 0.0f, 1.0f, 1.0f);
    glClear(GL_COLOR_BUFFER_BIT);
    return 0;
}

void zqglMultibandBlend::countBlendDraw(int camera, int level, const OutputPlane& out)
{
    const multibandResource& r = *_multiResource;
    if (level == 0) {
        const PlaneRect rect = onPlane(out, r.resize_startx[camera], 0, r.resize_width[camera], r.resize_height[camera]);
        frameCounters().draw(out.fbo, GL_TRIANGLES, kQuadVertexCount, static_cast<int64_t>(rect.w) * rect.h);
        return;
    }
    frameCounters().draw(outFboAttr[camera][level].fbo_id, GL_TRIANGLES, kQuadVertexCount,
                         static_cast<int64_t>(pyramidLevelSize(r.output_width[camera], level)) *
                             pyramidLevelSize(r.bld_height, level));
}

int zqglMultibandBlend::useLowestLevelInputs(int camera, int level)
{
    glUseProgram(gProgram_lowest);
    checkGlError("glUseProgram(gProgram_lowest)");
    get_prog_lowest_handle(gProgram_lowest);
    const SamplerInput inputs[] = {
        {gaussFboAttrA[camera][level].texture_id, gtexGaussASamplerHandle_lowest, "bind Fbo failed!"},
        {gaussFboAttrB[camera][level].texture_id, gtexGaussBSamplerHandle_lowest, "bind Fbo failed!"},
        {alphaAttr[camera][level].texture_id, gtexAlphaSamplerHandle_lowest, "bind alpha texture failed!"},
    };
    if (const char* missing = bindSamplerInputs(inputs)) {
        AVS_LOGE("%s", missing);
        return -1;
    }
    return 0;
}

int zqglMultibandBlend::useBlendLevelInputs(int camera, int level, int plane)
{
    // Level 0 always writes YUV (on the plane paths luma or chroma), whatever the output format;
    // the second label names the other program [kept:K10].
    GLuint program = level != 0 ? gProgram_blend : plane == 1 ? gProgram_blendChroma : gProgram_blendYUV;
    glUseProgram(program);
    checkGlError(level == 0 ? "glUseProgram(gProgram_blendYUV)" : "glUseProgram(gProgram_lowest)");
    get_prog_blend_handle(program);
    const SamplerInput inputs[] = {
        {gaussFboAttrA[camera][level].texture_id, gtexGaussA_n0_SamplerHandle_blend, "bind fbo failed!"},
        {gaussFboAttrB[camera][level].texture_id, gtexGaussB_n0_SamplerHandle_blend, "bind fbo failed!"},
        {gaussFboAttrA[camera][level + 1].texture_id, gtexGaussA_n1_SamplerHandle_blend, "bind fbo failed!"},
        {gaussFboAttrB[camera][level + 1].texture_id, gtexGaussB_n1_SamplerHandle_blend, "bind texture failed!"},
        {outFboAttr[camera][level + 1].texture_id, gtexResult_n1_SamplerHandle_blend, "bind texture failed!"},
        {alphaAttr[camera][level].texture_id, gtexAlphaSamplerHandle_blend, "bind alpha texture failed!"},
    };
    if (const char* missing = bindSamplerInputs(inputs)) {
        AVS_LOGE("%s", missing);
        return -1;
    }
    return 0;
}

int zqglMultibandBlend::glesMultibandBlend(GLuint out_fbo, int* do_blend_array)
{
    return glesMultibandBlend(wholeYuvOutput(out_fbo), do_blend_array);
}

int zqglMultibandBlend::collapseSeams()
{
    if (seamAtlas.collapse(frameCounters()) == 0) return 0;
    AVS_LOGE("seam atlas collapse failed!");
    return -1;
}

int zqglMultibandBlend::blendSeamsIntoPlane(const OutputPlane& plane)
{
    for (size_t i = 0; i < seamWindows.size(); ++i)
        seamWindows[i] = {_multiResource->resize_startx[i], _multiResource->resize_width[i],
                          _multiResource->resize_height[i]};
    if (seamAtlas.blendIntoPlane(plane, seamWindows, frameCounters()) == 0) return 0;
    AVS_LOGE("seam atlas blend into plane %d failed!", plane.plane);
    return -1;
}

int zqglMultibandBlend::glesMultibandBlend(const OutputPlanes& out, int* do_blend_array)
{
    AvsTimer timer;
    if (portablePath()) {
        if (collapseSeams() < 0) return -1;
        for (int p = 0; p < out.count; ++p) {
            glBindFramebuffer(GL_FRAMEBUFFER, out.planes[p].fbo);
            if (!checkGlError("glBindFramebuffer") || blendSeamsIntoPlane(out.planes[p]) < 0) return -1;
        }
        AVS_LOG_TIME(timer);
        return 0;
    }
    for (int i = 0; i < cameraNum; ++i) {
        if (do_blend_array[i] <= 0) continue;
        if (gaussFboAttrA[i] == nullptr || gaussFboAttrB[i] == nullptr || outFboAttr[i] == nullptr ||
            alphaAttr[i] == nullptr) {
            AVS_LOGE("camera %d has no pyramids!", i);
            return -1;
        }
        int levels = _multiResource->multi_band_num[i];
        for (int l = levels - 1; l >= 0; --l) {
            // Only the finest level goes into the output, once per plane.
            const int planes = l == 0 ? out.count : 1;
            for (int p = 0; p < planes; ++p) {
                if (bindBlendTarget(i, l, out.planes[p]) < 0) return -1;
                int ret = l == levels - 1 ? useLowestLevelInputs(i, l) : useBlendLevelInputs(i, l, out.planes[p].plane);
                if (ret < 0) return -1;
                if (!bindQuadAttributes(true)) return -1;
                glDrawArrays(GL_TRIANGLES, 0, kQuadVertexCount);
                if (!checkGlError("glDrawArrays")) return -1;
                countBlendDraw(i, l, out.planes[p]);
            }
        }
    }
    AVS_LOG_TIME(timer);
    return 0;
}

}  // namespace zqgfx_gpu_avs
