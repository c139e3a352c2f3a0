// The portable path's own pieces: camera images and the output reach the GPU through CPU mappings
// of the caller's descriptors, for drivers without dma-buf import or YUV render targets.
//
// Inputs: each import slot maps its descriptor once and uploads it every frame into an R8 luma
// texture and an RG8 chroma texture. Output: each output slot renders into an RGBA8 "canvas"
// holding (Y, Cb, Cr, 1) per pixel; at the end of the frame a pack pass turns it into NV12 and
// copies only the columns the frame covered into the caller's mapping.
//
// The caller keeps every descriptor: nothing here closes or duplicates one. Every GL object and
// mapping made here is owned by PortableRemapIo and released by it alone.
#ifndef ZQGFX_AVS_PORTABLE_YUV_H
#define ZQGFX_AVS_PORTABLE_YUV_H

#include <cstddef>
#include <cstdint>
#include <functional>

#include "common_resource.h"
#include "gl_nv12_remap.h"

namespace zqgfx_gpu_avs {

// The remap engine's program texts for the path in use; the vertex text is shared by both paths.
struct RemapShaderTexts {
    const char* vertex;
    const char* yuvToYuv;  // gProgram
    const char* yuvToRgb;  // gProgramRGB
    const char* rgbToYuv;  // gProgramRGBtoYUV
};
RemapShaderTexts remapShaderTexts(bool portable);
// The blend engine's last-level text (RGB in, YUV out) for the path in use.
const char* blendYuvFragmentText(bool portable);

// Bytes of an NV12 image whose rows are `stride` bytes: luma rows, then the interleaved chroma
// rows right after them. An odd height needs its last half chroma row as well.
inline size_t nv12ImageBytes(int stride, int height)
{
    return static_cast<size_t>(stride) * static_cast<size_t>(height + (height + 1) / 2);
}

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

// Builds a program from a vertex and a fragment text; 0 on failure (the engines' createProgram).
using ProgramBuilder = std::function<GLuint(const char* vertexText, const char* fragmentText)>;

// Texture units of a camera on the portable path: luma on unit 0 (`outTexture`), chroma on unit 1
// (`outTextureUV`, fixed by the shader text).
constexpr int kPortableLumaUnit = 0;
constexpr int kPortableChromaUnit = 1;

// Portable inputs and output of one remap engine, per slot of the engine's import table. All
// methods need the engine's context current; slot indices are those of the engine's table.
class PortableRemapIo {
public:
    PortableRemapIo() = default;
    ~PortableRemapIo();
    PortableRemapIo(const PortableRemapIo&) = delete;
    PortableRemapIo& operator=(const PortableRemapIo&) = delete;

    // Builds the two pack programs; 0, or -1 when one fails.
    int init(const ProgramBuilder& buildProgram);

    // Maps the NV12 image of `fd` (pitch: width rounded up to 16), makes its luma and chroma
    // textures and uploads the current content. Returns the luma texture, 0 when refused.
    GLuint importInput(int slot, int fd, int width, int height);
    // Uploads the slot's current content again (every later frame); 0, or -1 for a slot that
    // holds no input.
    int refreshInput(int slot);
    // Binds a camera for a remap draw: luma on unit 0, chroma on unit 1; unit 0 stays active.
    // False when no slot holds `lumaTexture`.
    bool bindInputTextures(GLuint lumaTexture) const;
    GLuint chromaTextureOf(GLuint lumaTexture) const;

    // Maps the NV12 output of `fd` (rows of `stride` bytes) and makes the slot's canvas, cleared to
    // black. Returns the canvas framebuffer and writes its texture to `*canvasTexture`; 0 when
    // refused.
    GLuint importOutput(int slot, int fd, int width, int height, int stride, GLuint* canvasTexture);
    // Packs the canvas of `canvasFbo` into NV12 and copies the columns of `spans` (luma as they
    // are, chroma widened to even columns) into the caller's buffer; other bytes keep their
    // content. 0, or -1 when no slot holds `canvasFbo` or the read-back fails.
    int packOutput(GLuint canvasFbo, const ColumnSpanList& spans);

    // Unmaps the slot's descriptor and deletes its GL objects.
    void releaseSlot(int slot);
    void releaseAllSlots();
    // Every slot, then the pack programs.
    void release();

private:
    struct InputSlot {
        GLuint lumaTexture;
        GLuint chromaTexture;
    };
    struct OutputSlot {
        GLuint canvasTexture;
        GLuint canvasFbo;
        GLuint lumaPackTexture;
        GLuint lumaPackFbo;
        GLuint chromaPackTexture;
        GLuint chromaPackFbo;
        uint8_t* staging;  // luma pack rows, then chroma pack rows
    };
    struct Slot {
        enum class Kind : uint8_t { empty, input, output } kind = Kind::empty;
        DescriptorMapping mapping;
        int width = 0;
        int height = 0;
        int stride = 0;
        InputSlot in{};
        OutputSlot out{};
    };

    static bool validSlot(int slot) { return slot >= 0 && slot < kImportSlotCount; }
    void uploadInput(Slot& s);
    bool createOutputTargets(Slot& s);
    void drawPack(const Slot& s);
    bool readPack(const Slot& s);
    void copySpans(Slot& s);
    const Slot* inputSlotOf(GLuint lumaTexture) const;

    Slot slots[kImportSlotCount];
    GLuint lumaPackProgram = 0;
    GLuint chromaPackProgram = 0;
    GLuint packVertexArray = 0;  // empty: the pack draw needs no attributes
    ColumnSpanList packSpans;    // normalised copy of the frame's spans
};

}  // namespace zqgfx_gpu_avs

#endif  // ZQGFX_AVS_PORTABLE_YUV_H
