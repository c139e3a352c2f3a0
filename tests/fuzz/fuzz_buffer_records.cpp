// Buffer-mode init from records built out of one input: the caller's layout (counts that may
// disagree with the block lists, sizes that may be negative or wild), mesh records sized as the
// layout says and filled with plain, huge or non-finite values, and alpha records whose size,
// offset and address come from the input. The harness keeps its side of the contract: every
// buffer it hands over holds what its record claims (a mem_size of 0 claims nothing, so that
// buffer holds the largest map any seam could read). An init that succeeds runs a frame.
#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <limits>
#include <vector>

#include "calibration_dir.h"
#include "instance_support.h"

namespace core = zqavs_calib_core;

namespace {

// Sides past these are left alone: a valid layout that large only costs memory.
constexpr int kLargestSide = 2048;
constexpr int kLargestAlphaSide = 256;
constexpr size_t kMostMeshNodes = 1 << 18;

int side(FuzzedDataProvider& in, int largest) { return in.ConsumeIntegralInRange(-2, largest); }

// A count's block list: as long as the count, or one entry short.
std::vector<int> blockValues(FuzzedDataProvider& in, int count, int largest)
{
    std::vector<int> values(std::max(count, 0) - (count > 0 && in.ConsumeBool() ? 1 : 0));
    for (int& v : values) v = side(in, largest);
    return values;
}

PSR_INITPARAMS_T callerLayout(FuzzedDataProvider& in)
{
    PSR_INITPARAMS_T l;
    l.camera_num = in.ConsumeIntegralInRange(0, core::kMaxCameras + 1);
    l.src_width = side(in, kLargestSide), l.src_height = side(in, kLargestSide);
    l.bld_width = side(in, kLargestSide), l.bld_height = side(in, kLargestSide);
    l.step_x = side(in, 64), l.step_y = side(in, 64);
    l.output_image_stride = in.ConsumeBool() ? (l.bld_width + 15) & ~15 : in.ConsumeIntegral<uint16_t>();
    l.image_stride = l.src_width;
    for (int c = 0; c < l.camera_num + (in.ConsumeBool() ? 0 : -1); ++c) {
        zqPSR_NONOVERLAP_BLOCK n;
        zqPSR_OVERLAP_BLOCK o;
        n.nonoverlap_num = in.ConsumeIntegralInRange(-1, core::kMaxBlocksPerCamera);
        o.overlap_num = in.ConsumeIntegralInRange(-1, 3);
        for (auto* a : {&n.dst_startx, &n.dst_width, &n.mesh_width, &n.mesh_height})
            *a = blockValues(in, n.nonoverlap_num, kLargestSide);
        for (auto* a : {&o.dst_startx, &o.dst_width, &o.mesh_width, &o.mesh_height})
            *a = blockValues(in, o.overlap_num, kLargestSide);
        o.band_num = blockValues(in, o.overlap_num, 12);
        o.alpha_width = blockValues(in, o.overlap_num, kLargestAlphaSide);
        o.alpha_height = blockValues(in, o.overlap_num, kLargestAlphaSide);
        l.nonoverlap_block.push_back(n), l.overlap_block.push_back(o);
        l.image_block_num.push_back(in.ConsumeBool() ? n.nonoverlap_num + o.overlap_num : in.ConsumeIntegralInRange(-1, 12));
    }
    return l;
}

float meshFill(FuzzedDataProvider& in)
{
    const float fills[] = {0.0f, 17.5f, -1e9f, 1e9f, std::numeric_limits<float>::quiet_NaN(),
                           std::numeric_limits<float>::infinity()};
    return in.PickValueInArray(fills);
}

struct CallerBuffers {
    std::vector<std::vector<float>> meshes;
    std::vector<PSR_REMAP_MESH> meshRecords;
    std::vector<void*> meshPointers;
    std::vector<std::vector<uint8_t>> alphas;
    std::vector<PSR_DRM_BUF_MSG_S> alphaRecords;
    std::vector<void*> alphaPointers;
};

// One mesh record per block the layout lists, false when the meshes would be too large to fuzz.
bool addMeshes(FuzzedDataProvider& in, const PSR_INITPARAMS_T& l, CallerBuffers* b)
{
    size_t nodes = 0;
    for (int c = 0; c < std::min<int>(l.camera_num, l.image_block_num.size()); ++c)
        for (const core::BlockView& block : core::cameraBlocks(l, c)) {
            const size_t count = static_cast<size_t>(std::max(block.mesh_width, 0)) * std::max(block.mesh_height, 0);
            if ((nodes += count) > kMostMeshNodes) return false;
            const float fill = meshFill(in);
            b->meshes.emplace_back(count, fill);
            b->meshes.emplace_back(count, fill);
        }
    for (size_t m = 0; m < b->meshes.size() / 2; ++m)
        b->meshRecords.push_back({int(m), l.step_x, l.step_y, 0, 0, b->meshes[2 * m].data(), -1,
                                  b->meshes[2 * m + 1].data(), -1});
    for (PSR_REMAP_MESH& r : b->meshRecords) b->meshPointers.push_back(in.ConsumeIntegralInRange(0, 31) ? &r : nullptr);
    return true;
}

// The most bytes any seam's alpha map can take: what a record without a size must hold.
size_t largestAlphaBytes(const PSR_INITPARAMS_T& l)
{
    size_t largest = 0;
    for (const zqPSR_OVERLAP_BLOCK& o : l.overlap_block)
        for (size_t k = 0; k < std::min({o.alpha_width.size(), o.alpha_height.size(), o.band_num.size()}); ++k)
            largest = std::max(largest, core::alphaElementCount(o.alpha_width[k], o.alpha_height[k], o.band_num[k] + 1));
    return largest * sizeof(float);
}

// One alpha record per camera, as many as seams can be blended.
void addAlphas(FuzzedDataProvider& in, const PSR_INITPARAMS_T& l, CallerBuffers* b)
{
    const size_t unsized = largestAlphaBytes(l);
    for (int c = 0; c < l.camera_num; ++c) {
        const int64_t size = in.ConsumeBool() ? 0 : in.ConsumeIntegralInRange<int64_t>(-1, 4 * 1024 * 1024);
        const int offset = in.ConsumeIntegralInRange(-1, 64);
        const size_t held = size > 0 ? static_cast<size_t>(size) : unsized + 64 * sizeof(float);
        b->alphas.emplace_back(std::max<size_t>(held, 1), in.ConsumeIntegral<uint8_t>());
        b->alphaRecords.push_back({in.ConsumeIntegralInRange(0, 31) ? b->alphas.back().data() : nullptr, -1, offset, size});
    }
    for (PSR_DRM_BUF_MSG_S& r : b->alphaRecords) b->alphaPointers.push_back(&r);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider in(data, size);
    PSR_INITPARAMS_T layout = callerLayout(in);
    CallerBuffers buffers;
    if (!addMeshes(in, layout, &buffers)) return 0;
    addAlphas(in, layout, &buffers);

    ZQGFX_AVS_CONTEXT_T context = entry_test::contextFor(layout, "");
    context.meshFilePath = nullptr;
    if (in.ConsumeIntegralInRange(0, 7) == 0)  // buffers that do not fit the layout
        for (uint32_t* side : {&context.inputBufferWidth, &context.inputBufferHeight, &context.outputBufferWidth,
                               &context.outputBufferHeight})
            *side = in.ConsumeIntegral<uint16_t>();
    context.inputBufferFormat = 0x3231564e;  // NV12
    context.avsAlphaType = in.ConsumeBool() ? FUSE_GPU_ALPHA_U8 : FUSE_GPU_ALPHA_FLOAT;
    context.useMeshBufAddress = 1;
    context.AVS_initParams = &layout;
    context.avsRemapMeshArray = buffers.meshPointers.data();
    context.meshAlphaDrmBufMsgArray = buffers.alphaPointers.data();
    entry_test::initFrameAndEnd(&context, layout.camera_num);
    return 0;
}
