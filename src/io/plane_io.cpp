// Plane paths: CPU mappings of the caller's descriptors, the column spans of a frame, and the
// plane textures and targets of every import slot.
#include "io/plane_io.h"

#include <linux/dma-buf.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "gl/import_core.h"
#include "gl/packed_columns.h"

namespace zqgfx_gpu_avs {

// ---- descriptor mappings -------------------------------------------------------------------

bool descriptorHolds(int fd, size_t wanted)
{
    struct stat st;
    if (fstat(fd, &st) != 0) {
        AVS_LOGE("descriptor %d cannot be mapped: %s", fd, strerror(errno));
        return false;
    }
    // Pipes, sockets, devices and directories hold no image; some drivers import them anyway.
    if (S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode) || S_ISCHR(st.st_mode) || S_ISDIR(st.st_mode)) {
        AVS_LOGE("descriptor %d is not a buffer", fd);
        return false;
    }
    // Regular files (memfd) report their size; so does a dma-buf. Mapping or importing past a
    // memfd's end succeeds and faults on first access, hence the check.
    if ((S_ISREG(st.st_mode) || st.st_size > 0) && static_cast<size_t>(st.st_size) < wanted) {
        AVS_LOGE("descriptor %d holds %lld bytes, %zu needed", fd, static_cast<long long>(st.st_size), wanted);
        return false;
    }
    return true;
}

bool DescriptorMapping::map(int fd_in, size_t wanted, bool write)
{
    unmap();
    if (!descriptorHolds(fd_in, wanted)) return false;
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

// ---- plane textures -----------------------------------------------------------------------

namespace {

GlTexture storageTexture(GLenum internalFormat, int width, int height)
{
    GLuint texture = 0;
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_2D, texture);
    glTexStorage2D(GL_TEXTURE_2D, 1, internalFormat, width, height);
    setLinearClampParameters(GL_TEXTURE_2D);
    glBindTexture(GL_TEXTURE_2D, 0);
    return GlTexture(texture);
}

int chromaSize(int size) { return (size + 1) / 2; }

}  // namespace

PlaneIo::~PlaneIo()
{
    releaseAllSlots();
}

GlTexture PlaneIo::importedPlaneTexture(EGLint fourcc, int fd, int width, int height, int offset, int pitch) const
{
    DmaBufImportSteps steps;
    steps.function = __FUNCTION__;
    steps.unbindTexture = true;
    DmaBufImport made = importDmaBuf(display, planeImageAttribs(fourcc, fd, width, height, offset, pitch), steps);
    if (!made.ok())
        AVS_LOGE("descriptor %d: plane image %dx%d at offset %d refused (0x%x)", fd, width, height, offset,
                 eglGetError());
    return std::move(made.texture);
}

// Both planes of input slot `s` (size and stride set) as textures: images of the caller's buffer, or
// textures of their own that uploads fill.
bool PlaneIo::makePlaneTextures(Slot& s, int fd)
{
    const int cw = chromaSize(s.width), ch = chromaSize(s.height);
    if (zeroCopy) {
        s.luma.texture = importedPlaneTexture(kFourccR8, fd, s.width, s.height, 0, s.stride);
        s.chroma.texture = importedPlaneTexture(kFourccGR88, fd, cw, ch, s.stride * s.height, s.stride);
    } else {
        s.luma.texture = storageTexture(GL_R8, s.width, s.height);
        s.chroma.texture = storageTexture(GL_RG8, cw, ch);
    }
    return s.luma.texture && s.chroma.texture;
}

// Both output planes of slot `s` (size and stride set) as packed RGBA8 targets: 4 luma pixels,
// or 2 CbCr pairs, a texel.
bool PlaneIo::makeOutputTargets(Slot& s, int fd)
{
    const int lumaTexels = packedWidth(s.width, kLumaPixelsPerTexel);
    const int chromaTexels = packedWidth(chromaSize(s.width), kChromaPixelsPerTexel);
    const int chromaRows = chromaSize(s.height);
    if (zeroCopy) {
        if (s.stride % 4 != 0) {
            AVS_LOGE("output descriptor %d: rows of %d bytes cannot be drawn 4 bytes a texel (stride must be a "
                     "multiple of 4)",
                     fd, s.stride);
            return false;
        }
        s.luma.texture = importedPlaneTexture(kFourccABGR8888, fd, lumaTexels, s.height, 0, s.stride);
        s.chroma.texture =
            importedPlaneTexture(kFourccABGR8888, fd, chromaTexels, chromaRows, s.stride * s.height, s.stride);
    } else {
        s.luma.texture = storageTexture(GL_RGBA8, lumaTexels, s.height);
        s.chroma.texture = storageTexture(GL_RGBA8, chromaTexels, chromaRows);
    }
    for (Plane* plane : {&s.luma, &s.chroma}) {
        if (!plane->texture) return false;
        plane->fbo = makeFramebuffer(plane->texture.get());
        if (!plane->fbo) return false;
    }
    return true;
}

// ---- inputs --------------------------------------------------------------------------------

GLuint PlaneIo::importInput(int slot, int fd, uint32_t, int width, int height)
{
    if (!validSlot(slot) || width <= 0 || height <= 0) {
        AVS_LOGE("import of descriptor %d refused: slot %d, size %dx%d", fd, slot, width, height);
        return 0;
    }
    releaseSlot(slot, false);
    Slot& s = slots[slot];
    s.width = width;
    s.height = height;
    s.stride = alignTo16(width);
    const size_t bytes = nv12ImageBytes(s.stride, height);
    const bool reachable = zeroCopy ? descriptorHolds(fd, bytes) : s.mapping.map(fd, bytes, false);
    s.kind = Slot::Kind::input;
    if (!reachable || !makePlaneTextures(s, fd)) {
        releaseSlot(slot, false);
        return 0;
    }
    if (!zeroCopy) uploadInput(s);
    return s.luma.texture.get();
}

int PlaneIo::refreshInput(int slot)
{
    if (!validSlot(slot) || slots[slot].kind != Slot::Kind::input) return -1;
    // An imported plane shows the buffer's current content by itself.
    if (!zeroCopy) uploadInput(slots[slot]);
    return 0;
}

void PlaneIo::uploadInput(Slot& s)
{
    DescriptorMapping& mapping = s.mapping;
    const uint8_t* luma = mapping.data();
    const uint8_t* chroma = luma + static_cast<size_t>(s.stride) * s.height;
    mapping.beginCpuAccess();
    glPixelStorei(GL_UNPACK_ROW_LENGTH, s.stride);
    glBindTexture(GL_TEXTURE_2D, s.luma.texture.get());
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, s.width, s.height, GL_RED, GL_UNSIGNED_BYTE, luma);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, s.stride / 2);  // in CbCr pairs
    glBindTexture(GL_TEXTURE_2D, s.chroma.texture.get());
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, chromaSize(s.width), chromaSize(s.height), GL_RG, GL_UNSIGNED_BYTE,
                    chroma);
    // Other uploads (alpha levels) rely on the default row length.
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
    glBindTexture(GL_TEXTURE_2D, 0);
    mapping.endCpuAccess();
}

const PlaneIo::Slot* PlaneIo::slotHolding(int slot, Slot::Kind kind) const
{
    return validSlot(slot) && slots[slot].kind == kind ? &slots[slot] : nullptr;
}

bool PlaneIo::bindInput(int slot, GLuint) const
{
    const Slot* s = slotHolding(slot, Slot::Kind::input);
    if (!s) return false;
    glActiveTexture(GL_TEXTURE0 + kPortableChromaUnit);
    glBindTexture(GL_TEXTURE_2D, s->chroma.texture.get());
    glActiveTexture(GL_TEXTURE0 + kPortableLumaUnit);
    glBindTexture(GL_TEXTURE_2D, s->luma.texture.get());
    return true;
}

// ---- output --------------------------------------------------------------------------------

GLuint PlaneIo::importOutput(int slot, int fd, uint32_t, int width, int height, int stride, GLuint* lumaTexture)
{
    if (!validSlot(slot) || width <= 0 || height <= 0 || stride < width || !lumaTexture) {
        AVS_LOGE("output descriptor %d refused: slot %d, size %dx%d, stride %d", fd, slot, width, height, stride);
        return 0;
    }
    releaseSlot(slot, false);
    Slot& s = slots[slot];
    s.width = width;
    s.height = height;
    s.stride = stride;
    const size_t bytes = nv12ImageBytes(stride, height);
    const bool reachable = zeroCopy ? descriptorHolds(fd, bytes) : s.mapping.map(fd, bytes, true);
    s.kind = Slot::Kind::output;
    if (!reachable || !makeOutputTargets(s, fd)) {
        AVS_LOGE("output planes %dx%d of descriptor %d could not be made", width, height, fd);
        releaseSlot(slot, false);
        return 0;
    }
    *lumaTexture = s.luma.texture.get();
    return s.luma.fbo.get();
}

OutputPlanes PlaneIo::outputPlanes(int slot, GLuint) const
{
    const Slot* s = slotHolding(slot, Slot::Kind::output);
    if (!s) return OutputPlanes{0, {}};
    return OutputPlanes{2, {{s->luma.fbo.get(), 1, 0, kLumaPixelsPerTexel}, {s->chroma.fbo.get(), 2, 1, kChromaPixelsPerTexel}}};
}

int PlaneIo::finishOutput(int slot, const ColumnSpanList& spans)
{
    if (!slotHolding(slot, Slot::Kind::output)) {
        AVS_LOGE("import slot %d holds no output planes", slot);
        return -1;
    }
    // Zero-copy: the planes are the caller's buffer; the frame's end flushes or finishes as on the
    // target path.
    if (zeroCopy) return 0;
    return readBackSpans(slots[slot], spans) ? 0 : -1;
}

// Each span's luma columns, and its chroma columns widened to whole CbCr pairs, read from the
// plane targets straight into the caller's rows.
bool PlaneIo::readBackSpans(Slot& s, const ColumnSpanList& spans)
{
    readSpans = spans;
    readSpans.normalise(s.width);
    if (readSpans.count() == 0) return true;
    uint8_t* luma = s.mapping.data();
    uint8_t* chroma = luma + static_cast<size_t>(s.stride) * s.height;
    // CbCr pairs a row holds: an odd width's last pair may not fit an odd stride.
    const int chromaColumns = std::min(chromaSize(s.width), s.stride / 2);

    s.mapping.beginCpuAccess();
    glPixelStorei(GL_PACK_ALIGNMENT, 1);
    for (int i = 0; i < readSpans.count(); ++i) {
        const int x = readSpans[i].x, width = readSpans[i].width;
        readPackedColumns(s.luma.fbo.get(), kLumaPixelsPerTexel, x, x + width, s.height, luma, s.stride);
        const int cx0 = x / 2, cx1 = std::min(chromaSize(x + width), chromaColumns);
        if (cx1 > cx0)
            readPackedColumns(s.chroma.fbo.get(), kChromaPixelsPerTexel, cx0, cx1, chromaSize(s.height), chroma,
                              s.stride);
    }
    glPixelStorei(GL_PACK_ROW_LENGTH, 0);
    glPixelStorei(GL_PACK_ALIGNMENT, 4);
    // The frame's draws went to the luma plane last; leave it bound as the target path leaves
    // its output.
    glBindFramebuffer(GL_FRAMEBUFFER, s.luma.fbo.get());
    s.mapping.endCpuAccess();
    GLenum error = glGetError();
    if (error != GL_NO_ERROR) {
        AVS_LOGE("read-back of output descriptor %d failed: 0x%04x", s.mapping.descriptor(), error);
        return false;
    }
    return true;
}

// Pixel columns [x0, x1) of every row of a packed target (texels of 4 bytes holding `pack`
// pixels) into the caller's rows: whole texels straight into them; a texel shared with columns
// the frame did not cover through `edgeTexels`, so that those columns keep their bytes.
void PlaneIo::readPackedColumns(GLuint fbo, int pack, int x0, int x1, int rows, uint8_t* rowsStart, int stride)
{
    glBindFramebuffer(GL_FRAMEBUFFER, fbo);
    PackedColumnDraw parts[3];
    const int n = packedColumnDraws(pack, x0, x1 - x0, parts);
    for (int i = 0; i < n; ++i) {
        const PackedColumnDraw& part = parts[i];
        uint8_t* first = rowsStart + 4 * static_cast<size_t>(part.texelX);
        const bool whole = std::all_of(part.mask, part.mask + 4, [](GLboolean m) { return m == GL_TRUE; });
        if (!whole) {
            edgeTexels.resize(4 * static_cast<size_t>(rows));
            glPixelStorei(GL_PACK_ROW_LENGTH, 0);
            glReadPixels(part.texelX, 0, 1, rows, GL_RGBA, GL_UNSIGNED_BYTE, edgeTexels.data());
            for (int y = 0; y < rows; ++y)
                for (int c = 0; c < 4; ++c)
                    if (part.mask[c]) first[static_cast<size_t>(y) * stride + c] = edgeTexels[4 * y + c];
        } else if (stride % 4 == 0) {
            glPixelStorei(GL_PACK_ROW_LENGTH, stride / 4);  // in texels
            glReadPixels(part.texelX, 0, part.texelWidth, rows, GL_RGBA, GL_UNSIGNED_BYTE, first);
        } else {
            glPixelStorei(GL_PACK_ROW_LENGTH, 0);  // rows that no texel count describes: one at a time
            for (int y = 0; y < rows; ++y)
                glReadPixels(part.texelX, y, part.texelWidth, 1, GL_RGBA, GL_UNSIGNED_BYTE,
                             first + static_cast<size_t>(y) * stride);
        }
    }
}

// ---- slot release --------------------------------------------------------------------------

void PlaneIo::releaseSlot(int slot, bool)
{
    if (!validSlot(slot)) return;
    Slot& s = slots[slot];
    for (Plane* plane : {&s.luma, &s.chroma}) {
        plane->fbo.reset();
        plane->texture.reset();
    }
    s.mapping.unmap();
    s.kind = Slot::Kind::empty;
    s.width = s.height = s.stride = 0;
}

void PlaneIo::releaseAllSlots()
{
    for (int i = 0; i < kImportSlotCount; ++i) releaseSlot(i, false);
}

}  // namespace zqgfx_gpu_avs
