// Multiband blend engine: the pyramids of every blended seam and their alpha maps.
#include "blend/gles_multiband_blend.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "gl/DebugLog.h"
#include "gl/avs_alloc.h"
#include "calib_core/avs_calib_core.h"
#include "gl/import_core.h"

namespace zqgfx_gpu_avs {

namespace {

// Deeper pyramids would shrink every level to nothing long before; the bound keeps 2^l finite.
constexpr int kMaxPyramidLevels = 16;
constexpr GLuint kNoFramebuffer = 0xFFFFFFFF;
constexpr GLuint kFailedAlphaImport = 0xFFFFFFFF;
constexpr int kColourBpp = 24;

bool isU8Alpha(int avsAlphaType)
{
    return avsAlphaType == FUSE_GPU_ALPHA_U8;
}

size_t alphaElementBytes(int avsAlphaType)
{
    return isU8Alpha(avsAlphaType) ? 1 : sizeof(float);
}

size_t levelArea(int w, int h)
{
    return w > 0 && h > 0 ? static_cast<size_t>(w) * static_cast<size_t>(h) : 0;
}

// A nearest-filtered, edge-clamped single-channel texture from CPU memory; false when the
// upload reports an error. The unpack alignment is left at GL's default of 4.
bool uploadAlphaTexture(GLint internalFormat, GLenum type, int w, int h, const void* pixels, GLuint* texture)
{
    glGenTextures(1, texture);
    checkGlError("glGenTextures");
    glBindTexture(GL_TEXTURE_2D, *texture);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    glTexImage2D(GL_TEXTURE_2D, 0, internalFormat, w, h, 0, GL_RED, type, pixels);
    bool uploaded = checkGlError("glTexImage2D");
    glBindTexture(GL_TEXTURE_2D, 0);
    return uploaded;
}

}  // namespace

// ---- geometry --------------------------------------------------------------------------------

int alphaLevelOffset(int width, int height, int level)
{
    int offset = 0;
    for (int k = 0; k < level; ++k)
        offset += static_cast<int>(levelArea(pyramidLevelSize(width, k), pyramidLevelSize(height, k)));
    return offset;
}

bool alphaLevelImported(int avsAlphaType, int levelWidth)
{
    return isU8Alpha(avsAlphaType) && levelWidth >= kAlphaImportMinWidth;
}

size_t unpackAlignedReadBytes(int w, int h)
{
    if (w <= 0 || h <= 0) return 0;
    size_t rowStride = static_cast<size_t>((w + 3) & ~3);
    return rowStride * static_cast<size_t>(h - 1) + static_cast<size_t>(w);
}

size_t alphaReadExtentBytes(int width, int height, int textureHeight, int levels, int avsAlphaType)
{
    size_t elementBytes = alphaElementBytes(avsAlphaType);
    size_t extent = static_cast<size_t>(alphaBufferLength(width, height, levels)) * elementBytes;
    for (int l = 0; l < levels; ++l) {
        int w = pyramidLevelSize(width, l);
        int h = pyramidLevelSize(textureHeight, l);
        size_t read = isU8Alpha(avsAlphaType) ? unpackAlignedReadBytes(w, h) : levelArea(w, h) * elementBytes;
        extent = std::max(extent, static_cast<size_t>(alphaLevelOffset(width, height, l)) * elementBytes + read);
    }
    return extent;
}

bool zqglMultibandBlend::portablePath() const
{
    return _multiResource != nullptr && _multiResource->caps.drawsPlanes();
}

// True when the level is bound to the alpha buffer itself; uploaded levels need a refresh when the
// buffer's content changes.
bool zqglMultibandBlend::alphaLevelShared(int levelWidth) const
{
    return !portablePath() && alphaLevelImported(_multiResource->avsAlphaType, levelWidth);
}

// ---- set-up ----------------------------------------------------------------------------------

// The record's per-camera tables must reach every camera before anything indexes them.
bool zqglMultibandBlend::recordCoversCameras(const multibandResource* resource, int* do_blend_array)
{
    if (resource == nullptr || do_blend_array == nullptr) {
        AVS_LOGE("init_resource params is NULL!");
        return false;
    }
    size_t cameras = resource->cameraNum > 0 ? static_cast<size_t>(resource->cameraNum) : 0;
    for (size_t size : {resource->overlap_remap_fbo.size(), resource->overlap_num.size(),
                        resource->multi_band_num.size(), resource->output_width.size(),
                        resource->output_height.size(), resource->resize_width.size(),
                        resource->resize_height.size(), resource->resize_startx.size()}) {
        if (size < cameras) {
            AVS_LOGE("blend layout holds %zu of %zu cameras!", size, cameras);
            return false;
        }
    }
    for (size_t i = 0; i < cameras; ++i) {
        if (resource->overlap_num[i] > 0 &&
            resource->overlap_remap_fbo[i].size() < static_cast<size_t>(resource->overlap_num[i])) {
            AVS_LOGE("camera %zu has %zu of %d overlap framebuffers!", i, resource->overlap_remap_fbo[i].size(),
                     resource->overlap_num[i]);
            return false;
        }
        int levels = resource->multi_band_num[i];
        if (do_blend_array[i] > 0 && (levels < 1 || levels > kMaxPyramidLevels)) {
            AVS_LOGE("multi_band_num[%zu]=%d is illegal!", i, levels);
            return false;
        }
    }
    return true;
}

int zqglMultibandBlend::init_multibandBlend_resource(multibandResource* init_resource, int* do_blend_array)
{
    AvsTimer timer;
    if (!recordCoversCameras(init_resource, do_blend_array)) return -1;
    _multiResource = init_resource;
    dpy_multiband = init_resource->dpy;
    context_multiband = init_resource->context;
    surface_multiband = init_resource->surface;
    bld_height = init_resource->bld_height;
    bld_width = init_resource->bld_width;
    multiUseSync = init_resource->useSync;
    outputAFBC = init_resource->outputIsAFBC;
    cameraNum = init_resource->cameraNum > 0 ? init_resource->cameraNum : 0;
    useAlphaBufAddress = init_resource->useMeshBufAddress;
    init_resource->compensation = &compensation;

    size_t cameras = static_cast<size_t>(cameraNum);
    readFileTexID.assign(cameras, {});
    readFileFboID.assign(cameras, {});
    for (size_t i = 0; i < cameras; ++i) {
        for (int b = 0; b < init_resource->overlap_num[i]; ++b) {
            readFileTexID[i].push_back(init_resource->overlap_remap_fbo[i][b].texture_id);
            readFileFboID[i].push_back(init_resource->overlap_remap_fbo[i][b].fbo_id);
        }
    }

    for (auto* pyramid : {&gaussFboAttrA, &gaussFboAttrB, &outFboAttr, &alphaAttr}) pyramid->resize(cameras);
    alphaBufferFdArray.resize(cameras);
    alphaFileBytes.resize(cameras);
    for (size_t i = 0; i < cameras; ++i) {
        for (auto* pyramid : {&gaussFboAttrA, &gaussFboAttrB, &outFboAttr, &alphaAttr}) {
            (*pyramid)[i] = nullptr;
            if (do_blend_array[i] <= 0) continue;
            (*pyramid)[i] = static_cast<drmSharedFramebuffer*>(
                calloc(static_cast<size_t>(init_resource->multi_band_num[i]), sizeof(drmSharedFramebuffer)));
        }
        alphaBufferFdArray[i].mem_fd = 0;
    }

    // The plane paths keep every seam's pyramids in one atlas a level instead of targets per seam.
    const bool perSeamPyramids = !portablePath();
    if ((perSeamPyramids &&
         (create_multi_fbo_and_texture(cameraNum, gaussFboAttrA, init_resource->output_width, bld_height,
                                       do_blend_array) < 0 ||
          create_multi_fbo_and_texture(cameraNum, gaussFboAttrB, init_resource->output_width, bld_height,
                                       do_blend_array) < 0 ||
          create_multi_fbo_and_texture(cameraNum, outFboAttr, init_resource->output_width, bld_height,
                                       do_blend_array) < 0)) ||
        (perSeamPyramids && planSeamLayout(do_blend_array) < 0) ||
        (!perSeamPyramids && createSeamAtlas(do_blend_array) < 0) ||
        create_muti_alpha_texture_test(cameraNum, alphaAttr, init_resource->output_width,
                                       init_resource->output_height, init_resource->meshAlphaDrmBufMsgArray,
                                       do_blend_array) < 0)
        return -1;
    AVS_LOG_TIME(timer);
    return 0;
}

// ---- colour pyramids -------------------------------------------------------------------------

// One shape per blended seam: level 0 of each side is its remapped overlap block, the levels
// below follow the seam's window and the blend height, as the alpha levels do.
bool zqglMultibandBlend::seamShapes(const int* do_blend_array, std::vector<SeamShape>* shapes) const
{
    const multibandResource& r = *_multiResource;
    for (int i = 0; i < cameraNum; ++i) {
        if (do_blend_array[i] <= 0) continue;
        const int next = seamNextCamera(i, cameraNum);
        if (r.overlap_remap_fbo[i].empty() || r.overlap_remap_fbo[next].empty()) {
            AVS_LOGE("camera %d or %d has no overlap block to blend!", i, next);
            return false;
        }
        const drmSharedFramebuffer& a = r.overlap_remap_fbo[i].back();
        const drmSharedFramebuffer& b = r.overlap_remap_fbo[next].front();
        shapes->push_back(SeamShape{i, r.multi_band_num[i], {a.width, b.width}, {a.height, b.height},
                                    r.output_width[i], bld_height});
    }
    return true;
}

// The target path keeps a pyramid per seam; the exposure measurement lays their levels out as an
// atlas would, on the CPU only.
int zqglMultibandBlend::planSeamLayout(const int* do_blend_array)
{
    std::vector<SeamShape> shapes;
    if (!seamShapes(do_blend_array, &shapes)) return -1;
    constexpr int kUnbounded = 1 << 30;
    return seamLayout.plan(shapes, kUnbounded, nullptr) ? 0 : -1;
}

int zqglMultibandBlend::createSeamAtlas(int* do_blend_array)
{
    const multibandResource& r = *_multiResource;
    std::vector<SeamShape> shapes;
    if (!seamShapes(do_blend_array, &shapes)) return -1;
    GLint limit = r.caps.maxTextureSize;
    if (limit <= 0 || limit > zqavs_calib_core::kMaxTextureSize) limit = zqavs_calib_core::kMaxTextureSize;
    SeamAtlasLayout layout;
    std::string why;
    if (!layout.plan(shapes, limit, &why)) {
        AVS_LOGE("seam atlas refused: %s", why.c_str());
        return -1;
    }
    if (!seamAtlas.create(layout, !isU8Alpha(r.avsAlphaType))) return -1;
    seamWindows.assign(static_cast<size_t>(cameraNum), SeamAtlas::Window{});
    _multiResource->seamAtlas = &seamAtlas;
    return 0;
}

int zqglMultibandBlend::create_multi_fbo_and_texture(int camera_num, std::vector<drmSharedFramebuffer*>& gaussFboArray,
                                                     std::vector<int32_t>& mutiW, int mutiH, int* do_blend_array)
{
    AvsTimer timer;
    for (int i = 0; i < camera_num; ++i) {
        if (do_blend_array[i] <= 0) continue;
        if (gaussFboArray[i] == nullptr) {
            AVS_LOGE("gaussFboArray[%d]=NULL", i);
            return -1;
        }
        for (int l = 1; l < _multiResource->multi_band_num[i]; ++l) {
            int ret = createColourLevel(gaussFboArray[i][l], l, pyramidLevelSize(mutiW[i], l),
                                        pyramidLevelSize(mutiH, l));
            if (ret < 0) return -1;
        }
    }
    AVS_LOG_TIME(timer);
    return 0;
}

// Level 2 of every colour pyramid is rendered into a shared buffer, the other levels into
// GL-owned textures [kept:K14].
int zqglMultibandBlend::createColourLevel(drmSharedFramebuffer& level, int index, int w, int h)
{
    level.width = w;
    level.height = h;
    level.mem_bpp = kColourBpp;
    if (index == 2 && !portablePath()) return createSharedColourLevel(level);
    if (!createPlainColourLevel(level)) {
        AVS_LOGE("avs-debug create fbo failed!");
        return -1;
    }
    return 0;
}

int zqglMultibandBlend::createSharedColourLevel(drmSharedFramebuffer& level)
{
    int fd = -1;
    void* mapping = nullptr;
    avs_alloc_buf(&fd, &mapping, level.width, level.height, kColourBpp);
    if (mapping == nullptr) {
        AVS_LOGE("avs-debug avs_alloc_buf buf failed!");
        return -1;
    }
    level.mem_fd = fd;
    level.vir_addr = mapping;
    GLuint texture = 0;
    int fbo = create_rgb_fbo_2D(dpy_multiband, fd, level.width, level.height,
                                static_cast<unsigned int>(level.width), &texture);
    if (fbo <= 0 || texture == 0) {
        AVS_LOGE("avs-debug create_rgb_fbo_2D failed!");
        return -1;
    }
    level.fbo_id = static_cast<GLuint>(fbo);
    level.texture_id = texture;
    return 0;
}

// An RGB render target of level.width x level.height; false when the framebuffer is incomplete.
bool zqglMultibandBlend::createPlainColourLevel(drmSharedFramebuffer& level)
{
    level.mem_fd = -1;
    level.vir_addr = nullptr;
    // An incomplete level keeps its names, which the level's release deletes.
    if (!makeRgbTarget(level.width, level.height, &level.texture_id, &level.fbo_id)) return false;
    glBindTexture(GL_TEXTURE_2D, 0);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    return true;
}

// Kept beside the pipeline's variant: the same levels as plain names, every level GL-owned.
int zqglMultibandBlend::create_multi_fbo_and_texture_test(int camera_num, std::vector<GLuint*>& textureID,
                                                          std::vector<GLuint*>& fboID, std::vector<int32_t>& mutiW,
                                                          std::vector<int32_t>& mutiH, int* do_blend_array)
{
    for (int i = 0; i < camera_num; ++i) {
        if (do_blend_array[i] <= 0) continue;
        if (textureID[i] == nullptr || fboID[i] == nullptr) return -1;
        for (int l = 1; l < _multiResource->multi_band_num[i]; ++l) {
            drmSharedFramebuffer level{};
            level.width = pyramidLevelSize(mutiW[i], l);
            level.height = pyramidLevelSize(mutiH[i], l);
            if (!createPlainColourLevel(level)) {
                AVS_LOGE("zq_debug create fbo failed!\n");
                return -1;
            }
            AVS_LOGD("zq_debug create fbo success!\n");
            textureID[i][l] = level.texture_id;
            fboID[i][l] = level.fbo_id;
            AVS_LOGD("avs-debug[%s %d] i:%d new fboid:%d fobW:%d fobH:%d textureid:%d ", __FUNCTION__, __LINE__, i,
                     level.fbo_id, level.width, level.height, level.texture_id);
        }
    }
    return 0;
}

void zqglMultibandBlend::releaseColourLevel(drmSharedFramebuffer& level)
{
    glDeleteTextures(1, &level.texture_id);
    glDeleteFramebuffers(1, &level.fbo_id);
    if (level.mem_fd > 0) {
        size_t size = static_cast<size_t>(level.height) * static_cast<size_t>(level.width) *
                      static_cast<size_t>(level.mem_bpp) / 8;
        avs_free_buf(&level.mem_fd, level.vir_addr, size);
        level.mem_fd = -1;
    }
}

// ---- alpha maps ------------------------------------------------------------------------------

int zqglMultibandBlend::create_muti_alpha_texture_test(int camera_num, std::vector<drmSharedFramebuffer*>& textureID,
                                                       std::vector<int32_t>& mutiW, std::vector<int32_t>& mutiH,
                                                       void** meshAlphaBufArray, int* do_blend_array)
{
    int alphaType = _multiResource->avsAlphaType;
    int taken = 0;  // caller buffers come one per blended seam, in camera order
    for (int i = 0; i < camera_num; ++i) {
        if (do_blend_array[i] <= 0) continue;
        if (textureID[i] == nullptr) return -1;
        int levels = _multiResource->multi_band_num[i];
        int length = alphaBufferLength(mutiW[i], mutiH[i], levels);

        AlphaSeamSource source{};
        int ret = useAlphaBufAddress
                      ? takeCallerAlpha(meshAlphaBufArray, taken++, i, length, source)
                      : readAlphaFile(i, length,
                                      alphaReadExtentBytes(mutiW[i], mutiH[i], bld_height, levels, alphaType), source);
        for (int l = 0; l < levels && ret == 0; ++l)
            ret = createAlphaLevel(i, l, mutiW[i], mutiH[i], source, textureID[i][l]);
        free(source.heapBuffer);  // float maps from files: the textures hold copies
        if (ret < 0) return -1;
    }
    return 0;
}

// The file's `length` elements go into a buffer sized to everything the levels read (`bytes`),
// zero beyond the file's data. A file shorter than the map is refused rather than uploaded.
int zqglMultibandBlend::readAlphaFile(int camera, int length, size_t bytes, AlphaSeamSource& source)
{
    bool u8 = isU8Alpha(_multiResource->avsAlphaType);
    if (u8 && portablePath()) {
        // Nothing imports the map here, so library memory holds it; mem_fd 0: no shared buffer.
        alphaFileBytes[camera].assign(bytes, 0);
        alphaBufferFdArray[camera] = PSR_DRM_BUF_MSG_S{alphaFileBytes[camera].data(), 0, 0, static_cast<int64_t>(bytes)};
        source.data = alphaFileBytes[camera].data();
    } else if (u8) {
        int fd = -1;
        void* mapping = nullptr;
        avs_alloc_buf(&fd, &mapping, static_cast<int>(bytes), 1, 8);
        if (mapping == nullptr) {
            AVS_LOGE("avs-debug dma_buf_alloc buf failed!");
            return -1;
        }
        // mem_size is what was mapped, so that the release unmaps all of it.
        alphaBufferFdArray[camera] = PSR_DRM_BUF_MSG_S{mapping, fd, 0, static_cast<int64_t>(bytes)};
        source.data = static_cast<uint8_t*>(mapping);
        source.importFd = fd;
    } else {
        source.heapBuffer = static_cast<uint8_t*>(calloc(bytes, 1));
        if (source.heapBuffer == nullptr) {
            AVS_LOGE("avs-debug alloc buf failed!");
            return -1;
        }
        source.data = source.heapBuffer;
    }
    source.base = source.data;
    source.readableBytes = bytes;

    const char* directory = _multiResource->meshFilePath;
    if (directory == nullptr) {
        AVS_LOGE("avs-debug alpha directory is NULL!");
        return -1;
    }
    std::string path =
        std::string(directory) + zqavs_calib_core::alphaFileName(camera, seamNextCamera(camera, cameraNum));
    FILE* file = fopen(path.c_str(), "rb");
    if (file == nullptr) {
        AVS_LOGE("avs-debug fopen failed layername:%s", path.c_str());
        return -1;
    }
    size_t wanted = static_cast<size_t>(length);
    size_t got = fread(source.data, alphaElementBytes(_multiResource->avsAlphaType), wanted, file);
    fclose(file);
    if (got < wanted) {
        AVS_LOGE("avs-debug alpha file too short layername:%s elements=%zu expected=%zu", path.c_str(), got, wanted);
        return -1;
    }
    return 0;
}

// The caller's record must hold the whole map after its offset. U8 rows that GL reads past the
// map's end go through padded copies; float levels that would read past mem_size are refused.
int zqglMultibandBlend::takeCallerAlpha(void** meshAlphaBufArray, int taken, int camera, int length,
                                        AlphaSeamSource& source)
{
    if (meshAlphaBufArray == nullptr || meshAlphaBufArray[taken] == nullptr) {
        AVS_LOGE("meshAlphaDrmBufMsgArray[%d] is NULL!", taken);
        return -1;
    }
    const PSR_DRM_BUF_MSG_S* msg = static_cast<const PSR_DRM_BUF_MSG_S*>(meshAlphaBufArray[taken]);
    if (msg->vir_addr == nullptr) {
        AVS_LOGE("meshAlphaBufArray[%d]=NULL!", taken);
        return -1;
    }
    int alphaType = _multiResource->avsAlphaType;
    size_t elementBytes = alphaElementBytes(alphaType);
    size_t mapBytes = static_cast<size_t>(length) * elementBytes;
    size_t offsetBytes = msg->mem_offset > 0 ? static_cast<size_t>(msg->mem_offset) * elementBytes : 0;
    // A mem_size of 0 was not given: the caller vouches for the map alone.
    const bool sized = msg->mem_size != 0;
    if (msg->mem_offset < 0 || msg->mem_size < 0 || (sized && static_cast<size_t>(msg->mem_size) < offsetBytes + mapBytes)) {
        AVS_LOGE("meshAlphaBufArray[%d] mem_size=%lld too small: mem_offset=%d + %d alpha elements of %zu bytes!",
                 taken, static_cast<long long>(msg->mem_size), msg->mem_offset, length, elementBytes);
        return -1;
    }
    source.data = static_cast<uint8_t*>(msg->vir_addr);
    source.elementOffset = msg->mem_offset;
    source.base = source.data + offsetBytes;
    source.readableBytes = isU8Alpha(alphaType) || !sized ? mapBytes : static_cast<size_t>(msg->mem_size) - offsetBytes;
    source.importFd = msg->mem_fd;
    source.importOffset = msg->mem_offset;
    if (isU8Alpha(alphaType))
        alphaBufferFdArray[camera] = PSR_DRM_BUF_MSG_S{source.base, msg->mem_fd, 0, static_cast<int64_t>(length)};
    return 0;
}

// One level of a seam's alpha map: `element` gets the texture (imported or uploaded).
int zqglMultibandBlend::createAlphaLevel(int camera, int level, int mapWidth, int mapHeight,
                                         const AlphaSeamSource& source, drmSharedFramebuffer& element)
{
    int alphaType = _multiResource->avsAlphaType;
    int w = pyramidLevelSize(mapWidth, level);
    int h = pyramidLevelSize(bld_height, level);
    int bufOffset = alphaLevelOffset(mapWidth, mapHeight, level);
    size_t offsetBytes = static_cast<size_t>(bufOffset) * alphaElementBytes(alphaType);
    const uint8_t* pixels = source.base + offsetBytes;
    size_t available = source.readableBytes > offsetBytes ? source.readableBytes - offsetBytes : 0;
    element.fbo_id = kNoFramebuffer;

    bool uploaded = true;
    if (alphaLevelShared(w)) {
        element.texture_id =
            create_alpha_texture(dpy_multiband, source.importFd, w, h, source.importOffset + bufOffset);
    } else if (isU8Alpha(alphaType)) {
        pixels = paddedAlphaBytes(camera, level, pixels, unpackAlignedReadBytes(w, h), available);
        uploaded = uploadAlphaTexture(GL_R8, GL_UNSIGNED_BYTE, w, h, pixels, &element.texture_id);
    } else {
        if (levelArea(w, h) * sizeof(float) > available) {
            AVS_LOGE("alpha[%d,%d] %dx%d floats lie past the caller's buffer!", camera, level, w, h);
            return -1;
        }
        uploaded = uploadAlphaTexture(GL_R32F, GL_FLOAT, w, h, pixels, &element.texture_id);
    }
    if (uploaded && portablePath()) uploaded = seamAtlas.uploadAlpha(seamAtlas.seamOfCamera(camera), level, w, h, pixels);
    if (!uploaded) {
        AVS_LOGE("glTexImage2D error! fboW=%d fboH=%d alphaBufAddress=%p alphaBufOffset=%d buf_offset=%d", w, h,
                 static_cast<void*>(source.data), source.elementOffset, bufOffset);
        return -1;
    }
    if (isU8Alpha(alphaType)) {
        element.width = w;
        element.height = h;
        element.vir_addr = source.base + offsetBytes;
    }
    AVS_LOGD("create alpha[%d,%d] texture=%d w=%d h=%d success!", camera, level, element.texture_id, w, h);
    return 0;
}

// GL reads `readBytes` for the level; when fewer than that belong to the alpha map, the level is
// uploaded from a library-owned copy that is zero past the map's bytes.
const uint8_t* zqglMultibandBlend::paddedAlphaBytes(int camera, int level, const uint8_t* pixels, size_t readBytes,
                                                    size_t availableBytes)
{
    if (readBytes > availableBytes)
        paddedAlphaLevels.push_back(
            PaddedAlphaLevel{camera, level, pixels, availableBytes, std::vector<uint8_t>(readBytes, 0)});
    return alphaUploadBytes(camera, level, pixels);
}

// The bytes to upload for a U8 level: its padded copy, refreshed from the caller, or the level itself.
const uint8_t* zqglMultibandBlend::alphaUploadBytes(int camera, int level, const uint8_t* pixels)
{
    for (PaddedAlphaLevel& padded : paddedAlphaLevels) {
        if (padded.camera != camera || padded.level != level) continue;
        if (padded.sourceBytes > 0) memcpy(padded.bytes.data(), padded.source, padded.sourceBytes);
        return padded.bytes.data();
    }
    return pixels;
}

GLuint zqglMultibandBlend::create_alpha_texture(EGLDisplay dpy, int tex_fd, int tex_width, int tex_height,
                                                int plane_offset)
{
    if (tex_fd <= 0) AVS_LOGE("avs-debug input tex_fd=%d, is illegal!", tex_fd);
    DmaBufImportSteps steps;
    steps.function = __FUNCTION__;
    steps.bindText = "image_target_texture_2d(GL_TEXTURE_2D, img)";
    steps.traceEnd = "";
    steps.unbindTexture = true;
    DmaBufImport made = importDmaBuf(dpy, r8ImageAttribs(tex_fd, tex_width, tex_height, plane_offset), steps);
    if (!made.ok()) {
        AVS_LOGE("avs-debug eglCreateImageKHR NULL! fd=%d width=%d,height=%d, plane_offset=%d", tex_fd, tex_width,
                 tex_height, plane_offset);
        return kFailedAlphaImport;
    }
    return made.texture.release();
}

int zqglMultibandBlend::updateMultibandAlpha(int* do_blend_array)
{
    AvsTimer timer;
    if (_multiResource == nullptr) return 0;
    if (!isU8Alpha(_multiResource->avsAlphaType)) {
        AVS_LOGE("Alpha type != FUSE_GPU_ALPHA_U8, return!");
        return 0;
    }
    // Imported levels share memory with the alpha buffer; only the uploaded ones need a refresh.
    for (int i = 0; i < cameraNum; ++i) {
        if (do_blend_array[i] <= 0 || alphaAttr[i] == nullptr) continue;
        for (int l = 0; l < _multiResource->multi_band_num[i]; ++l) {
            drmSharedFramebuffer& element = alphaAttr[i][l];
            if (alphaLevelShared(element.width)) continue;
            glDeleteTextures(1, &element.texture_id);
            const uint8_t* pixels = alphaUploadBytes(i, l, static_cast<const uint8_t*>(element.vir_addr));
            if (!uploadAlphaTexture(GL_R8, GL_UNSIGNED_BYTE, element.width, element.height, pixels,
                                    &element.texture_id) ||
                (portablePath() &&
                 !seamAtlas.uploadAlpha(seamAtlas.seamOfCamera(i), l, element.width, element.height, pixels))) {
                AVS_LOGE("glTexImage2D error! tex_w=%d tex_h=%d vir_addr=%p", element.width, element.height,
                         element.vir_addr);
                return -1;
            }
        }
    }
    AVS_LOG_TIME(timer);
    return 0;
}

// ---- tear-down -------------------------------------------------------------------------------

// A level whose import failed holds no texture, only the failure marker.
void zqglMultibandBlend::deleteAlphaTextures(int camera, int levels)
{
    for (int l = 0; l < levels; ++l) {
        GLuint& texture = alphaAttr[camera][l].texture_id;
        if (texture != kFailedAlphaImport) glDeleteTextures(1, &texture);
        texture = 0;
    }
}

void zqglMultibandBlend::delete_multibandBlend_resource(int* do_blend_array)
{
    if (_multiResource == nullptr || do_blend_array == nullptr) return;
    // Every camera's pyramids go, the last one's included: an instance that is started and
    // stopped again and again must not grow.
    for (int i = 0; i < cameraNum; ++i) {
        if (do_blend_array[i] > 0 && alphaAttr[i] != nullptr) {
            int levels = _multiResource->multi_band_num[i];
            deleteAlphaTextures(i, levels);
            for (int l = 1; l < levels; ++l) {
                for (auto* pyramid : {&gaussFboAttrA, &gaussFboAttrB, &outFboAttr})
                    if ((*pyramid)[i] != nullptr) releaseColourLevel((*pyramid)[i][l]);
            }
            for (auto* pyramid : {&gaussFboAttrA, &gaussFboAttrB, &outFboAttr, &alphaAttr}) {
                free((*pyramid)[i]);
                (*pyramid)[i] = nullptr;
            }
        }
        PSR_DRM_BUF_MSG_S& alphaBuffer = alphaBufferFdArray[i];
        if (useAlphaBufAddress == 0 && alphaBuffer.mem_fd > 0) {
            avs_free_buf(&alphaBuffer.mem_fd, alphaBuffer.vir_addr, static_cast<size_t>(alphaBuffer.mem_size));
            alphaBuffer.mem_fd = -1;
        }
        if (static_cast<size_t>(i) < alphaFileBytes.size()) std::vector<uint8_t>().swap(alphaFileBytes[i]);
    }
    paddedAlphaLevels.clear();
    seamAtlas.release();
    if (_multiResource->seamAtlas == &seamAtlas) _multiResource->seamAtlas = nullptr;
}

}  // namespace zqgfx_gpu_avs
