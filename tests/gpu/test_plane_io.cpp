// On the machine's real EGL/GLES driver (Mesa llvmpipe, EGL surfaceless): the plane paths' inputs,
// output planes and read-back against hand-computed results, uploaded and, where the driver imports
// plane images (Mesa 25), zero-copy.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "shaders/avs_shader_texts.h"
#include "remap/gl_nv12_remap.h"
#include "blend/gles_multiband_blend.h"
#include "gl/packed_columns.h"
#include "io/plane_io.h"
#include "remap/remap_mesh_quads.h"
#include "stitch_fixture.h"
#include "api/zqgfx_gpu_avs_internal.h"

using namespace zqgfx_gpu_avs;

namespace {

using Bytes = std::vector<uint8_t>;

zqavs_synth::SharedBuffer sharedWith(const Bytes& content)
{
    zqavs_synth::SharedBuffer buffer;
    std::string error;
    EXPECT_TRUE(buffer.allocate(content.size(), "portable_yuv_test", &error)) << error;
    if (buffer.valid()) std::copy(content.begin(), content.end(), buffer.data());
    return buffer;
}

// Compares byte images `width` bytes wide; on a mismatch says where the first one is.
void expectSameImage(const Bytes& actual, const Bytes& expected, int width)
{
    ASSERT_EQ(actual.size(), expected.size());
    for (size_t i = 0; i < actual.size(); ++i)
        if (actual[i] != expected[i]) {
            ADD_FAILURE() << "first mismatch at byte (" << i % width << ", " << i / width << "): " << int(actual[i])
                          << " vs " << int(expected[i]);
            return;
        }
}

// A live session gives this thread the library's EGL context, on the path it chose; each test
// makes plane I/O of its own in it. Parameter: zero-copy imports (skipped where the driver cannot
// import plane images) or uploads.
class PortableYuv : public testing::TestWithParam<bool> {
protected:
    void SetUp() override
    {
        ASSERT_EQ(live.open(rig), "");
        engine = avs_thread_instance().zqRemapInstance;
        if (GetParam() && avs_thread_instance().multiband_resource->caps.path != GpuPath::planes)
            GTEST_SKIP() << "this driver does not import plane images";
        io = std::make_unique<PlaneIo>(engine->dpy, GetParam());
    }

    stitch_test::Rig rig{stitch_test::smallRig()};
    stitch_test::RigSession live;
    ZQGL_Remap* engine = nullptr;
    std::unique_ptr<PlaneIo> io;
};

// Camera images of even and odd sizes, drawn into both output planes at the same size: every luma
// pixel and every chroma pair (sampled at its 2 x 2 block's centre) comes out as it went in. Rows
// are 32 bytes, their padding holds the sentinel so that a stride mistake shows. Uploads read back
// the covered columns only (a chroma pair when either of its columns is); zero-copy planes are the
// buffer itself.
TEST_P(PortableYuv, DrawnPlanesReachTheBufferOverTheCoveredColumns)
{
    const uint8_t sentinel = 0xAB;
    const int stride = 32;
    // A block whose mesh maps every pixel onto itself: its corners' nodes lie on the image's edges.
    MeshQuadRemap quads;
    ASSERT_TRUE(quads.create(true));
    for (const auto& [w, h] : {std::pair{20, 6}, std::pair{19, 5}}) {
        SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h));
        Bytes nv12(nv12ImageBytes(stride, h), sentinel);
        // Luma rows hold `w` bytes, chroma rows a pair for each two columns begun.
        auto inImage = [&, w = w, h = h](size_t i) {
            return static_cast<int>(i % stride) < (i < static_cast<size_t>(stride) * h ? w : (w + 1) & ~1);
        };
        auto fill = [&](int bias) {
            for (size_t i = 0; i < nv12.size(); ++i)
                if (inImage(i)) nv12[i] = static_cast<uint8_t>(bias + 11 * (i % stride) + 3 * (i / stride));
        };
        fill(10);
        const zqavs_synth::SharedBuffer in = sharedWith(nv12), out = sharedWith(Bytes(nv12.size(), sentinel));
        GLuint luma = io->importInput(3, in.fd(), 0, w, h), lumaTexture = 0;
        ASSERT_NE(luma, 0u);
        const OutputPlanes planes = io->outputPlanes(4, io->importOutput(4, out.fd(), 0, w, h, stride, &lumaTexture));
        ASSERT_EQ(planes.count, 2);

        // Overlapping, touching, partly outside and wholly outside spans: columns 3..7 and 16..
        ColumnSpanList spans;
        for (auto [x, width] : {std::pair{3, 4}, {16, 10}, {5, 3}, {-5, 3}, {w + 2, 4}}) spans.add(x, width);
        auto covered = [&, w = w](int x) { return GetParam() || (x < w && ((x >= 3 && x < 8) || x >= 16)); };
        const float meshx[] = {-0.5f, w - 0.5f, -0.5f, w - 0.5f}, meshy[] = {-0.5f, -0.5f, h - 0.5f, h - 0.5f};
        ASSERT_TRUE(quads.storeMesh(0, meshx, meshy, 2, 2, w, h));
        auto drawCamera = [&, w = w, h = h] {
            FrameCounters counters;
            for (int p = 0; p < 2; ++p) {
                const OutputPlane& plane = planes.planes[p];
                glBindFramebuffer(GL_FRAMEBUFFER, plane.fbo);
                EXPECT_TRUE(io->bindInput(3, luma));
                const int d = plane.divisor;
                EXPECT_TRUE(quads.draw(p == 0 ? MeshQuadRemap::lumaProgram : MeshQuadRemap::chromaProgram, 0,
                                       plane.fbo, plane.pack, 0, 0, (w + d - 1) / d, (h + d - 1) / d, counters));
            }
            EXPECT_EQ(io->finishOutput(4, spans), 0);
            glFinish();  // as a frame without a fence ends
            Bytes expected(nv12.size(), sentinel);
            for (size_t i = 0; i < nv12.size(); ++i) {
                const int x = i % stride;
                const bool isLuma = i < static_cast<size_t>(stride) * h;
                if (inImage(i) && (isLuma ? covered(x) : covered(x & ~1) || covered(x | 1))) expected[i] = nv12[i];
            }
            expectSameImage(Bytes(out.data(), out.data() + out.size()), expected, stride);
        };
        drawCamera();

        // A new frame in the same descriptor reaches the GPU (uploaded again, or seen in place).
        fill(70);
        std::copy(nv12.begin(), nv12.end(), in.data());
        EXPECT_EQ(io->refreshInput(3), 0);
        drawCamera();
        io->releaseSlot(3, false);
        io->releaseSlot(4, false);
    }
}

// One block drawn as a quad with its mesh in a texture, with one filtered fetch of the mesh and
// with four fetches of its nodes: every pixel samples the camera where the bilinear interpolation
// of the four nodes around it points. The camera's luma is x + y, so the sample tells the source
// position to a code value; the mesh bends in both axes, so a linear interpolation would not do.
// The block starts 2 pixels into a texel of the packed plane: its end texels are shared with
// columns it must leave alone, and groups of four straddle its mesh cells.
TEST(MeshQuads, EveryPixelSamplesTheBilinearInterpolationOfItsMesh)
{
    stitch_test::Rig rig{stitch_test::smallRig()};
    stitch_test::RigSession live;
    ASSERT_EQ(live.open(rig), "");
    const int camW = 128, camH = 96, meshW = 5, meshH = 4, blockW = 64, blockH = 48;
    Bytes camera(camW * camH);
    for (int y = 0; y < camH; ++y)
        for (int x = 0; x < camW; ++x) camera[y * camW + x] = static_cast<uint8_t>(x + y);
    std::vector<float> mx(meshW * meshH), my(meshW * meshH);
    for (int r = 0; r < meshH; ++r)
        for (int c = 0; c < meshW; ++c) {
            mx[r * meshW + c] = 10.0f + 20.0f * c + 3.0f * r * r;
            my[r * meshW + c] = 5.0f + 15.0f * r + 2.0f * c * c;
        }
    GlTexture source = makeTexture(GL_R8, camW, camH, true);
    glBindTexture(GL_TEXTURE_2D, source.get());
    glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, camW, camH, GL_RED, GL_UNSIGNED_BYTE, camera.data());
    glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
    const int left = 2, planeW = 4 * packedWidth(left + blockW + 1, kLumaPixelsPerTexel);
    const uint8_t untouched = 0xAB;
    GlTexture target = makeTexture(GL_RGBA8, planeW / 4, blockH, false);
    GlFramebuffer fbo = makeFramebuffer(target.get());
    ASSERT_TRUE(fbo);

    for (bool filtered : {true, false}) {
        SCOPED_TRACE(filtered ? "filtered" : "four fetches");
        MeshQuadRemap quads;
        ASSERT_TRUE(quads.create(filtered));
        ASSERT_TRUE(quads.storeMesh(7, mx.data(), my.data(), meshW, meshH, camW, camH));
        glBindFramebuffer(GL_FRAMEBUFFER, fbo.get());
        glClearColor(untouched / 255.0f, untouched / 255.0f, untouched / 255.0f, untouched / 255.0f);
        glClear(GL_COLOR_BUFFER_BIT);
        glActiveTexture(GL_TEXTURE0);
        glBindTexture(GL_TEXTURE_2D, source.get());
        FrameCounters counters;
        ASSERT_TRUE(quads.draw(MeshQuadRemap::lumaProgram, 7, fbo.get(), kLumaPixelsPerTexel, left, 0, blockW, blockH,
                               counters));
        Bytes plane(planeW * blockH);
        glReadPixels(0, 0, planeW / 4, blockH, GL_RGBA, GL_UNSIGNED_BYTE, plane.data());
        for (int y = 0; y < blockH; ++y)
            for (int x : {0, 1, left + blockW, planeW - 1}) EXPECT_EQ(plane[y * planeW + x], untouched) << x << "," << y;
        int worst = 0;
        for (int y = 0; y < blockH; ++y)
            for (int x = 0; x < blockW; ++x) {
                const double u = (x + 0.5) / blockW * (meshW - 1), v = (y + 0.5) / blockH * (meshH - 1);
                const int c = std::min(static_cast<int>(u), meshW - 2), r = std::min(static_cast<int>(v), meshH - 2);
                auto at = [&](const std::vector<float>& m, double fu, double fv) {
                    const double top = m[r * meshW + c] * (1 - fu) + m[r * meshW + c + 1] * fu;
                    const double bottom = m[(r + 1) * meshW + c] * (1 - fu) + m[(r + 1) * meshW + c + 1] * fu;
                    return top * (1 - fv) + bottom * fv;
                };
                const double expected = at(mx, u - c, v - r) + at(my, u - c, v - r);
                worst = std::max(worst, static_cast<int>(std::lround(std::abs(plane[y * planeW + left + x] - expected))));
            }
        // llvmpipe lands within one code on amd64 and two on arm64; a wrong interpolation is tens off.
        EXPECT_LE(worst, 2);
        quads.release();
    }
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
}

INSTANTIATE_TEST_SUITE_P(Imports, PortableYuv, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& info) { return info.param ? "ZeroCopy" : "Upload"; });

}  // namespace
