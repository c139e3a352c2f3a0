// Portable path output: the YUV canvas that stands in for the caller's NV12 render target, and
// the pack pass that writes the frame's columns back into the caller's buffer.
#include "avs_shader_texts.h"
#include "portable_yuv.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace zqgfx_gpu_avs {

namespace {

// Pack geometry: luma four pixels per RGBA8 texel; chroma (W + 1) / 2 CbCr pairs per row, two
// pairs per RGBA8 texel, (H + 1) / 2 rows.
int lumaPackWidth(int width) { return (width + 3) / 4; }
int chromaColumns(int width) { return (width + 1) / 2; }
int chromaPackWidth(int width) { return (chromaColumns(width) + 1) / 2; }
int chromaRows(int height) { return (height + 1) / 2; }
size_t lumaPackBytes(int width, int height) { return static_cast<size_t>(lumaPackWidth(width)) * 4 * height; }
size_t chromaPackBytes(int width, int height)
{
    return static_cast<size_t>(chromaPackWidth(width)) * 4 * chromaRows(height);
}

// An RGBA8 texture with a framebuffer around it; false when the framebuffer is incomplete (the
// names are returned anyway so that the slot's release deletes them).
bool createRgbaTarget(int width, int height, GLuint* texture, GLuint* fbo)
{
    glGenTextures(1, texture);
    glBindTexture(GL_TEXTURE_2D, *texture);
    glTexStorage2D(GL_TEXTURE_2D, 1, GL_RGBA8, width, height);
    setLinearClampParameters(GL_TEXTURE_2D);
    glBindTexture(GL_TEXTURE_2D, 0);
    glGenFramebuffers(1, fbo);
    glBindFramebuffer(GL_FRAMEBUFFER, *fbo);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, *texture, 0);
    bool complete = glCheckFramebufferStatus(GL_FRAMEBUFFER) == GL_FRAMEBUFFER_COMPLETE;
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    return complete;
}

// Black in YUV: a canvas pixel nothing has drawn yet.
void clearToBlack(GLuint fbo)
{
    glBindFramebuffer(GL_FRAMEBUFFER, fbo);
    glClearColor(0.0f, 128.0f / 255.0f, 128.0f / 255.0f, 1.0f);
    glClear(GL_COLOR_BUFFER_BIT);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
}

}  // namespace

int PortableRemapIo::init(const ProgramBuilder& buildProgram)
{
    lumaPackProgram = buildProgram(gPortablePackVertexShader, gPortablePackLumaFragmentShader);
    chromaPackProgram = buildProgram(gPortablePackVertexShader, gPortablePackChromaFragmentShader);
    if (lumaPackProgram == 0 || chromaPackProgram == 0) return -1;
    glGenVertexArrays(1, &packVertexArray);
    return 0;
}

GLuint PortableRemapIo::importOutput(int slot, int fd, int width, int height, int stride, GLuint* canvasTexture)
{
    if (!validSlot(slot) || width <= 0 || height <= 0 || stride < width || !canvasTexture) {
        AVS_LOGE("output descriptor %d refused: slot %d, size %dx%d, stride %d", fd, slot, width, height, stride);
        return 0;
    }
    releaseSlot(slot);
    Slot& s = slots[slot];
    if (!s.mapping.map(fd, nv12ImageBytes(stride, height), true)) return 0;
    s.kind = Slot::Kind::output;
    s.width = width;
    s.height = height;
    s.stride = stride;
    s.out.staging = static_cast<uint8_t*>(malloc(lumaPackBytes(width, height) + chromaPackBytes(width, height)));
    if (!s.out.staging || !createOutputTargets(s)) {
        AVS_LOGE("output canvas %dx%d for descriptor %d could not be made", width, height, fd);
        releaseSlot(slot);
        return 0;
    }
    clearToBlack(s.out.canvasFbo);
    *canvasTexture = s.out.canvasTexture;
    return s.out.canvasFbo;
}

bool PortableRemapIo::createOutputTargets(Slot& s)
{
    OutputSlot& o = s.out;
    bool canvas = createRgbaTarget(s.width, s.height, &o.canvasTexture, &o.canvasFbo);
    bool luma = createRgbaTarget(lumaPackWidth(s.width), s.height, &o.lumaPackTexture, &o.lumaPackFbo);
    bool chroma = createRgbaTarget(chromaPackWidth(s.width), chromaRows(s.height), &o.chromaPackTexture,
                                   &o.chromaPackFbo);
    return canvas && luma && chroma;
}

int PortableRemapIo::packOutput(GLuint canvasFbo, const ColumnSpanList& spans)
{
    Slot* found = nullptr;
    for (Slot& s : slots)
        if (canvasFbo != 0 && s.kind == Slot::Kind::output && s.out.canvasFbo == canvasFbo) found = &s;
    if (!found) {
        AVS_LOGE("no output canvas for framebuffer %u", canvasFbo);
        return -1;
    }
    packSpans = spans;
    packSpans.normalise(found->width);
    if (packSpans.count() == 0) return 0;
    drawPack(*found);
    if (!readPack(*found)) return -1;
    copySpans(*found);
    return 0;
}

void PortableRemapIo::drawPack(const Slot& s)
{
    glBindVertexArray(packVertexArray);
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, s.out.canvasTexture);

    glBindFramebuffer(GL_FRAMEBUFFER, s.out.lumaPackFbo);
    glViewport(0, 0, lumaPackWidth(s.width), s.height);
    glUseProgram(lumaPackProgram);
    glDrawArrays(GL_TRIANGLES, 0, 3);

    glBindFramebuffer(GL_FRAMEBUFFER, s.out.chromaPackFbo);
    glViewport(0, 0, chromaPackWidth(s.width), chromaRows(s.height));
    glUseProgram(chromaPackProgram);
    glDrawArrays(GL_TRIANGLES, 0, 3);

    glBindVertexArray(0);
}

bool PortableRemapIo::readPack(const Slot& s)
{
    uint8_t* luma = s.out.staging;
    uint8_t* chroma = luma + lumaPackBytes(s.width, s.height);
    glBindFramebuffer(GL_FRAMEBUFFER, s.out.lumaPackFbo);
    glReadPixels(0, 0, lumaPackWidth(s.width), s.height, GL_RGBA, GL_UNSIGNED_BYTE, luma);
    glBindFramebuffer(GL_FRAMEBUFFER, s.out.chromaPackFbo);
    glReadPixels(0, 0, chromaPackWidth(s.width), chromaRows(s.height), GL_RGBA, GL_UNSIGNED_BYTE, chroma);
    // The frame's draws went to the canvas; leave it bound as the target path leaves its output.
    glBindFramebuffer(GL_FRAMEBUFFER, s.out.canvasFbo);
    GLenum error = glGetError();
    if (error != GL_NO_ERROR) {
        AVS_LOGE("read-back of output descriptor %d failed: 0x%04x", s.mapping.descriptor(), error);
        return false;
    }
    return true;
}

void PortableRemapIo::copySpans(Slot& s)
{
    DescriptorMapping& mapping = s.mapping;
    const size_t lumaRowBytes = static_cast<size_t>(lumaPackWidth(s.width)) * 4;
    const size_t chromaRowBytes = static_cast<size_t>(chromaPackWidth(s.width)) * 4;
    const uint8_t* lumaSrc = s.out.staging;
    const uint8_t* chromaSrc = lumaSrc + lumaPackBytes(s.width, s.height);
    uint8_t* lumaDst = mapping.data();
    uint8_t* chromaDst = lumaDst + static_cast<size_t>(s.stride) * s.height;
    // Chroma bytes of a row: pair c at 2c, 2c + 1, i.e. the byte columns of its two pixels; an odd
    // width's last pair may not fit an odd stride.
    const int chromaLimit = std::min(2 * chromaColumns(s.width), s.stride);

    mapping.beginCpuAccess();
    for (int i = 0; i < packSpans.count(); ++i) {
        const int x = packSpans[i].x;
        const int width = packSpans[i].width;
        for (int y = 0; y < s.height; ++y)
            memcpy(lumaDst + static_cast<size_t>(y) * s.stride + x, lumaSrc + y * lumaRowBytes + x, width);
        const int cx0 = x & ~1;
        const int cx1 = std::min((x + width + 1) & ~1, chromaLimit);
        for (int cy = 0; cy < chromaRows(s.height); ++cy)
            memcpy(chromaDst + static_cast<size_t>(cy) * s.stride + cx0, chromaSrc + cy * chromaRowBytes + cx0,
                   cx1 - cx0);
    }
    mapping.endCpuAccess();
}

}  // namespace zqgfx_gpu_avs
