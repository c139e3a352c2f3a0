// The pieces of every path that draws NV12 planes instead of a YUV image (see gpu_caps.h):
// camera planes sampled as R8 luma and RG8 chroma; the output drawn into RGBA8 targets whose
// texels hold 4 luma pixels, or 2 CbCr pairs at half size (see packed_columns.h).
//
// Zero-copy ("planes"): each plane of the caller's buffer is an EGL image, sampled or rendered
// in place. Upload ("portable"): each input slot maps its descriptor once and uploads it every
// frame into R8/RG8 textures; each output plane is read back, over the columns the frame covered
// only, straight into the caller's mapping.
//
// The caller keeps every descriptor: nothing here closes or duplicates one. Every GL object,
// image and mapping made here is owned by PlaneIo and released by it alone.
#ifndef ZQGFX_AVS_PORTABLE_YUV_H
#define ZQGFX_AVS_PORTABLE_YUV_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "gl/common_resource.h"
#include "io/frame_io.h"
#include "zqgfx_gpu_avs.h"
#include "gl/gl_owners.h"

namespace zqgfx_gpu_avs {

// The remap engine's program texts for the path in use; the vertex text is shared by both paths.
struct RemapShaderTexts {
    const char* vertex;
    const char* yuvToYuv;  // gProgram
    const char* yuvToRgb;  // gProgramRGB
    const char* rgbToYuv;  // gProgramRGBtoYUV
    const char* yuvToChroma;  // gProgramChroma: plane paths only, null on the target path
};
RemapShaderTexts remapShaderTexts(bool portable);
// The blend engine's last-level text (RGB in, YUV out) for the path in use.
// On the plane paths that text writes luma; this one writes the chroma plane.
const char* blendYuvFragmentText(bool portable);
const char* blendChromaFragmentText();

// Bytes of an NV12 image whose rows are `stride` bytes: luma rows, then the interleaved chroma
// rows right after them. An odd height needs its last half chroma row as well.
inline size_t nv12ImageBytes(int stride, int height)
{
    return static_cast<size_t>(stride) * static_cast<size_t>(height + (height + 1) / 2);
}

// False, with an error line naming the descriptor, when `fd` is no buffer (a pipe, socket, device
// or directory), reports a size smaller than `wanted` bytes, or cannot be looked at.
bool descriptorHolds(int fd, size_t wanted);

// A caller's descriptor mapped for the CPU (dma-buf, memfd or any mappable file). Refuses, with an
// error line naming the descriptor, one that is smaller than asked for or cannot be mapped, so no
// access ever leaves the descriptor's bytes.
class DescriptorMapping {
public:
    DescriptorMapping() = default;
    ~DescriptorMapping() { unmap(); }
    DescriptorMapping(const DescriptorMapping&) = delete;
    DescriptorMapping& operator=(const DescriptorMapping&) = delete;

    bool map(int fd, size_t bytes, bool writable);
    void unmap();
    // Bracket every CPU access: dma-buf cache maintenance; a no-op on other descriptors.
    void beginCpuAccess();
    void endCpuAccess();

    uint8_t* data() const { return addr; }
    size_t size() const { return bytes; }
    int descriptor() const { return fd; }

private:
    enum class SyncKind : uint8_t { unknown, dmaBuf, none };
    bool syncCpuAccess(bool start);

    int fd = -1;
    uint8_t* addr = nullptr;
    size_t bytes = 0;
    bool writable = false;
    SyncKind sync = SyncKind::unknown;
};

// A column range [x, x + width) of the panorama that the frame wrote.
struct ColumnSpan {
    int x;
    int width;
};

// The columns one frame covers (non-overlap blocks and blended seams), in a fixed array so that
// building it every frame allocates nothing.
class ColumnSpanList {
public:
    static constexpr int kCapacity = 128;
    // False (and nothing added) when the list is full.
    bool add(int x, int width);
    void clear() { n = 0; }
    int count() const { return n; }
    const ColumnSpan& operator[](int i) const { return spans[i]; }
    // Clips to [0, limit), drops empty spans, sorts by start and merges overlapping or touching ones.
    void normalise(int limit);

private:
    ColumnSpan spans[kCapacity];
    int n = 0;
};

// The columns a frame writes: every non-overlap block of `layout` (the engine's copy, after any
// resize) and every seam window of `seams` (may be null).
void collectFrameColumns(const PSR_INITPARAMS_T& layout, const multibandResource* seams, ColumnSpanList* spans);

// Texture units of a camera on the plane paths: luma on unit 0 (`outTexture`), chroma on unit 1
// (`outTextureUV`, fixed by the shader text).
constexpr int kPortableLumaUnit = 0;
constexpr int kPortableChromaUnit = 1;

// Plane inputs and output of one remap engine, per slot of the engine's import table. All
// methods need the engine's context current; slot indices are those of the engine's table, and
// the names the table records are not needed: the slot says it all.
class PlaneIo final : public FrameIo {
public:
    // `zeroCopy`: import planes as EGL images of `dpy`; otherwise map, upload and read back.
    PlaneIo(EGLDisplay dpy, bool zeroCopy) : display(dpy), zeroCopy(zeroCopy) {}
    ~PlaneIo() override;
    PlaneIo(const PlaneIo&) = delete;
    PlaneIo& operator=(const PlaneIo&) = delete;

    GpuPath path() const override { return zeroCopy ? GpuPath::planes : GpuPath::portable; }

    // Makes the luma and chroma textures of the NV12 image of `fd` (pitch: width rounded up to
    // 16). Returns the luma texture, 0 when refused.
    GLuint importInput(int slot, int fd, uint32_t isAfbc, int width, int height) override;
    // The upload path uploads the slot's current content again (every later frame); 0, or -1
    // for a slot that holds no input.
    int refreshInput(int slot) override;
    // Binds the camera image of `slot` for a remap draw: luma on unit 0, chroma on unit 1; unit 0
    // stays active. False when the slot holds no camera image.
    bool bindInput(int slot, GLuint texture) const override;

    // Makes the luma and chroma render targets of the NV12 output of `fd` (rows of `stride`
    // bytes, a multiple of 4 for zero-copy planes: their texels are 4 bytes). Returns the luma
    // framebuffer and writes its texture to `*lumaTexture`; 0 when refused.
    GLuint importOutput(int slot, int fd, uint32_t isAfbc, int width, int height, int stride,
                        GLuint* lumaTexture) override;
    // The planes of the output in `slot`; count 0 when the slot holds no output.
    OutputPlanes outputPlanes(int slot, GLuint fbo) const override;
    // Ends a frame on the output in `slot`. Upload path: the columns of `spans` (chroma widened to even
    // columns) go into the caller's buffer, other bytes keep their content. Zero-copy: nothing (the
    // GPU writes the buffer itself). 0, or -1 when the slot holds no output or the read-back fails.
    int finishOutput(int slot, const ColumnSpanList& spans) override;

    // Unmaps the slot's descriptor and deletes its GL objects, in one order whatever `textureFirst`.
    void releaseSlot(int slot, bool textureFirst) override;
    void releaseAllSlots();

private:
    struct Plane {
        GlTexture texture;
        GlFramebuffer fbo;
    };
    struct Slot {
        enum class Kind : uint8_t { empty, input, output } kind = Kind::empty;
        DescriptorMapping mapping;  // upload path only
        int width = 0;
        int height = 0;
        int stride = 0;
        Plane luma;
        Plane chroma;
    };

    static bool validSlot(int slot) { return slot >= 0 && slot < kImportSlotCount; }
    bool makePlaneTextures(Slot& s, int fd);
    bool makeOutputTargets(Slot& s, int fd);
    GlTexture importedPlaneTexture(EGLint fourcc, int fd, int width, int height, int offset, int pitch) const;
    void uploadInput(Slot& s);
    bool readBackSpans(Slot& s, const ColumnSpanList& spans);
    void readPackedColumns(GLuint fbo, int pack, int x0, int x1, int rows, uint8_t* rowsStart, int stride);
    const Slot* slotHolding(int slot, Slot::Kind kind) const;

    EGLDisplay display;
    bool zeroCopy;
    Slot slots[kImportSlotCount];
    ColumnSpanList readSpans;  // normalised copy of the frame's spans
    std::vector<uint8_t> edgeTexels;  // a read-back texel column that uncovered columns share
};

}  // namespace zqgfx_gpu_avs

#endif  // ZQGFX_AVS_PORTABLE_YUV_H
