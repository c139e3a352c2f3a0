// Remap engine: set-up from a stitching layout (overlap framebuffers, mesh buffers), set-up
// again with a new layout, and the horizontal rescaling of a resize.
#include "remap/gl_nv12_remap.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "blend/gles_multiband_blend.h"

namespace zqgfx_gpu_avs {

namespace {

// A resized seam window snaps onto a block edge this close, on either side, inclusive.
constexpr int kSnapTolerance = 2;

template <class... Lists>
bool holdAtLeast(int count, const Lists&... lists)
{
    return count >= 0 && ((lists.size() >= static_cast<size_t>(count)) && ...);
}

// Everything of the layout the engine keeps; the gain fields keep their previous values.
void copyLayout(const PSR_INITPARAMS_T& from, PSR_INITPARAMS_T* to)
{
    to->camera_num = from.camera_num;
    to->image_stride = from.image_stride;
    to->output_image_stride = from.output_image_stride;
    to->image_formate = from.image_formate;
    to->src_width = from.src_width;
    to->src_height = from.src_height;
    to->bld_width = from.bld_width;
    to->bld_height = from.bld_height;
    to->step_x = from.step_x;
    to->step_y = from.step_y;
    to->image_block_num = from.image_block_num;
    to->nonoverlap_block = from.nonoverlap_block;
    to->overlap_block = from.overlap_block;
    to->useSync = from.useSync;
}

// Float to int by truncation toward zero; an absurd scale saturates instead of overflowing.
int truncToInt(float value)
{
    if (value >= static_cast<float>(INT_MAX)) return INT_MAX;
    if (value <= static_cast<float>(INT_MIN)) return INT_MIN;
    return static_cast<int>(value);
}

int truncScaled(int value, float scale)
{
    return truncToInt(static_cast<float>(value) * scale);
}

// Rounded up, so that a rescaled block never comes out narrower than its exact width.
int ceilScaled(int value, float scale)
{
    return truncToInt(std::ceil(static_cast<float>(value) * scale));
}

bool withinSnap(int error)
{
    return error >= -kSnapTolerance && error <= kSnapTolerance;
}

// The engine's non-overlap lists take the initial layout's shape; starts and widths are rescaled.
void scaleNonoverlapBlocks(const PSR_INITPARAMS_T& initial, float scale_x, PSR_INITPARAMS_T* resized)
{
    resized->nonoverlap_block = initial.nonoverlap_block;
    for (int cam = 0; cam < initial.camera_num; ++cam) {
        const zqPSR_NONOVERLAP_BLOCK& from = initial.nonoverlap_block[cam];
        zqPSR_NONOVERLAP_BLOCK& to = resized->nonoverlap_block[cam];
        for (int bn = 0; bn < from.nonoverlap_num; ++bn) {
            to.dst_startx[bn] = truncScaled(from.dst_startx[bn], scale_x);
            to.dst_width[bn] = ceilScaled(from.dst_width[bn], scale_x);
            AVS_LOGD("nonoverlap_block_x=%d nonoverlap_block_w=%d\n", to.dst_startx[bn], to.dst_width[bn]);
        }
    }
}

// The window's start moves onto the right edge of the first of the camera's blocks that ends
// close to it.
int snapStartToBlockEdge(const zqPSR_NONOVERLAP_BLOCK& own, int startx)
{
    for (int bn = 0; bn < own.nonoverlap_num; ++bn) {
        const int resize_startx1 = own.dst_startx[bn] + own.dst_width[bn];
        const int startx_error = startx - resize_startx1;
        if (withinSnap(startx_error)) {
            AVS_LOGD("resize_startx1=%d startx_error=%d resize_startx=%d\n", resize_startx1, startx_error,
                     resize_startx1);
            return resize_startx1;
        }
    }
    return startx;
}

// The window's right edge moves onto the start of the first block of the next camera that
// begins close to it.
int snapWidthToNextBlock(const zqPSR_NONOVERLAP_BLOCK& next, int startx, int width)
{
    for (int bn = 0; bn < next.nonoverlap_num; ++bn) {
        const int nonoverlap_startx_cal = startx + width;
        const int nonoverlap_startx_error = next.dst_startx[bn] - nonoverlap_startx_cal;
        if (withinSnap(nonoverlap_startx_error)) {
            AVS_LOGD("nonoverlap_startx_cal=%d nonoverlap_startx_error=%d resize_width=%d\n", nonoverlap_startx_cal,
                     nonoverlap_startx_error, width + nonoverlap_startx_error);
            return width + nonoverlap_startx_error;
        }
    }
    return width;
}

// Camera `cam`'s seam window rescaled from its planned place and snapped onto the blocks on
// both sides; the last camera's seam meets camera 0 (the panorama wraps around).
void placeSeamWindow(const PSR_INITPARAMS_T& resized, int cam, float scale_x, int bld_h, multibandResource* resource)
{
    const int next = cam + 1 < resized.camera_num ? cam + 1 : 0;
    const int startx = snapStartToBlockEdge(resized.nonoverlap_block[cam],
                                            truncScaled(resource->output_startx[cam], scale_x));
    const int width = snapWidthToNextBlock(resized.nonoverlap_block[next], startx,
                                           truncScaled(resource->output_width[cam], scale_x));
    resource->resize_startx[cam] = startx;
    resource->resize_width[cam] = width;
    resource->resize_height[cam] = bld_h;
}

// Framebuffer then texture of every overlap block the layout names and set-up made; the list is
// emptied so that nothing is deleted twice.
void deleteOverlapFramebuffers(const PSR_INITPARAMS_T& layout, std::vector<std::vector<drmSharedFramebuffer>>* targets)
{
    const size_t cameras = std::min({static_cast<size_t>(std::max(layout.camera_num, 0)), targets->size(),
                                     layout.overlap_block.size()});
    for (size_t cam = 0; cam < cameras; ++cam) {
        const std::vector<drmSharedFramebuffer>& blocks = (*targets)[cam];
        const size_t made = std::min(static_cast<size_t>(std::max(layout.overlap_block[cam].overlap_num, 0)),
                                     blocks.size());
        for (size_t bn = 0; bn < made; ++bn) {
            if (blocks[bn].fbo_id == 0) continue;  // the plane paths make none
            AVS_LOGD("fbo_temp=%d,texture_temp=%d\n", blocks[bn].fbo_id, blocks[bn].texture_id);
            glDeleteFramebuffers(1, &blocks[bn].fbo_id);
            glDeleteTextures(1, &blocks[bn].texture_id);
        }
    }
    targets->clear();
}

bool seamListsCover(const multibandResource& resource, int cameras)
{
    return holdAtLeast(cameras, resource.output_startx, resource.output_width, resource.resize_startx,
                       resource.resize_width, resource.resize_height);
}

// The camera images, the panorama and every seam's finest pyramid level (its overlap block, as
// high as the panorama) against what the driver can hold; the format's own ceiling is checked
// where frames are imported.
bool layoutFitsDriver(const PSR_INITPARAMS_T& layout, const AvsGpuCaps& caps)
{
    if (!fitsDriverLimits(caps, "camera image", layout.src_width, layout.src_height, false) ||
        !fitsDriverLimits(caps, "panorama", layout.bld_width, layout.bld_height, true))
        return false;
    for (int cam = 0; cam < layout.camera_num; ++cam) {
        const zqPSR_OVERLAP_BLOCK& blocks = layout.overlap_block[cam];
        for (int bn = 0; bn < blocks.overlap_num; ++bn)
            if (!fitsDriverLimits(caps, "seam pyramid", blocks.dst_width[bn], layout.bld_height, true)) return false;
    }
    return true;
}

}  // namespace

bool layoutListsComplete(const PSR_INITPARAMS_T& layout)
{
    const int cameras = layout.camera_num;
    if (!holdAtLeast(cameras, layout.nonoverlap_block, layout.overlap_block)) return false;
    for (int cam = 0; cam < cameras; ++cam) {
        const zqPSR_NONOVERLAP_BLOCK& plain = layout.nonoverlap_block[cam];
        const zqPSR_OVERLAP_BLOCK& overlap = layout.overlap_block[cam];
        if (!holdAtLeast(plain.nonoverlap_num, plain.dst_startx, plain.dst_width, plain.mesh_width, plain.mesh_height))
            return false;
        if (!holdAtLeast(overlap.overlap_num, overlap.dst_width, overlap.mesh_width, overlap.mesh_height))
            return false;
    }
    return true;
}

int resizeLayout(const PSR_INITPARAMS_T& initial, const int* do_blend_array, int bld_w, int bld_h,
                 PSR_INITPARAMS_T* resized, multibandResource* resource)
{
    const int bld_w_old = initial.bld_width;
    const int bld_h_old = initial.bld_height;
    // Checked before anything changes, so that a refused resize leaves the previous placement.
    if (resized == nullptr || !layoutListsComplete(initial)) {
        AVS_LOGE("resize refused: initial layout lists are shorter than their block counts");
        return -1;
    }
    if (bld_w_old <= 0 || bld_h_old <= 0) {
        AVS_LOGE("resize refused: initial size %dx%d gives no scale", bld_w_old, bld_h_old);
        return -1;
    }
    if (do_blend_array == nullptr || resource == nullptr || !seamListsCover(*resource, initial.camera_num)) {
        AVS_LOGE("resize refused: no seam plan for %d cameras", initial.camera_num);
        return -1;
    }

    resized->output_image_stride = static_cast<uint32_t>(alignTo16(bld_w));
    resized->bld_width = bld_w;
    resized->bld_height = bld_h;
    const float scale_x = static_cast<float>(bld_w) / static_cast<float>(bld_w_old);
    const float scale_y = static_cast<float>(bld_h) / static_cast<float>(bld_h_old);  // logged only
    AVS_LOGD("bld_w_old=%d bld_h_old=%d\n", bld_w_old, bld_h_old);
    AVS_LOGD("bld_w=%d bld_h=%d scale_x=%f scale_y=%f\n", bld_w, bld_h, scale_x, scale_y);

    scaleNonoverlapBlocks(initial, scale_x, resized);
    for (int cam = 0; cam < initial.camera_num; ++cam)
        if (do_blend_array[cam] >= 1) placeSeamWindow(*resized, cam, scale_x, bld_h, resource);
    return 0;
}

int ZQGL_Remap::glesRemapInit(PSR_INITPARAMS_S* params, multibandResource* resource,
                              std::vector<std::vector<float*>> meshx, std::vector<std::vector<float*>> meshy)
{
    AvsTimer timer;
    if (params == nullptr || resource == nullptr || !layoutListsComplete(*params)) {
        AVS_LOGE("layout refused: missing, or its lists are shorter than their block counts");
        return -1;
    }
    if (!layoutFitsDriver(*params, resource->caps)) return -1;
    copyLayout(*params, &_remap_init_params);
    blendResource = resource;
    // The blend size of set-up time; the overlap passes keep drawing at it after a resize.
    const_blend_height = params->bld_height;
    const_blend_width = params->bld_width;
    AVS_LOGD("_remap_init_params sync=%d\n", _remap_init_params.useSync);

    const int cameras = _remap_init_params.camera_num;
    overlapFramebuffer.resize(cameras);
    resource->overlap_remap_fbo.resize(cameras);
    resource->overlap_num.resize(cameras);
    for (int cam = 0; cam < cameras; ++cam) {
        const zqPSR_OVERLAP_BLOCK& blocks = _remap_init_params.overlap_block[cam];
        const int count = blocks.overlap_num;
        overlapFramebuffer[cam].resize(count);
        resource->overlap_remap_fbo[cam].resize(count);
        resource->overlap_num[cam] = count;
        for (int bn = 0; bn < count; ++bn) {
            if (meshQuads.ready()) {
                // The plane paths draw the blended sides straight into the blend's atlas: no
                // framebuffer of its own, only the size the atlas gives it.
                overlapFramebuffer[cam][bn] = drmSharedFramebuffer{0, 0, nullptr, 0, 0, blocks.dst_width[bn],
                                                                   params->bld_height};
                resource->overlap_remap_fbo[cam][bn] = overlapFramebuffer[cam][bn];
                continue;
            }
            // Each overlap block fills a framebuffer as wide as the block and as high as the blend.
            GLuint texture = 0;
            const GLuint fbo =
                static_cast<GLuint>(create_fbo_no_fd(blocks.dst_width[bn], params->bld_height, &texture));
            overlapFramebuffer[cam][bn] = drmSharedFramebuffer{fbo, texture, nullptr, 0, 0, 0, 0};
            resource->overlap_remap_fbo[cam][bn] = overlapFramebuffer[cam][bn];
            AVS_LOGD("create fbo_temp=%d,texture_temp=%d\n", fbo, texture);
        }
    }

    // A block without buffers shows when the passes look it up.
    create_remap_VBO_by_mesh(std::move(meshx), std::move(meshy));
    AVS_LOGD("glesRemapInit use time=%f ms \n", timer.elapsedMs());
    return 0;
}

int ZQGL_Remap::glesRemapUpdate(PSR_INITPARAMS_S* params, multibandResource* resource,
                                std::vector<std::vector<float*>> meshx, std::vector<std::vector<float*>> meshy)
{
    deleteOverlapFramebuffers(_remap_init_params, &overlapFramebuffer);

    // Names and pointers are reset so that a second update cannot release them again.
    for (GLuint* name :
         {&nonoverlapVertexesVBO, &nonoverlapTexVertexesVBO, &overlapVertexesVBO, &overlapTexVertexesVBO}) {
        glDeleteBuffers(1, name);
        *name = 0;
    }
    for (GLfloat** array : {&nonoverlapVertexes, &nonoverlapTexVertexes, &overlapVertexes, &overlapTexVertexes}) {
        free(*array);
        *array = nullptr;
    }

    // The mesh buffer cache and the import slots stay as they are.
    _remap_init_params = PSR_INITPARAMS_T();
    glesRemapInit(params, resource, std::move(meshx), std::move(meshy));
    return 0;
}

int ZQGL_Remap::glesRemapResize(PSR_INITPARAMS_S* params, multibandResource* resource, int* do_blend_array, int bld_w,
                                int bld_h)
{
    if (params == nullptr) {
        AVS_LOGE("resize refused: no initial layout");
        return -1;
    }
    return resizeLayout(*params, do_blend_array, bld_w, bld_h, &_remap_init_params, resource);
}

}  // namespace zqgfx_gpu_avs
