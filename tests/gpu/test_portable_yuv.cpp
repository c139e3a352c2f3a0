// On the machine's real EGL/GLES driver (Mesa llvmpipe, EGL surfaceless): the remap engine's
// context, the YUV shader texts, and the plane paths' inputs, output planes and read-back, against
// hand-computed results, uploaded and, where the driver imports plane images (Mesa 25), zero-copy.
#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "avs_shader_texts.h"
#include "gl_nv12_remap.h"
#include "gles_multiband_blend.h"
#include "portable_yuv.h"

using namespace zqgfx_gpu_avs;

namespace {

using Bytes = std::vector<uint8_t>;

// One engine context for the whole suite, made as the library makes it (with its fallbacks for
// machines without a window system).
class RealDriver : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        engine = new (calloc(1, sizeof(ZQGL_Remap))) ZQGL_Remap;
        testing::internal::CaptureStderr();  // compile logs of texts this driver may refuse
        engine->ZQ_EGL_Init(&resource);
        initLog = testing::internal::GetCapturedStderr();
    }
    static void TearDownTestSuite()
    {
        engine->ZQ_EGL_Deinit();
        engine->~ZQGL_Remap();
        free(engine);
    }
    void SetUp() override
    {
        if (engine->context != EGL_NO_CONTEXT && eglGetCurrentContext() == engine->context &&
            resource.context == engine->context)
            return;
        if (getenv("ZQAVS_NO_EGL") != nullptr) GTEST_SKIP() << "ZQAVS_NO_EGL: this machine has no EGL";
        FAIL() << "no EGL context could be made:\n" << initLog;
    }

    static inline ZQGL_Remap* engine = nullptr;
    static inline multibandResource resource{};
    static inline std::string initLog;
};

TEST_F(RealDriver, YuvTextsBuildExactlyWhenTheDriverOffersYuvTargets)
{
    for (const char* text : {gRemapFragmentShaderYUV, gRemapFragmentShaderRGB, gRemapFragmentShaderRGBtoYUV,
                             gFragmentShader_blendYUV}) {
        testing::internal::CaptureStderr();
        GLuint shader = engine->loadShader(GL_FRAGMENT_SHADER, text);
        std::string log = testing::internal::GetCapturedStderr();
        if (resource.caps.has_GL_EXT_YUV_target) {
            EXPECT_NE(shader, 0u) << log;
        } else {  // refused, and reported with the driver's log
            EXPECT_EQ(shader, 0u);
            EXPECT_EQ(log.find("Could not compile shader 35632:\n"), 0u) << log;
        }
        glDeleteShader(shader);
    }
}

// The whole viewport through a remap-style program (vPosition / texCoords, no flip), sampling
// texture unit 0.
void drawViewport(GLuint program, int width, int height)
{
    static const GLfloat positions[] = {-1, -1, 1, -1, -1, 1, 1, 1};
    static const GLfloat coords[] = {0, 0, 1, 0, 0, 1, 1, 1};
    glViewport(0, 0, width, height);
    glUseProgram(program);
    glUniform1i(glGetUniformLocation(program, "outTexture"), 0);
    GLint position = glGetAttribLocation(program, "vPosition"), coord = glGetAttribLocation(program, "texCoords");
    glVertexAttribPointer(position, 2, GL_FLOAT, GL_FALSE, 0, positions);
    glVertexAttribPointer(coord, 2, GL_FLOAT, GL_FALSE, 0, coords);
    glEnableVertexAttribArray(position);
    glEnableVertexAttribArray(coord);
    glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
    glDisableVertexAttribArray(position);
    glDisableVertexAttribArray(coord);
}

int memfdWith(const Bytes& content)
{
    int fd = memfd_create("portable_yuv_test", 0);
    EXPECT_EQ(pwrite(fd, content.data(), content.size(), 0), static_cast<ssize_t>(content.size()));
    return fd;
}

Bytes memfdContent(int fd, size_t bytes)
{
    Bytes content(bytes);
    EXPECT_EQ(pread(fd, content.data(), bytes, 0), static_cast<ssize_t>(bytes));
    return content;
}

// Compares byte images `width` bytes wide; on a mismatch says where the first one is.
void expectImagesNear(const Bytes& actual, const Bytes& expected, int width, int tolerance, const std::string& name)
{
    ASSERT_EQ(actual.size(), expected.size()) << name;
    for (size_t i = 0; i < actual.size(); ++i) {
        if (std::abs(actual[i] - expected[i]) <= tolerance) continue;
        ADD_FAILURE() << name << ": first mismatch at byte (" << i % width << ", " << i / width << "): "
                      << int(actual[i]) << " vs " << int(expected[i]);
        return;
    }
}

// Parameter: zero-copy imports (skipped where the driver cannot import plane images) or uploads.
class PortableYuv : public RealDriver, public testing::WithParamInterface<bool> {
protected:
    void SetUp() override
    {
        RealDriver::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        if (GetParam() && resource.caps.path != GpuPath::planes)
            GTEST_SKIP() << "this driver does not import plane images";
        io = std::make_unique<PlaneIo>(engine->dpy, GetParam());
    }
    void TearDown() override { io.reset(); }

    std::unique_ptr<PlaneIo> io;
};

TEST_P(PortableYuv, CameraDrawnIntoBothPlanesKeepsSamplesAndFollowsNewContent)
{
    // 20 x 6 at stride 32; row padding holds 0xAB so that a stride mistake shows.
    const int w = 20, h = 6, stride = 32;
    Bytes nv12(nv12ImageBytes(stride, h), 0xAB);
    auto fill = [&](int bias) {
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) nv12[y * stride + x] = static_cast<uint8_t>(bias + 11 * x + 3 * y);
        for (int cy = 0; cy < h / 2; ++cy)
            for (int cx = 0; cx < w / 2; ++cx) {
                nv12[stride * (h + cy) + 2 * cx] = static_cast<uint8_t>(40 + 8 * cx + 4 * cy);
                nv12[stride * (h + cy) + 2 * cx + 1] = static_cast<uint8_t>(200 - 12 * cx + 8 * cy);
            }
    };
    fill(10);
    int inFd = memfdWith(nv12), outFd = memfdWith(Bytes(nv12.size(), 0xAB));
    GLuint luma = io->importInput(3, inFd, 0, w, h);
    ASSERT_NE(luma, 0u);
    GLuint lumaTarget = 0;
    GLuint lumaFbo = io->importOutput(4, outFd, 0, w, h, stride, &lumaTarget);
    ASSERT_NE(lumaFbo, 0u);
    const OutputPlanes planes = io->outputPlanes(4, lumaFbo);
    ASSERT_EQ(planes.count, 2);
    const GLuint programs[2] = {engine->createProgram(gRemapVertexShader, gPortableRemapFragmentShaderYUV),
                                engine->createProgram(gRemapVertexShader, gPortableRemapFragmentShaderChroma)};
    // Same size in and out: every luma pixel and every chroma pair (sampled at its 2 x 2 block's
    // centre) comes out as it went in.
    auto drawCamera = [&] {
        for (int p = 0; p < 2; ++p) {
            glBindFramebuffer(GL_FRAMEBUFFER, planes.planes[p].fbo);
            EXPECT_TRUE(io->bindInput(3, luma));
            const int d = planes.planes[p].divisor;
            drawViewport(programs[p], (w + d - 1) / d, (h + d - 1) / d);
        }
        ColumnSpanList spans;
        spans.add(0, w);
        EXPECT_EQ(io->finishOutput(4, spans), 0);
        glFinish();  // as a frame without a fence ends
        return memfdContent(outFd, nv12.size());
    };
    expectImagesNear(drawCamera(), nv12, stride, 0, "planes");

    // A new frame in the same descriptor reaches the GPU (uploaded again, or seen in place).
    fill(70);
    ASSERT_EQ(pwrite(inFd, nv12.data(), nv12.size(), 0), static_cast<ssize_t>(nv12.size()));
    EXPECT_EQ(io->refreshInput(3), 0);
    expectImagesNear(drawCamera(), nv12, stride, 0, "new_content");

    io->releaseSlot(3, false);
    EXPECT_FALSE(glIsTexture(luma) || io->bindInput(3, luma));
    EXPECT_EQ(io->refreshInput(3), -1);
    for (GLuint program : programs) glDeleteProgram(program);
    close(inFd), close(outFd);
}

TEST_P(PortableYuv, ReadBackWritesOnlyCoveredColumns)
{
    if (GetParam()) GTEST_SKIP() << "zero-copy planes are the buffer: nothing is read back";
    const uint8_t sentinel = 0xEE;
    const int stride = 32;
    for (const auto& [w, h] : {std::pair{20, 6}, std::pair{19, 5}}) {
        SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h));
        const size_t bytes = nv12ImageBytes(stride, h);
        int outFd = memfdWith(Bytes(bytes, sentinel));
        GLuint lumaTexture = 0;
        GLuint lumaFbo = io->importOutput(0, outFd, 0, w, h, stride, &lumaTexture);
        ASSERT_NE(lumaFbo, 0u);
        const int cw = (w + 1) / 2, ch = (h + 1) / 2;
        Bytes luma(w * h), chroma(cw * ch * 2);
        for (size_t i = 0; i < luma.size(); ++i) luma[i] = static_cast<uint8_t>(3 + 13 * (i % w) + 7 * (i / w));
        for (size_t i = 0; i < chroma.size(); ++i) chroma[i] = static_cast<uint8_t>(5 * i);
        glPixelStorei(GL_UNPACK_ALIGNMENT, 1);  // odd widths: rows back to back
        glBindTexture(GL_TEXTURE_2D, lumaTexture);
        glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, w, h, GL_RED, GL_UNSIGNED_BYTE, luma.data());
        GLint chromaTexture = 0;
        glBindFramebuffer(GL_FRAMEBUFFER, io->outputPlanes(0, lumaFbo).planes[1].fbo);
        glGetFramebufferAttachmentParameteriv(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0,
                                              GL_FRAMEBUFFER_ATTACHMENT_OBJECT_NAME, &chromaTexture);
        glBindTexture(GL_TEXTURE_2D, static_cast<GLuint>(chromaTexture));
        glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, cw, ch, GL_RG, GL_UNSIGNED_BYTE, chroma.data());
        glPixelStorei(GL_UNPACK_ALIGNMENT, 4);

        // Overlapping, touching, partly outside and wholly outside spans: columns 3..7 and 16..
        ColumnSpanList spans;
        for (auto [x, width] : {std::pair{3, 4}, {16, 10}, {5, 3}, {-5, 3}, {w + 2, 4}}) spans.add(x, width);
        ASSERT_EQ(io->finishOutput(0, spans), 0);

        auto covered = [w = w](int x) { return x < w && ((x >= 3 && x < 8) || x >= 16); };
        Bytes expected(bytes, sentinel);
        for (int i = 0; i < w * h; ++i)
            if (covered(i % w)) expected[(i / w) * stride + i % w] = luma[i];
        // A chroma pair is written when either of its two pixel columns is covered.
        for (int cy = 0; cy < ch; ++cy)
            for (int cx = 0; cx < cw; ++cx)
                if (covered(2 * cx) || covered(2 * cx + 1))
                    for (int c = 0; c < 2; ++c) expected[stride * (h + cy) + 2 * cx + c] = chroma[(cy * cw + cx) * 2 + c];
        expectImagesNear(memfdContent(outFd, bytes), expected, stride, 0, "read_back");

        // Nothing covered: the buffer is left alone.
        ASSERT_EQ(pwrite(outFd, Bytes(bytes, sentinel).data(), bytes, 0), static_cast<ssize_t>(bytes));
        EXPECT_EQ(io->finishOutput(0, ColumnSpanList()), 0);
        EXPECT_EQ(memfdContent(outFd, bytes), Bytes(bytes, sentinel));
        io->releaseSlot(0, false);
        close(outFd);
    }
}

TEST_P(PortableYuv, RefusesDescriptorsItCannotReachWhole)
{
    const int w = 20, h = 6;
    const size_t needed = nv12ImageBytes(32, h);
    int shortFd = memfdWith(Bytes(needed - 1)), wholeFd = memfdWith(Bytes(needed));
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    GLuint lumaTexture = 0;
    // Each refusal names the descriptor; the short one also the size it needs.
    const struct {
        int fd;
        std::function<GLuint()> attempt;
        std::string alsoNamed;
    } cases[] = {
        {shortFd, [&] { return io->importInput(0, shortFd, 0, w, h); }, std::to_string(needed)},
        {shortFd, [&] { return io->importOutput(1, shortFd, 0, w, h, 32, &lumaTexture); }, ""},
        {pipeFds[0], [&] { return io->importInput(2, pipeFds[0], 0, w, h); }, ""},
        {pipeFds[1], [&] { return io->importOutput(3, pipeFds[1], 0, w, h, 32, &lumaTexture); }, ""},
        // Output rows shorter than the image.
        {wholeFd, [&] { return io->importOutput(4, wholeFd, 0, w, h, 16, &lumaTexture); }, ""},
    };
    for (const auto& c : cases) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(c.attempt(), 0u);
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_NE(out.find("descriptor " + std::to_string(c.fd) + " "), std::string::npos) << out;
        EXPECT_NE(out.find(c.alsoNamed), std::string::npos) << out;
    }
    EXPECT_EQ(io->refreshInput(0), -1);
    EXPECT_EQ(io->refreshInput(2), -1);
    for (int fd : {shortFd, wholeFd, pipeFds[0], pipeFds[1]}) close(fd);
}

INSTANTIATE_TEST_SUITE_P(Imports, PortableYuv, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& info) { return info.param ? "ZeroCopy" : "Upload"; });

}  // namespace
