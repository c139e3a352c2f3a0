// Remap engine: per-frame import of the caller's dma-bufs, with a table of 100 slots keyed by
// descriptor so that a buffer seen before is not imported again. The descriptors stay the
// caller's: nothing here closes or duplicates them.
#include "remap/gl_nv12_remap.h"

#include <sys/stat.h>

#include <cstring>

#include "io/plane_io.h"
#include "gl/import_core.h"

namespace zqgfx_gpu_avs {

namespace {

constexpr GLuint kImportFailed = 0xFFFFFFFF;

// Checked before any descriptor of the frame is looked at.
bool refusesAfbc(const FrameIo& io, uint32_t inputIsAFBC, uint32_t outputIsAFBC)
{
    if (io.takesAfbc()) return false;
    const char* path = gpuPathName(io.path());
    if (inputIsAFBC) AVS_LOGE_IN("create_texture_and_fbo", "AFBC input is not supported on the %s path", path);
    if (outputIsAFBC) AVS_LOGE_IN("create_texture_and_fbo", "AFBC output is not supported on the %s path", path);
    return inputIsAFBC || outputIsAFBC;
}

// Records which buffer `fd` names now; nothing for a number that is no descriptor of this process.
void recordBufferIdentity(textureAndFboStatus* slot, int fd)
{
    struct stat st;
    if (fstat(fd, &st) != 0) return;
    slot->device = st.st_dev;
    slot->inode = st.st_ino;
}

// False when `fd` now names another buffer than the one the slot imported.
bool namesImportedBuffer(const textureAndFboStatus& slot, int fd)
{
    struct stat st;
    if (slot.inode == 0 || fstat(fd, &st) != 0) return true;
    return st.st_dev == slot.device && st.st_ino == slot.inode;
}

}  // namespace

void deleteImportSlotNames(const textureAndFboStatus& slot)
{
    if (slot.fbo_id != 0) {
        glDeleteFramebuffers(1, &slot.fbo_id);
        glDeleteTextures(1, &slot.texture_id);
    } else if (slot.texture_id != 0) {
        glDeleteTextures(1, &slot.texture_id);
    }
}

int findImportSlot(const GLuint* table, int fd)
{
    // Equality is tested before emptiness: a hit is only found before the first free slot.
    for (int i = 0; i < kImportSlotCount; ++i) {
        if (table[i] == static_cast<GLuint>(fd)) return i;
        if (table[i] == 0) return i;
    }
    return -1;
}

int ZQGL_Remap::create_texture_and_fbo(int* inputImageFd, uint32_t inputIsAFBC, uint32_t outputIsAFBC,
                                       GLuint* out_fbo)
{
    const int src_width = _remap_init_params.src_width;
    const int src_height = _remap_init_params.src_height;
    const int bld_w = _remap_init_params.bld_width;
    const int bld_h = _remap_init_params.bld_height;
    const int cam_num = _remap_init_params.camera_num;
    AVS_LOGD("enter cam_num=%d,inputIsAFBC=%d,outputIsAFBC=%d\n", cam_num, inputIsAFBC, outputIsAFBC);

    if (cam_num < 1 || cam_num > zqavs_calib_core::kMaxCameras) {
        AVS_LOGE("input cam_num=%d is illegal", cam_num);
        return -1;
    }
    if (src_width < 0 || src_width >= kMaxTextureSize || src_height < 0 || src_height >= kMaxTextureSize) {
        AVS_LOGE("src_width=%d or src_height=%d is exceed the gpu max texture size limit!", src_width, src_height);
        return -1;
    }
    if (bld_w < 0 || bld_w >= kMaxTextureSize || bld_h < 0 || bld_h >= kMaxTextureSize) {
        AVS_LOGE("bld_width=%d or bld_height=%d is exceed the gpu max texture size limit!", bld_w, bld_h);
        return -1;
    }
    if (inputImageFd == nullptr) {
        AVS_LOGE("input fd_array is NULL!");
        return -1;
    }
    // Only a successful ZQ_EGL_Init makes the table.
    if (cache_input_fd == nullptr || create_texture_fbo_status.size() != kImportSlotCount) {
        AVS_LOGE("import table missing: EGL set-up did not complete");
        return -1;
    }

    if (refusesAfbc(frameIo(), inputIsAFBC, outputIsAFBC)) return -1;

    // The last slot in use: start the table afresh, which bounds the objects held.
    if (cache_input_fd[kImportSlotCount - 1] != 0) destroy_texture_and_fbo();

    textureID.resize(cam_num);
    cameraSlots.resize(cam_num, -1);
    for (int cam = 0; cam <= cam_num; ++cam) {
        const int fd = inputImageFd[cam];
        if (fd < 1) {
            AVS_LOGE("input fd_array[%d]=%d is illegal!", cam, fd);
            return -1;
        }
        const int i = findImportSlot(cache_input_fd, fd);
        if (i < 0) continue;  // table full of other descriptors: this one keeps last frame's names
        const bool isOutput = cam == cam_num;
        textureAndFboStatus& slot = create_texture_fbo_status[i];

        if (cache_input_fd[i] == static_cast<GLuint>(fd) && !namesImportedBuffer(slot, fd)) {
            // The caller closed the descriptor and its number came back for another buffer.
            releaseImportSlot(i, true);
            const int made = isOutput ? importOutputSlot(i, fd, outputIsAFBC) : importInputSlot(cam, i, fd, inputIsAFBC);
            if (made != 0) return -1;
            continue;
        }
        if (cache_input_fd[i] == static_cast<GLuint>(fd)) {
            if (!isOutput) {
                textureID[cam] = slot.texture_id;  // reused as imported, whatever the size now
                cameraSlots[cam] = i;
                if (refreshInputSlot(i) != 0) return -1;
            } else if (slot.width == bld_w && slot.height == bld_h) {
                framebuffer0 = slot.fbo_id;
                outputSlot = i;
            } else {
                // The blend size changed: re-import into the same slot.
                releaseImportSlot(i, true);
                if (importOutputSlot(i, fd, outputIsAFBC) != 0) return -1;
            }
            continue;
        }

        cache_input_fd[i] = static_cast<GLuint>(fd);
        if (isOutput) {
            AVS_LOGD("avs-debug[%s %d] bld_w=%d bld_h=%d output_stride=%d\n", __FUNCTION__, __LINE__, bld_w, bld_h,
                     _remap_init_params.output_image_stride);
            if (importOutputSlot(i, fd, outputIsAFBC) != 0) return -1;
        } else {
            AVS_LOGD("avs-debug[%s %d] src_width=%d src_height=%d \n", __FUNCTION__, __LINE__, src_width, src_height);
            if (importInputSlot(cam, i, fd, inputIsAFBC) != 0) return -1;
        }
    }

    *out_fbo = framebuffer0;
    return 0;
}

// The importers report failure as 0xFFFFFFFF, which this test for 0 lets through: the slot then
// records 0xFFFFFFFF and the frame goes on [kept:K16].
int ZQGL_Remap::importInputSlot(int cam, int slot, int fd, uint32_t inputIsAFBC)
{
    const int src_width = _remap_init_params.src_width;
    const int src_height = _remap_init_params.src_height;
    GLuint tex = frameIo().importInput(slot, fd, inputIsAFBC, src_width, src_height);
    if (tex == 0) return refuseImport(slot);
    textureAndFboStatus& entry = create_texture_fbo_status[slot];
    entry.texture_id = tex;
    textureID[cam] = tex;
    cameraSlots[cam] = slot;
    entry.width = src_width;
    entry.height = src_height;
    entry.fbo_id = 0;
    recordBufferIdentity(&entry, fd);
    return 0;
}

int ZQGL_Remap::importOutputSlot(int slot, int fd, uint32_t outputIsAFBC)
{
    const int bld_w = _remap_init_params.bld_width;
    const int bld_h = _remap_init_params.bld_height;
    const uint32_t stride = _remap_init_params.output_image_stride;
    GLuint fbo = frameIo().importOutput(slot, fd, outputIsAFBC, bld_w, bld_h, static_cast<int>(stride), &fbo_texture0);
    if (fbo == 0) return refuseImport(slot);
    textureAndFboStatus& entry = create_texture_fbo_status[slot];
    entry.fbo_id = fbo;
    entry.texture_id = fbo_texture0;
    entry.width = bld_w;
    entry.height = bld_h;
    recordBufferIdentity(&entry, fd);
    framebuffer0 = fbo;
    outputSlot = slot;
    return 0;
}

GLuint ZQGL_Remap::create_egl_texture(void* dpy, uint32_t is_afbc, int inputImgFd, int tex_width, int tex_height)
{
    AVS_LOGD("enter ");
    const int stride = alignTo16(tex_width);  // the height is used unaligned
    AVS_LOGD("avs-debug is_afbc=%d,inputImgFd=%d\n ", is_afbc, inputImgFd);

    // The image is bound before the parameters are set here; the output side does the reverse.
    DmaBufImportSteps steps;
    steps.function = __FUNCTION__;
    steps.target = GL_TEXTURE_EXTERNAL_OES;
    steps.bindText = "image_target_texture_2d(GL_TEXTURE_EXTERNAL_OES, img)";
    DmaBufImport made = importDmaBuf(dpy, yuvImageAttribs(is_afbc, inputImgFd, tex_width, tex_height, stride), steps);
    if (!made.ok()) {
        AVS_LOGE("avs-debug eglCreateImageKHR NULL! stride=%d,height=%d,fd=%d\n", stride, tex_height, inputImgFd);
        return kImportFailed;
    }
    AVS_LOGD("avs-debug genTexture=%d\n ", made.texture.get());
    AVS_LOGD("end ");
    return made.texture.release();  // left bound to GL_TEXTURE_EXTERNAL_OES
}

GLuint ZQGL_Remap::create_fbo_output(void* dpy, uint32_t is_afbc, int memfd, int fbo_w, int fbo_h, uint32_t stride,
                                     GLuint* Gtexturefbo)
{
    AVS_LOGD("enter ");
    AVS_LOGD("avs-debug is_afbc=%d,inputfd=%d\n ", is_afbc, memfd);

    // The caller's stride is taken as it is: the output buffer's pitch is the caller's to choose.
    const EGLint pitch = static_cast<EGLint>(stride);
    // A YUV image as colour attachment: the framebuffer renders into the caller's YUV buffer.
    DmaBufImportSteps steps;
    steps.function = __FUNCTION__;
    steps.target = GL_TEXTURE_EXTERNAL_OES;
    steps.parametersFirst = true;
    steps.bindText = "image_target_texture_2d(GL_TEXTURE_EXTERNAL_OES, img)";
    steps.framebuffer = true;
    steps.attachText =
        "glFramebufferTexture2D(GL_FRAMEBUFFER,GL_COLOR_ATTACHMENT0, GL_TEXTURE_EXTERNAL_OES, *Gtexturefbo, 0)";
    steps.keepOnFailure = true;  // an incomplete output leaves what it made [kept:K17]
    DmaBufImport made = importDmaBuf(dpy, yuvImageAttribs(is_afbc, memfd, fbo_w, fbo_h, pitch), steps);
    if (made.failure == ImportFailure::image) {
        AVS_LOGE("avs-debug eglCreateImageKHR NULL! stride=%d,height=%d,fd=%d\n", pitch, fbo_h, memfd);
        return kImportFailed;
    }
    *Gtexturefbo = made.texture.release();
    const GLuint framebuffer = made.framebuffer.release();
    AVS_LOGD("avs-debug genFbo=%d,genTexture=%d\n ", framebuffer, *Gtexturefbo);
    if (!made.ok()) {
        // Image, texture and framebuffer are left as they are, the framebuffer bound.
        AVS_LOGE("zq_debug create fbo failed!\n");
        return kImportFailed;
    }
    AVS_LOGD("zq_debug create fbo success!\n");
    AVS_LOGD("end ");
    return framebuffer;
}

// Only the plane importers refuse with 0 (the descriptor cannot be mapped or imported, or is not
// whole): the slot is freed again so that a later frame can retry the descriptor.
int ZQGL_Remap::refuseImport(int slot)
{
    cache_input_fd[slot] = 0;
    create_texture_fbo_status[slot] = textureAndFboStatus{0, 0, 0, 0};
    return -1;
}

// The upload path uploads a known camera image again every frame: its mapping shows the caller's
// current content.
int ZQGL_Remap::refreshInputSlot(int slot)
{
    if (frameIo().refreshInput(slot) == 0) return 0;
    AVS_LOGE_IN("create_texture_and_fbo", "input fd %d of slot %d holds no camera image",
                static_cast<int>(cache_input_fd[slot]), slot);
    return -1;
}

void ZQGL_Remap::releaseImportSlot(int slot, bool textureFirst)
{
    frameIo().releaseSlot(slot, textureFirst);
}

// ---- YUV images ------------------------------------------------------------------------------

GLuint YuvImageIo::importInput(int, int fd, uint32_t isAfbc, int width, int height)
{
    return engine.create_egl_texture(engine.dpy, isAfbc, fd, width, height);
}

bool YuvImageIo::bindInput(int, GLuint texture) const
{
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_EXTERNAL_OES, texture);
    return checkGlError("glBindTexture");
}

GLuint YuvImageIo::importOutput(int, int fd, uint32_t isAfbc, int width, int height, int stride, GLuint* texture)
{
    return engine.create_fbo_output(engine.dpy, isAfbc, fd, width, height, static_cast<uint32_t>(stride), texture);
}

// A rebuilt output goes texture first, a flushed table framebuffer first.
void YuvImageIo::releaseSlot(int slot, bool textureFirst)
{
    const textureAndFboStatus& entry = engine.create_texture_fbo_status[slot];
    if (textureFirst) {
        glDeleteTextures(1, &entry.texture_id);
        glDeleteFramebuffers(1, &entry.fbo_id);
    } else {
        deleteImportSlotNames(entry);
    }
}

int ZQGL_Remap::destroy_texture_and_fbo()
{
    AVS_LOGD("enter ");
    for (int i = 0; i < static_cast<int>(create_texture_fbo_status.size()); ++i) {
        releaseImportSlot(i, false);
        create_texture_fbo_status[i] = textureAndFboStatus{0, 0, 0, 0};
    }
    if (cache_input_fd != nullptr) memset(cache_input_fd, 0, kImportSlotCount * sizeof(GLuint));
    AVS_LOGD("end ");
    return 0;
}

}  // namespace zqgfx_gpu_avs
