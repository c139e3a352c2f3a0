// Remap engine: the frame passes. Non-overlap blocks are drawn straight into the output image,
// overlap blocks into their own intermediate framebuffers for the multiband blend. Each block is
// one triangle strip from the mesh buffer cache (or, in the older passes, from shared buffers).
#include "remap/gl_nv12_remap.h"

#include <cstdint>
#include <cstdio>

#include "shaders/avs_shader_texts.h"
#include "blend/gles_multiband_blend.h"
#include "io/plane_io.h"
#include "blend/seam_atlas.h"


namespace zqgfx_gpu_avs {

namespace {

constexpr const char* kSetupFailed = "Could not set up graphics.\n";
constexpr const char* kRenderFailed = "Could not render frame.\n";

// How a pass reports a failed viewport or draw: as its own error line, or as a plain line on
// standard error (the overlap pass and the older passes) [kept:K11].
struct PassReports {
    const char* pass;
    bool setupOnStderr;
    bool renderOnStderr;
};

void reportStep(const PassReports& reports, bool onStderr, const char* text)
{
    if (onStderr)
        fputs(text, stderr);
    else
        AVS_LOGE_IN(reports.pass, "%s", text);
}

// Viewport rectangle of one block in its target framebuffer.
struct BlockViewport {
    int x;
    int w;
    int h;
};

int bindBlockCamera(ZQGL_Remap& engine, const PassReports& reports, int cam)
{
    if (engine.bindCameraTexture(cam) == 0) return 0;
    const GLuint texture = cam < static_cast<int>(engine.textureID.size()) ? engine.textureID[cam] : 0;
    AVS_LOGE_IN(reports.pass, "glBindTexture textureID=%d failed!\n", texture);
    return -1;
}

BlockViewport onPlane(const BlockViewport& view, const OutputPlane& plane)
{
    const PlaneRect r = onPlane(plane, view.x, 0, view.w, view.h);
    return {r.x, r.w, r.h};
}

// The layout lists and overlap framebuffers the passes index must be there.
bool passInputsComplete(const ZQGL_Remap& engine, const char* pass, bool overlapTargets)
{
    const PSR_INITPARAMS_T& layout = engine._remap_init_params;
    if (!layoutListsComplete(layout)) {
        AVS_LOGE_IN(pass, "layout lists are shorter than their block counts");
        return false;
    }
    if (!overlapTargets) return true;
    bool made = engine.overlapFramebuffer.size() >= static_cast<size_t>(layout.camera_num);
    for (int cam = 0; made && cam < layout.camera_num; ++cam)
        made = engine.overlapFramebuffer[cam].size() >= static_cast<size_t>(layout.overlap_block[cam].overlap_num);
    if (!made) AVS_LOGE_IN(pass, "overlap framebuffers missing: remap set-up did not run for this layout");
    return made;
}

int bindPassFramebuffer(const char* pass, GLuint fbo)
{
    glBindFramebuffer(GL_FRAMEBUFFER, fbo);
    if (checkGlError("glBindFramebuffer")) return 0;
    AVS_LOGE_IN(pass, "glBindFramebuffer fbo=%d failed!\n", fbo);
    return -1;
}

// Size and output checks that open both non-overlap passes.
int checkOutputPass(const ZQGL_Remap& engine, const char* pass)
{
    const int bld_w = engine._remap_init_params.bld_width;
    const int bld_h = engine._remap_init_params.bld_height;
    if (bld_w < 0 || bld_w >= kMaxTextureSize || bld_h < 0 || bld_h >= kMaxTextureSize) {
        AVS_LOGE_IN(pass, "bld_width=%d or bld_height=%d is exceed the gpu max texture size limit!", bld_w, bld_h);
        return -1;
    }
    if (engine.framebuffer0 == 0) {
        AVS_LOGE_IN(pass, "framebuffer0=%d is illegal!", engine.framebuffer0);
        return -1;
    }
    return 0;
}

// Runs `drawPlane` once per plane of the output (once in all on the target path), with the
// plane's framebuffer bound. The output is not cleared: whatever no block covers keeps the
// buffer's previous content.
template <class DrawPlane>
int drawOnOutputPlanes(const ZQGL_Remap& engine, const char* pass, DrawPlane drawPlane)
{
    const OutputPlanes out = engine.outputPlanes();
    if (out.count == 0) {
        AVS_LOGE_IN(pass, "framebuffer0=%d has no output planes", engine.framebuffer0);
        return -1;
    }
    for (int p = 0; p < out.count; ++p) {
        if (bindPassFramebuffer(pass, out.planes[p].fbo) != 0) return -1;
        if (drawPlane(out.planes[p]) != 0) return -1;
    }
    return 0;
}

// The block's position and texture-coordinate buffers, which must agree in mesh size.
bool findBlockMeshes(ZQGL_Remap& engine, const char* pass, int index, RemapVboInfo** vertex, RemapVboInfo** tex)
{
    *vertex = engine.getVertexVboInfoByIndex(index);
    *tex = engine.getTexVertexVboInfoByIndex(index);
    if (*vertex == nullptr || *tex == nullptr) {
        AVS_LOGE_IN(pass, "Error: can not find index=%d mesh info!\n", index);
        return false;
    }
    if ((*vertex)->meshWidth != (*tex)->meshWidth || (*vertex)->meshHeight != (*tex)->meshHeight) {
        AVS_LOGE_IN(pass, "Error: invalid mesh index=%d w=%d h=%d!\n", index, (*vertex)->meshWidth,
                    (*vertex)->meshHeight);
        return false;
    }
    return true;
}

// The per-block step every pass shares: viewport, camera image, strip (drawn with `program`, or
// its exposure-compensated twin); the strip's work is counted against `fbo`.
template <class DrawStrip>
int drawBlock(ZQGL_Remap& engine, const PassReports& reports, GLuint program, const BlockViewport& view, int cam,
              GLuint fbo, int vertices, DrawStrip drawStrip)
{
    const GLuint used = engine.compensatedProgram(program, cam);
    if (!engine.setupGraphicsTest(used, view.x, 0, view.w, view.h)) {
        reportStep(reports, reports.setupOnStderr, kSetupFailed);
        return -1;
    }
    if (bindBlockCamera(engine, reports, cam) != 0) return -1;
    if (drawStrip(used) != 1) {
        reportStep(reports, reports.renderOnStderr, kRenderFailed);
        return -1;
    }
    engine.frameCounters().draw(fbo, GL_TRIANGLE_STRIP, vertices, static_cast<int64_t>(view.w) * view.h);
    return 0;
}

// The plane paths' step: the camera image, then the block as one quad with its mesh texture.
int drawBlockQuad(ZQGL_Remap& engine, const PassReports& reports, MeshQuadRemap::Program program, int index,
                  const BlockViewport& view, int y, int cam, GLuint fbo, int pack)
{
    if (bindBlockCamera(engine, reports, cam) != 0) return -1;
    std::array<GLfloat, 9> gain{};
    const bool compensated = engine.cameraGain(cam, &gain);
    if (!engine.meshQuads.draw(program, index, fbo, pack, view.x, y, view.w, view.h, engine.frameCounters(),
                               compensated ? &gain : nullptr)) {
        reportStep(reports, reports.renderOnStderr, kRenderFailed);
        return -1;
    }
    return 0;
}

// One strip of the mesh's vertex count, both attributes read from `byteOffset` of their
// buffers. 1, or 0 when the draw failed (the arrays then stay enabled and the buffer bound).
int drawStrip(const ZQGL_Remap& engine, const char* caller, GLuint program, int mesh_w, int mesh_h, GLuint verVBO,
              GLuint texVBO, intptr_t byteOffset)
{
    AVS_LOGD("mesh_w=%d, mesh_w=%d verVBO=%d texVBO=%d\n", mesh_w, mesh_h, verVBO, texVBO);
    const void* offset = reinterpret_cast<const void*>(byteOffset);
    glUseProgram(program);
    checkGlError("glUseProgram");
    glUniform1i(static_cast<GLint>(engine.gvTextureSamplerHandle), 0);
    checkGlError("glUniform1i");
    glBindBuffer(GL_ARRAY_BUFFER, verVBO);
    checkGlError("glBindBuffer");
    glVertexAttribPointer(engine.gvPositionHandle, 2, GL_FLOAT, GL_FALSE, 0, offset);
    checkGlError("glVertexAttribPointer");
    glEnableVertexAttribArray(engine.gvPositionHandle);
    checkGlError("glEnableVertexAttribArray");
    glBindBuffer(GL_ARRAY_BUFFER, texVBO);
    checkGlError("glBindBuffer");
    glVertexAttribPointer(engine.gvTextureTexCoordsHandle, 2, GL_FLOAT, GL_FALSE, 0, offset);
    checkGlError("glVertexAttribPointer");
    glEnableVertexAttribArray(engine.gvTextureTexCoordsHandle);
    checkGlError("glEnableVertexAttribArray");
    glDrawArrays(GL_TRIANGLE_STRIP, 0, stripVertexCount(mesh_w, mesh_h));
    if (!checkGlError("glDrawArrays")) {
        AVS_LOGE_IN(caller, "renderFrame failed!\n");
        return 0;
    }
    glDisableVertexAttribArray(engine.gvPositionHandle);
    glDisableVertexAttribArray(engine.gvTextureTexCoordsHandle);
    glBindBuffer(GL_ARRAY_BUFFER, 0);
    return 1;
}

}  // namespace

int ZQGL_Remap::bindCameraTexture(int cam)
{
    if (cam < 0 || cam >= static_cast<int>(textureID.size())) {
        AVS_LOGE("no image imported for camera %d", cam);
        return -1;
    }
    const int slot = cam < static_cast<int>(cameraSlots.size()) ? cameraSlots[cam] : -1;
    return frameIo().bindInput(slot, textureID[cam]) ? 0 : -1;
}

bool ZQGL_Remap::createGainPrograms()
{
    if (meshQuads.ready()) return meshQuads.createGainPrograms();
    const char* const texts[2] = {gRemapGainFragmentShaderYUV, gRemapGainFragmentShaderRGB};
    for (int k = 0; k < 2; ++k) {
        if (gainPrograms[k]) continue;
        gainPrograms[k] = makeProgram(gRemapVertexShader, texts[k]);
        if (!gainPrograms[k]) {
            AVS_LOGE("remap program %d with exposure compensation does not build", k);
            return false;
        }
        gainLocations[k] = glGetUniformLocation(gainPrograms[k].get(), "yuvGain");
    }
    return true;
}

bool ZQGL_Remap::cameraGain(int cam, std::array<GLfloat, 9>* gain) const
{
    const ExposureCompensation* compensation = blendResource != nullptr ? blendResource->compensation : nullptr;
    if (compensation == nullptr || !compensation->active()) return false;
    *gain = yuvGainMatrix(compensation->gains(cam));
    return true;
}

GLuint ZQGL_Remap::compensatedProgram(GLuint program, int cam)
{
    const int k = program == gProgram ? 0 : program == gProgramRGB ? 1 : -1;
    std::array<GLfloat, 9> gain{};
    if (k < 0 || !gainPrograms[k] || !cameraGain(cam, &gain)) return program;
    glProgramUniformMatrix3fv(gainPrograms[k].get(), gainLocations[k], 1, GL_FALSE, gain.data());
    return gainPrograms[k].get();
}

FrameCounters& ZQGL_Remap::frameCounters()
{
    return frameCountersOf(blendResource);
}

namespace {
constexpr PassReports kNonoverlapReports{"glesRemapNonoverlapNew", false, false};
}

int ZQGL_Remap::drawNonoverlapBlocks(const OutputPlane& plane)
{
    const PassReports& reports = kNonoverlapReports;
    const PSR_INITPARAMS_T& layout = _remap_init_params;
    const GLuint program = outputProgram(plane);
    const MeshQuadRemap::Program quadProgram =
        plane.plane == 1 ? MeshQuadRemap::chromaProgram : MeshQuadRemap::lumaProgram;
    for (int cam = 0; cam < layout.camera_num; ++cam) {
        const zqPSR_NONOVERLAP_BLOCK& blocks = layout.nonoverlap_block[cam];
        for (int bn = 0; bn < blocks.nonoverlap_num; ++bn) {
            RemapVboInfo* vertex = nullptr;
            RemapVboInfo* tex = nullptr;
            const int index = meshIndexOf(cam, bn);
            if (!findBlockMeshes(*this, reports.pass, index, &vertex, &tex)) return -1;
            const BlockViewport view{blocks.dst_startx[bn], blocks.dst_width[bn], layout.bld_height};
            AVS_LOGD("dst_x=%d,dst_w=%d,dst_h=%d,mesh_w=%d,mesh_h=%d\n", view.x, view.w, view.h, vertex->meshWidth,
                     vertex->meshHeight);
            const BlockViewport onTarget = onPlane(view, plane);
            const int drawn =
                meshQuads.ready()
                    ? drawBlockQuad(*this, reports, quadProgram, index, onTarget, 0, cam, plane.fbo, plane.pack)
                    : drawBlock(*this, reports, program, onTarget, cam, plane.fbo,
                                stripVertexCount(vertex->meshWidth, vertex->meshHeight), [&](GLuint used) {
                                    return renderFrameNew(used, vertex->meshWidth, vertex->meshHeight,
                                                          vertex->mVboId, tex->mVboId);
                                });
            if (drawn != 0) return -1;
        }
    }
    return 0;
}

int ZQGL_Remap::drawOutputPlanes(PlaneFollowUp alsoOnPlane, void* context)
{
    const PassReports& reports = kNonoverlapReports;
    if (!passInputsComplete(*this, reports.pass, false)) return -1;
    AvsTimer timer;
    if (checkOutputPass(*this, reports.pass) != 0) return -1;
    auto drawPlane = [&](const OutputPlane& plane) {
        if (drawNonoverlapBlocks(plane) != 0) return -1;
        return alsoOnPlane != nullptr ? alsoOnPlane(context, plane) : 0;
    };
    if (drawOnOutputPlanes(*this, reports.pass, drawPlane) != 0) return -1;
    AVS_LOGD("ZQGL_Remap_Nonoverlap_VBO use time=%f ms \n", timer.elapsedMs());
    return 0;
}

int ZQGL_Remap::glesRemapNonoverlapNew()
{
    return drawOutputPlanes(nullptr, nullptr);
}

// Plane paths: both sides of every blended seam into the seam atlas's finest level, in one pass.
// Overlap blocks that no seam blends are never shown, so they are not drawn.
int ZQGL_Remap::drawSeamSidesIntoAtlas()
{
    static constexpr PassReports reports{"glesRemapOverlapNew", true, false};
    const SeamAtlas* atlas = blendResource != nullptr ? blendResource->seamAtlas : nullptr;
    if (atlas == nullptr || atlas->finestFramebuffer() == 0) {
        AVS_LOGE_IN(reports.pass, "no seam atlas: the blend was not set up for this layout");
        return -1;
    }
    const PSR_INITPARAMS_T& layout = _remap_init_params;
    const GLuint fbo = atlas->finestFramebuffer();
    if (bindPassFramebuffer(reports.pass, fbo) != 0) return -1;
    const SeamAtlasLayout& cells = atlas->layout();
    for (int s = 0; s < cells.seamCount(); ++s) {
        const int cams[2] = {cells.seam(s).camera, seamNextCamera(cells.seam(s).camera, layout.camera_num)};
        for (int side = 0; side < 2; ++side) {
            const int cam = cams[side];
            const int overlaps = layout.overlap_block[cam].overlap_num;
            if (overlaps <= 0) {
                AVS_LOGE_IN(reports.pass, "camera %d has no overlap block to blend!", cam);
                return -1;
            }
            // Side A: the camera's last overlap block; side B: the next camera's first one.
            const int index = meshIndexOf(cam, layout.nonoverlap_block[cam].nonoverlap_num + (side == 0 ? overlaps - 1 : 0));
            RemapVboInfo* vertex = nullptr;
            RemapVboInfo* tex = nullptr;
            if (!findBlockMeshes(*this, reports.pass, index, &vertex, &tex)) return -1;
            const AtlasRect r = cells.sideRect(s, side == 0 ? SeamAtlasLayout::sideA : SeamAtlasLayout::sideB, 0);
            if (drawBlockQuad(*this, reports, MeshQuadRemap::rgbProgram, index, BlockViewport{r.x, r.w, r.h}, r.y,
                              cam, fbo, 1) != 0)
                return -1;
        }
    }
    return 0;
}

int ZQGL_Remap::glesRemapOverlapNew()
{
    static constexpr PassReports reports{"glesRemapOverlapNew", true, false};
    if (!passInputsComplete(*this, reports.pass, true)) return -1;
    AvsTimer timer;
    if (meshQuads.ready()) {
        if (drawSeamSidesIntoAtlas() != 0) return -1;
        AVS_LOGD("ZQGL_Remap_Overlap_VBO use time=%f ms \n", timer.elapsedMs());
        return 0;
    }

    const PSR_INITPARAMS_T& layout = _remap_init_params;
    for (int cam = 0; cam < layout.camera_num; ++cam) {
        const zqPSR_OVERLAP_BLOCK& blocks = layout.overlap_block[cam];
        const int first = layout.nonoverlap_block[cam].nonoverlap_num;
        for (int bn = 0; bn < blocks.overlap_num; ++bn) {
            RemapVboInfo* vertex = nullptr;
            RemapVboInfo* tex = nullptr;
            if (!findBlockMeshes(*this, reports.pass, meshIndexOf(cam, first + bn), &vertex, &tex)) return -1;
            // The whole intermediate framebuffer, at the blend height of set-up time; the blend
            // places it in the panorama later.
            const BlockViewport view{0, blocks.dst_width[bn], const_blend_height};
            AVS_LOGD("dst_x=%d,dst_w=%d,dst_h=%d,mesh_w=%d,mesh_h=%d\n", view.x, view.w, view.h, vertex->meshWidth,
                     vertex->meshHeight);
            const GLuint fbo = overlapFramebuffer[cam][bn].fbo_id;
            if (bindPassFramebuffer(reports.pass, fbo) != 0) return -1;
            if (drawBlock(*this, reports, gProgramRGB, view, cam, fbo,
                          stripVertexCount(vertex->meshWidth, vertex->meshHeight), [&](GLuint used) {
                              return renderFrameNew(used, vertex->meshWidth, vertex->meshHeight,
                                                    vertex->mVboId, tex->mVboId);
                          }) != 0)
                return -1;
        }
    }
    AVS_LOGD("ZQGL_Remap_Overlap_VBO use time=%f ms \n", timer.elapsedMs());
    return 0;
}

int ZQGL_Remap::renderFrameNew(GLuint program, int mesh_w, int mesh_h, GLuint verVBO, GLuint texVBO)
{
    return drawStrip(*this, __FUNCTION__, program, mesh_w, mesh_h, verVBO, texVBO, 0);
}

int ZQGL_Remap::glesRemapNonoverlapVBO()
{
    static constexpr PassReports reports{"glesRemapNonoverlapVBO", true, true};
    if (!passInputsComplete(*this, reports.pass, false)) return -1;
    AvsTimer timer;
    if (checkOutputPass(*this, reports.pass) != 0) return -1;

    // The blocks lie back to back in the shared buffers; `floats` counts up to this block's end.
    const PSR_INITPARAMS_T& layout = _remap_init_params;
    auto drawPlane = [&](const OutputPlane& plane) {
        const GLuint program = outputProgram(plane);
        int floats = 0;
        for (int cam = 0; cam < layout.camera_num; ++cam) {
            const zqPSR_NONOVERLAP_BLOCK& blocks = layout.nonoverlap_block[cam];
            for (int bn = 0; bn < blocks.nonoverlap_num; ++bn) {
                const int mesh_w = blocks.mesh_width[bn];
                const int mesh_h = blocks.mesh_height[bn];
                floats += 2 * stripVertexCount(mesh_w, mesh_h);
                const BlockViewport view{blocks.dst_startx[bn], blocks.dst_width[bn], layout.bld_height};
                AVS_LOGD("avs-debug bld_h=%d dst_x=%d,dst_w=%d,mesh_w=%d,mesh_h=%d\n", view.h, view.x, view.w,
                         mesh_w, mesh_h);
                if (drawBlock(*this, reports, program, onPlane(view, plane), cam, plane.fbo,
                              stripVertexCount(mesh_w, mesh_h), [&](GLuint used) {
                        return renderFrameVBO(used, mesh_w, mesh_h, floats, nonoverlapVertexesVBO,
                                              nonoverlapTexVertexesVBO);
                    }) != 0)
                    return -1;
            }
        }
        return 0;
    };
    if (drawOnOutputPlanes(*this, reports.pass, drawPlane) != 0) return -1;
    AVS_LOGD("ZQGL_Remap_Nonoverlap_VBO use time=%f ms \n", timer.elapsedMs());
    return 0;
}

int ZQGL_Remap::glesRemapOverlapVBO()
{
    static constexpr PassReports reports{"glesRemapOverlapVBO", true, true};
    if (!passInputsComplete(*this, reports.pass, true)) return -1;
    AvsTimer timer;

    const PSR_INITPARAMS_T& layout = _remap_init_params;
    int floats = 0;
    for (int cam = 0; cam < layout.camera_num; ++cam) {
        const zqPSR_OVERLAP_BLOCK& blocks = layout.overlap_block[cam];
        for (int bn = 0; bn < blocks.overlap_num; ++bn) {
            const int mesh_w = blocks.mesh_width[bn];
            const int mesh_h = blocks.mesh_height[bn];
            floats += 2 * stripVertexCount(mesh_w, mesh_h);
            const BlockViewport view{0, blocks.dst_width[bn], const_blend_height};
            AVS_LOGD("avs-debug bld_h=%d dst_x=%d,dst_w=%d,mesh_w=%d,mesh_h=%d\n", view.h, view.x, view.w, mesh_w,
                     mesh_h);
            const GLuint fbo = overlapFramebuffer[cam][bn].fbo_id;
            if (bindPassFramebuffer(reports.pass, fbo) != 0) return -1;
            if (drawBlock(*this, reports, gProgramRGB, view, cam, fbo, stripVertexCount(mesh_w, mesh_h), [&](GLuint used) {
                    return renderFrameVBO(used, mesh_w, mesh_h, floats, overlapVertexesVBO,
                                          overlapTexVertexesVBO);
                }) != 0)
                return -1;
        }
    }
    AVS_LOGD("ZQGL_Remap_Overlap_VBO use time=%f ms \n", timer.elapsedMs());
    return 0;
}

int ZQGL_Remap::renderFrameVBO(GLuint program, int mesh_w, int mesh_h, int index_offset, GLuint verVBO, GLuint texVBO)
{
    const int sizex = mesh_w - 1;
    const int sizey = mesh_h - 1;
    if (index_offset < 1 || sizex >= 512 || sizey >= 512) {
        AVS_LOGE("arguements illegal sizex=%d,sizey=%d,offset=%d\n", sizex, sizey, index_offset);
        return 0;
    }
    // `index_offset` counts the floats up to this block's end; its run starts a strip earlier.
    const intptr_t firstFloat = index_offset - 2 * static_cast<intptr_t>(stripVertexCount(mesh_w, mesh_h));
    return drawStrip(*this, __FUNCTION__, program, mesh_w, mesh_h, verVBO, texVBO,
                     firstFloat * static_cast<intptr_t>(sizeof(GLfloat)));
}

int ZQGL_Remap::outputOverlapRemap(unsigned char*, int, int, int, int, unsigned char*)
{
    return 0;
}

// Not called by the library: an output step of the overlaps that was never finished. As it
// stands it paints the whole output magenta.
int ZQGL_Remap::ZQGL_Output_Overlap()
{
    AvsTimer timer;
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer0);
    glClearColor(1.0f, 0.0f, 1.0f, 1.0f);
    checkGlError("glClearColor");
    glClear(GL_COLOR_BUFFER_BIT);
    checkGlError("glClear");
    AVS_GL_TRACE("glActiveTexture(GL_TEXTURE0)", glActiveTexture(GL_TEXTURE0));
    AVS_LOGD("ZQGL_Output_Image use time=%f ms \n", timer.elapsedMs());
    return 0;
}

}  // namespace zqgfx_gpu_avs
