// Portable path: CPU mappings of the caller's descriptors, the column spans of a frame and the
// camera images uploaded into luma and chroma textures. The output canvas is in
// portable_yuv_output.cpp.
#include "portable_yuv.h"

#include <linux/dma-buf.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace zqgfx_gpu_avs {

// ---- descriptor mappings -------------------------------------------------------------------

bool DescriptorMapping::map(int fd_in, size_t wanted, bool write)
{
    unmap();
    struct stat st;
    if (fstat(fd_in, &st) != 0) {
        AVS_LOGE("descriptor %d cannot be mapped: %s", fd_in, strerror(errno));
        return false;
    }
    // Regular files (memfd) report their size; so does a dma-buf. Mapping past a memfd's end
    // succeeds and faults on first access, hence the check before mmap.
    if ((S_ISREG(st.st_mode) || st.st_size > 0) && static_cast<size_t>(st.st_size) < wanted) {
        AVS_LOGE("descriptor %d holds %lld bytes, %zu needed", fd_in, static_cast<long long>(st.st_size), wanted);
        return false;
    }
    int prot = write ? (PROT_READ | PROT_WRITE) : PROT_READ;
    void* mapped = mmap(nullptr, wanted, prot, MAP_SHARED, fd_in, 0);
    if (mapped == MAP_FAILED) {
        AVS_LOGE("descriptor %d cannot be mapped: %s", fd_in, strerror(errno));
        return false;
    }
    fd = fd_in;
    addr = static_cast<uint8_t*>(mapped);
    bytes = wanted;
    writable = write;
    sync = SyncKind::unknown;
    return true;
}

void DescriptorMapping::unmap()
{
    if (addr) munmap(addr, bytes);
    fd = -1;
    addr = nullptr;
    bytes = 0;
}

bool DescriptorMapping::syncCpuAccess(bool start)
{
    struct dma_buf_sync request;
    request.flags = (start ? DMA_BUF_SYNC_START : DMA_BUF_SYNC_END) |
                    (writable ? DMA_BUF_SYNC_WRITE : DMA_BUF_SYNC_READ);
    int result;
    do {
        result = ioctl(fd, DMA_BUF_IOCTL_SYNC, &request);
    } while (result != 0 && (errno == EINTR || errno == EAGAIN));
    return result == 0 || errno != ENOTTY;
}

void DescriptorMapping::beginCpuAccess()
{
    if (!addr || sync == SyncKind::none) return;
    // A memfd or plain file answers ENOTTY: it needs no cache maintenance, decided once.
    bool isDmaBuf = syncCpuAccess(true);
    if (sync == SyncKind::unknown) sync = isDmaBuf ? SyncKind::dmaBuf : SyncKind::none;
}

void DescriptorMapping::endCpuAccess()
{
    if (addr && sync == SyncKind::dmaBuf) syncCpuAccess(false);
}

// ---- column spans --------------------------------------------------------------------------

bool ColumnSpanList::add(int x, int width)
{
    if (n == kCapacity) return false;
    spans[n++] = {x, width};
    return true;
}

void ColumnSpanList::normalise(int limit)
{
    int kept = 0;
    for (int i = 0; i < n; ++i) {
        // 64-bit end: a caller's x + width may not fit an int.
        long long begin = std::max<long long>(spans[i].x, 0);
        long long end = std::min<long long>(static_cast<long long>(spans[i].x) + spans[i].width, limit);
        if (begin < end) spans[kept++] = {static_cast<int>(begin), static_cast<int>(end - begin)};
    }
    std::sort(spans, spans + kept, [](const ColumnSpan& a, const ColumnSpan& b) { return a.x < b.x; });
    int merged = 0;
    for (int i = 0; i < kept; ++i) {
        ColumnSpan& last = spans[merged > 0 ? merged - 1 : 0];
        if (merged > 0 && spans[i].x <= last.x + last.width) {
            last.width = std::max(last.x + last.width, spans[i].x + spans[i].width) - last.x;
        } else {
            spans[merged++] = spans[i];
        }
    }
    n = merged;
}

// ---- inputs --------------------------------------------------------------------------------

namespace {

GLuint createSampledTexture(GLenum internalFormat, int width, int height)
{
    GLuint texture = 0;
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_2D, texture);
    glTexStorage2D(GL_TEXTURE_2D, 1, internalFormat, width, height);
    setLinearClampParameters(GL_TEXTURE_2D);
    glBindTexture(GL_TEXTURE_2D, 0);
    return texture;
}

void deleteTexture(GLuint& texture)
{
    if (texture) glDeleteTextures(1, &texture);
    texture = 0;
}

}  // namespace

PortableRemapIo::~PortableRemapIo()
{
    release();
}

GLuint PortableRemapIo::importInput(int slot, int fd, int width, int height)
{
    if (!validSlot(slot) || width <= 0 || height <= 0) {
        AVS_LOGE("import of descriptor %d refused: slot %d, size %dx%d", fd, slot, width, height);
        return 0;
    }
    releaseSlot(slot);
    Slot& s = slots[slot];
    int stride = alignTo16(width);
    if (!s.mapping.map(fd, nv12ImageBytes(stride, height), false)) return 0;
    s.kind = Slot::Kind::input;
    s.width = width;
    s.height = height;
    s.stride = stride;
    s.in.lumaTexture = createSampledTexture(GL_R8, width, height);
    s.in.chromaTexture = createSampledTexture(GL_RG8, (width + 1) / 2, (height + 1) / 2);
    uploadInput(s);
    return s.in.lumaTexture;
}

int PortableRemapIo::refreshInput(int slot)
{
    if (!validSlot(slot) || slots[slot].kind != Slot::Kind::input) return -1;
    uploadInput(slots[slot]);
    return 0;
}

void PortableRemapIo::uploadInput(Slot& s)
{
    DescriptorMapping& mapping = s.mapping;
    const uint8_t* luma = mapping.data();
    const uint8_t* chroma = luma + static_cast<size_t>(s.stride) * s.height;
    mapping.beginCpuAccess();
    glPixelStorei(GL_UNPACK_ROW_LENGTH, s.stride);
    glBindTexture(GL_TEXTURE_2D, s.in.lumaTexture);
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, s.width, s.height, GL_RED, GL_UNSIGNED_BYTE, luma);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, s.stride / 2);  // in CbCr pairs
    glBindTexture(GL_TEXTURE_2D, s.in.chromaTexture);
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, (s.width + 1) / 2, (s.height + 1) / 2, GL_RG, GL_UNSIGNED_BYTE,
                    chroma);
    // Other uploads (alpha levels) rely on the default row length.
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
    glBindTexture(GL_TEXTURE_2D, 0);
    mapping.endCpuAccess();
}

const PortableRemapIo::Slot* PortableRemapIo::inputSlotOf(GLuint lumaTexture) const
{
    if (lumaTexture == 0) return nullptr;
    for (const Slot& s : slots)
        if (s.kind == Slot::Kind::input && s.in.lumaTexture == lumaTexture) return &s;
    return nullptr;
}

bool PortableRemapIo::bindInputTextures(GLuint lumaTexture) const
{
    const Slot* s = inputSlotOf(lumaTexture);
    if (!s) return false;
    glActiveTexture(GL_TEXTURE0 + kPortableChromaUnit);
    glBindTexture(GL_TEXTURE_2D, s->in.chromaTexture);
    glActiveTexture(GL_TEXTURE0 + kPortableLumaUnit);
    glBindTexture(GL_TEXTURE_2D, s->in.lumaTexture);
    return true;
}

GLuint PortableRemapIo::chromaTextureOf(GLuint lumaTexture) const
{
    const Slot* s = inputSlotOf(lumaTexture);
    return s ? s->in.chromaTexture : 0;
}

// ---- slot release --------------------------------------------------------------------------

void PortableRemapIo::releaseSlot(int slot)
{
    if (!validSlot(slot)) return;
    Slot& s = slots[slot];
    deleteTexture(s.in.lumaTexture);
    deleteTexture(s.in.chromaTexture);
    GLuint fbos[] = {s.out.canvasFbo, s.out.lumaPackFbo, s.out.chromaPackFbo};
    for (GLuint& fbo : fbos)
        if (fbo) glDeleteFramebuffers(1, &fbo);
    deleteTexture(s.out.canvasTexture);
    deleteTexture(s.out.lumaPackTexture);
    deleteTexture(s.out.chromaPackTexture);
    free(s.out.staging);
    s.out = OutputSlot{};
    s.mapping.unmap();
    s.kind = Slot::Kind::empty;
    s.width = s.height = s.stride = 0;
}

void PortableRemapIo::releaseAllSlots()
{
    for (int i = 0; i < kImportSlotCount; ++i) releaseSlot(i);
}

void PortableRemapIo::release()
{
    releaseAllSlots();
    if (lumaPackProgram) glDeleteProgram(lumaPackProgram);
    if (chromaPackProgram) glDeleteProgram(chromaPackProgram);
    if (packVertexArray) glDeleteVertexArrays(1, &packVertexArray);
    lumaPackProgram = chromaPackProgram = packVertexArray = 0;
}

}  // namespace zqgfx_gpu_avs
