// The plane paths' inputs, output planes, read-back and colour programs on the real driver
// (Mesa llvmpipe, EGL surfaceless): tiny images against hand-computed results, uploaded and, where
// the driver imports plane images (Mesa 25), zero-copy.
#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "avs_shader_texts.h"
#include "portable_yuv.h"

using namespace zqgfx_gpu_avs;

namespace {

using Bytes = std::vector<uint8_t>;

EGLDisplay g_display = EGL_NO_DISPLAY;

// Surfaceless display, 8/8/8/8 pbuffer config, ES 3 context; an empty string when current.
std::string makeContext()
{
    auto platformDisplay =
        reinterpret_cast<PFNEGLGETPLATFORMDISPLAYEXTPROC>(eglGetProcAddress("eglGetPlatformDisplayEXT"));
    if (!platformDisplay) return "no eglGetPlatformDisplayEXT";
    EGLDisplay dpy = platformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
    if (dpy == EGL_NO_DISPLAY || !eglInitialize(dpy, nullptr, nullptr)) return "no surfaceless display";
    g_display = dpy;
    const EGLint configAttribs[] = {EGL_RED_SIZE, 8, EGL_GREEN_SIZE, 8, EGL_BLUE_SIZE, 8, EGL_ALPHA_SIZE, 8,
                                    EGL_SURFACE_TYPE, EGL_PBUFFER_BIT, EGL_RENDERABLE_TYPE, EGL_OPENGL_ES3_BIT,
                                    EGL_NONE};
    const EGLint surfaceAttribs[] = {EGL_WIDTH, 16, EGL_HEIGHT, 16, EGL_NONE};
    const EGLint contextAttribs[] = {EGL_CONTEXT_CLIENT_VERSION, 3, EGL_NONE};
    EGLConfig config = nullptr;
    EGLint count = 0;
    if (!eglChooseConfig(dpy, configAttribs, &config, 1, &count) || count == 0) return "no 8888 pbuffer config";
    EGLSurface surface = eglCreatePbufferSurface(dpy, config, surfaceAttribs);
    EGLContext ctx = eglCreateContext(dpy, config, EGL_NO_CONTEXT, contextAttribs);
    // Kept until the process ends: eglTerminate would unload the driver, whose few lost
    // allocations would then reach the leak checker without a module name to suppress them by.
    if (!eglMakeCurrent(dpy, surface, surface, ctx)) return "no pbuffer surface or context";
    return "";
}

GLuint buildProgram(const char* vertexText, const char* fragmentText)
{
    GLuint program = glCreateProgram();
    const std::pair<GLenum, const char*> stages[] = {{GL_VERTEX_SHADER, vertexText}, {GL_FRAGMENT_SHADER, fragmentText}};
    for (auto [type, text] : stages) {
        GLuint shader = glCreateShader(type);
        glShaderSource(shader, 1, &text, nullptr);
        glCompileShader(shader);
        glAttachShader(program, shader);
        glDeleteShader(shader);
    }
    glLinkProgram(program);
    GLint linked = 0;
    glGetProgramiv(program, GL_LINK_STATUS, &linked);
    if (linked) return program;
    ADD_FAILURE() << "program does not build:\n" << fragmentText;
    glDeleteProgram(program);
    return 0;
}

// The whole viewport through a remap-style program (vPosition / texCoords, no flip).
void drawViewport(GLuint program, int width, int height)
{
    static const GLfloat positions[] = {-1, -1, 1, -1, -1, 1, 1, 1};
    static const GLfloat coords[] = {0, 0, 1, 0, 0, 1, 1, 1};
    glViewport(0, 0, width, height);
    glUseProgram(program);
    GLint position = glGetAttribLocation(program, "vPosition"), coord = glGetAttribLocation(program, "texCoords");
    glVertexAttribPointer(position, 2, GL_FLOAT, GL_FALSE, 0, positions);
    glVertexAttribPointer(coord, 2, GL_FLOAT, GL_FALSE, 0, coords);
    glEnableVertexAttribArray(position);
    glEnableVertexAttribArray(coord);
    glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
    glDisableVertexAttribArray(position);
    glDisableVertexAttribArray(coord);
}

GLuint rgbaTexture(int width, int height, const Bytes& rgba)
{
    GLuint texture = 0;
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_2D, texture);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, width, height, 0, GL_RGBA, GL_UNSIGNED_BYTE, rgba.data());
    setLinearClampParameters(GL_TEXTURE_2D);
    return texture;
}

GLuint framebufferOf(GLuint texture)
{
    GLuint fbo = 0;
    glGenFramebuffers(1, &fbo);
    glBindFramebuffer(GL_FRAMEBUFFER, fbo);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture, 0);
    return fbo;
}

Bytes readRgba(GLuint fbo, int width, int height)
{
    Bytes pixels(static_cast<size_t>(width) * height * 4);
    glBindFramebuffer(GL_FRAMEBUFFER, fbo);
    glReadPixels(0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, pixels.data());
    return pixels;
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

uint8_t toByte(double v)
{
    return static_cast<uint8_t>(std::lround(std::clamp(v, 0.0, 255.0)));
}

ColumnSpanList wholeWidth(int width)
{
    ColumnSpanList spans;
    spans.add(0, width);
    return spans;
}

// Parameter: zero-copy imports (skipped where the driver cannot import plane images) or uploads.
class PortableYuv : public ::testing::TestWithParam<bool> {
protected:
    static void SetUpTestSuite() { contextFailure = makeContext(); }
    void SetUp() override
    {
        if (!contextFailure.empty() && getenv("ZQAVS_NO_EGL")) GTEST_SKIP() << "ZQAVS_NO_EGL: no EGL here";
        ASSERT_EQ(contextFailure, "");
        if (GetParam() && detectGpuCaps(g_display).path != GpuPath::planes)
            GTEST_SKIP() << "this driver does not import plane images";
        io = std::make_unique<PlaneIo>(g_display, GetParam());
    }
    void TearDown() override { io.reset(); }

    static std::string contextFailure;
    std::unique_ptr<PlaneIo> io;
};
std::string PortableYuv::contextFailure;

}  // namespace

TEST_P(PortableYuv, CameraDrawnIntoBothPlanesKeepsSamplesAndFollowsNewContent)
{
    // 20 x 6 at stride 32; row padding holds 0xAB so that a stride mistake shows.
    const int w = 20, h = 6, stride = 32;
    Bytes nv12(nv12ImageBytes(stride, h), 0xAB);
    auto fillLuma = [&](int bias) {
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) nv12[y * stride + x] = static_cast<uint8_t>(bias + 11 * x + 3 * y);
    };
    fillLuma(10);
    for (int cy = 0; cy < 3; ++cy) {
        for (int cx = 0; cx < 10; ++cx) {
            nv12[stride * (h + cy) + 2 * cx] = static_cast<uint8_t>(40 + 8 * cx + 4 * cy);
            nv12[stride * (h + cy) + 2 * cx + 1] = static_cast<uint8_t>(200 - 12 * cx + 8 * cy);
        }
    }
    int inFd = memfdWith(nv12), outFd = memfdWith(Bytes(nv12.size(), 0xAB));
    GLuint luma = io->importInput(3, inFd, 0, w, h);
    ASSERT_NE(luma, 0u);
    GLuint lumaTarget = 0;
    GLuint lumaFbo = io->importOutput(4, outFd, 0, w, h, stride, &lumaTarget);
    ASSERT_NE(lumaFbo, 0u);
    const OutputPlanes planes = io->outputPlanes(4, lumaFbo);
    ASSERT_EQ(planes.count, 2);
    const GLuint programs[2] = {buildProgram(gRemapVertexShader, gPortableRemapFragmentShaderYUV),
                                buildProgram(gRemapVertexShader, gPortableRemapFragmentShaderChroma)};
    // Same size in and out: every luma pixel and every chroma pair (sampled at its 2 x 2 block's
    // centre) comes out as it went in.
    auto drawCamera = [&] {
        for (int p = 0; p < 2; ++p) {
            glBindFramebuffer(GL_FRAMEBUFFER, planes.planes[p].fbo);
            EXPECT_TRUE(io->bindInput(3, luma));
            glUseProgram(programs[p]);
            glUniform1i(glGetUniformLocation(programs[p], "outTexture"), 0);
            const int d = planes.planes[p].divisor;
            drawViewport(programs[p], (w + d - 1) / d, (h + d - 1) / d);
        }
        EXPECT_EQ(io->finishOutput(4, wholeWidth(w)), 0);
        glFinish();  // as a frame without a fence ends
        return memfdContent(outFd, nv12.size());
    };
    expectImagesNear(drawCamera(), nv12, stride, 0, "planes");

    // A new frame in the same descriptor reaches the GPU (uploaded again, or seen in place).
    fillLuma(70);
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
    const std::pair<int, int> sizes[] = {{20, 6}, {19, 5}};
    for (const auto& size : sizes) {
        const int w = size.first, h = size.second;  // plain names: lambdas below capture them
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
        const std::pair<int, int> ranges[] = {{3, 4}, {16, 10}, {5, 3}, {-5, 3}, {w + 2, 4}};
        for (auto [x, width] : ranges) spans.add(x, width);
        ASSERT_EQ(io->finishOutput(0, spans), 0);

        auto covered = [&](int x) { return x < w && ((x >= 3 && x < 8) || x >= 16); };
        Bytes expected(bytes, sentinel);
        for (int i = 0; i < w * h; ++i)
            if (covered(i % w)) expected[(i / w) * stride + i % w] = luma[i];
        // A chroma pair is written when either of its two pixel columns is covered.
        for (int cy = 0; cy < ch; ++cy)
            for (int cx = 0; cx < cw; ++cx)
                if (covered(2 * cx) || covered(2 * cx + 1))
                    for (int c = 0; c < 2; ++c) expected[stride * (h + cy) + 2 * cx + c] = chroma[(cy * cw + cx) * 2 + c];
        expectImagesNear(memfdContent(outFd, bytes), expected, stride, 0, "read_back_" + std::to_string(w));

        // Nothing covered: the buffer is left alone.
        ASSERT_EQ(pwrite(outFd, Bytes(bytes, sentinel).data(), bytes, 0), static_cast<ssize_t>(bytes));
        EXPECT_EQ(io->finishOutput(0, ColumnSpanList()), 0);
        EXPECT_EQ(memfdContent(outFd, bytes), Bytes(bytes, sentinel));
        io->releaseSlot(0, false);
        close(outFd);
    }
}

TEST_P(PortableYuv, RgbToYuvProgramConvertsPureColours)
{
    if (GetParam()) GTEST_SKIP() << "the conversion does not depend on the imports";
    // Eight pure colours in 4-column blocks.
    const uint8_t colours[8][3] = {{0, 0, 0},   {255, 255, 255}, {255, 0, 0},   {0, 255, 0},
                                   {0, 0, 255}, {255, 255, 0},   {0, 255, 255}, {255, 0, 255}};
    const int w = 32, h = 4;
    Bytes rgba(w * h * 4), expectYuv(w * h * 4);
    for (int i = 0; i < w * h; ++i) {
        const uint8_t* c = colours[(i % w) / 4];
        std::copy(c, c + 3, &rgba[i * 4]);
        expectYuv[i * 4] = toByte(0.299 * c[0] + 0.587 * c[1] + 0.114 * c[2]);
        expectYuv[i * 4 + 1] = toByte(-0.168736 * c[0] - 0.331264 * c[1] + 0.5 * c[2] + 128);
        expectYuv[i * 4 + 2] = toByte(0.5 * c[0] - 0.418688 * c[1] - 0.081312 * c[2] + 128);
        rgba[i * 4 + 3] = expectYuv[i * 4 + 3] = 255;
    }
    GLuint source = rgbaTexture(w, h, rgba), target = rgbaTexture(w, h, Bytes(w * h * 4));
    GLuint fbo = framebufferOf(target);

    GLuint toYuv = buildProgram(gRemapVertexShader, gPortableRemapFragmentShaderRGBtoYUV);
    glUseProgram(toYuv);
    glUniform1i(glGetUniformLocation(toYuv, "outTexture"), 0);
    glBindTexture(GL_TEXTURE_2D, source);
    drawViewport(toYuv, w, h);
    expectImagesNear(readRgba(fbo, w, h), expectYuv, w * 4, 1, "rgb_to_yuv");

    glDeleteFramebuffers(1, &fbo);
    for (GLuint texture : {source, target}) glDeleteTextures(1, &texture);
    glDeleteProgram(toYuv);
}

TEST_P(PortableYuv, RefusesDescriptorsItCannotReachWhole)
{
    const int w = 20, h = 6;
    const size_t needed = nv12ImageBytes(32, h);
    int shortFd = memfdWith(Bytes(needed - 1)), wholeFd = memfdWith(Bytes(needed));
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    GLuint lumaTexture = 0;
    auto expectRefusalNaming = [](int fd, const std::function<GLuint()>& attempt) {
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(attempt(), 0u);
        std::string out = ::testing::internal::GetCapturedStdout();
        EXPECT_NE(out.find("descriptor " + std::to_string(fd) + " "), std::string::npos) << out;
        return out;
    };
    std::string shortLine = expectRefusalNaming(shortFd, [&] { return io->importInput(0, shortFd, 0, w, h); });
    EXPECT_NE(shortLine.find(std::to_string(needed)), std::string::npos) << shortLine;
    expectRefusalNaming(shortFd, [&] { return io->importOutput(1, shortFd, 0, w, h, 32, &lumaTexture); });
    expectRefusalNaming(pipeFds[0], [&] { return io->importInput(2, pipeFds[0], 0, w, h); });
    expectRefusalNaming(pipeFds[1], [&] { return io->importOutput(3, pipeFds[1], 0, w, h, 32, &lumaTexture); });
    // Output rows shorter than the image.
    expectRefusalNaming(wholeFd, [&] { return io->importOutput(4, wholeFd, 0, w, h, 16, &lumaTexture); });
    EXPECT_EQ(io->refreshInput(0), -1);
    EXPECT_EQ(io->refreshInput(2), -1);
    for (int fd : {shortFd, wholeFd, pipeFds[0], pipeFds[1]}) close(fd);
}

INSTANTIATE_TEST_SUITE_P(Imports, PortableYuv, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) { return info.param ? "ZeroCopy" : "Upload"; });
