// The fake driver itself: the properties the library's GPU tests lean on.
#include "fakegl/fakegl.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>

namespace {

class FakeGl : public ::testing::Test {
protected:
    void SetUp() override { fakegl::reset(); }
    void TearDown() override { fakegl::reset(); }
};

template <class F>
F proc(const char* name) {
    return reinterpret_cast<F>(eglGetProcAddress(name));
}

TEST_F(FakeGl, NamesStartAtOnePerKindAndDeletesAreTracked) {
    GLuint tex[3], fbo[2];
    glGenTextures(3, tex);
    glGenFramebuffers(2, fbo);
    GLuint program = glCreateProgram();
    EXPECT_EQ(tex[0], 1u);
    EXPECT_EQ(tex[2], 3u);
    EXPECT_EQ(fbo[0], 1u);
    EXPECT_EQ(program, 1u);
    EXPECT_EQ(fakegl::liveObjects("texture"), 3u);

    glDeleteTextures(1, &tex[1]);
    glDeleteFramebuffers(2, fbo);
    EXPECT_EQ(fakegl::liveObjects("texture"), 2u);
    EXPECT_EQ(fakegl::createdObjects("texture"), 3u);
    EXPECT_EQ(fakegl::liveObjects("framebuffer"), 0u);
    EXPECT_FALSE(fakegl::isLive("texture", tex[1]));
    EXPECT_EQ(fakegl::doubleDeletes(), 0u);

    // The deleted names travel with the call, after n and the array pointer.
    fakegl::Call del = fakegl::callsTo("glDeleteFramebuffers").at(0);
    ASSERT_EQ(del.args.size(), 4u);
    EXPECT_EQ(del.args[2], 1);
    EXPECT_EQ(del.args[3], 2);

    // Name 0 is a no-op; a second delete, or a name of another kind, is not.
    GLuint zero = 0, never = 42;
    glDeleteTextures(1, &zero);
    glDeleteProgram(0);
    EXPECT_EQ(fakegl::doubleDeletes(), 0u);
    glDeleteTextures(1, &tex[1]);
    glDeleteTextures(1, &never);
    glDeleteShader(program);
    EXPECT_EQ(fakegl::doubleDeletes(), 3u);

    fakegl::reset();
    glGenTextures(1, tex);
    EXPECT_EQ(tex[0], 1u);
    EXPECT_EQ(fakegl::doubleDeletes(), 0u);
}

TEST_F(FakeGl, ZeroBufferNameInjection) {
    fakegl::inject().zeroBufferName = true;
    GLuint buf[2] = {7, 7};
    glGenBuffers(2, buf);
    EXPECT_EQ(buf[0], 0u);
    EXPECT_EQ(buf[1], 0u);
    EXPECT_EQ(fakegl::liveObjects("buffer"), 0u);
}

TEST_F(FakeGl, GlErrorsComeQueuedThenArmedThenNone) {
    fakegl::queueGlError(GL_INVALID_ENUM);
    fakegl::failCall("glBindTexture", GL_INVALID_OPERATION, 2);
    glBindTexture(GL_TEXTURE_2D, 1);
    EXPECT_EQ(glGetError(), GL_INVALID_ENUM);
    EXPECT_EQ(glGetError(), GL_NO_ERROR);  // armed for the second call only
    glBindTexture(GL_TEXTURE_2D, 1);
    glBindTexture(GL_TEXTURE_2D, 1);
    EXPECT_EQ(glGetError(), GL_INVALID_OPERATION);
    EXPECT_EQ(glGetError(), GL_NO_ERROR);
    EXPECT_EQ(fakegl::countCalls("glGetError"), 4u);

    // An armed EGL function leaves its error for eglGetError, once.
    fakegl::failCall("eglBindAPI", EGL_BAD_PARAMETER);
    eglBindAPI(EGL_OPENGL_ES_API);
    EXPECT_EQ(eglGetError(), EGL_BAD_PARAMETER);
    EXPECT_EQ(eglGetError(), EGL_SUCCESS);
}

TEST_F(FakeGl, AttributeListsAreCopiedUpToTheTerminator) {
    EGLDisplay dpy = eglGetDisplay(EGL_DEFAULT_DISPLAY);
    // Values past EGL_NONE belong to nobody; an EGL_NONE value must not end the list early.
    const EGLint attribs[] = {EGL_WIDTH, 100, EGL_LARGEST_PBUFFER, EGL_NONE, EGL_NONE, 77, 77};
    EGLConfig config = reinterpret_cast<EGLConfig>(1);
    eglCreatePbufferSurface(dpy, config, attribs);
    fakegl::Call c = fakegl::callsTo("eglCreatePbufferSurface").at(0);
    EXPECT_EQ(c.attribs, std::vector<EGLint>(attribs, attribs + 5));
    EXPECT_EQ(fakegl::attribValue(c, EGL_WIDTH), 100);
    EXPECT_EQ(fakegl::attribValue(c, EGL_HEIGHT, -7), -7);

    const EGLAttrib wide[] = {EGL_PLATFORM_SURFACELESS_MESA, 1, EGL_NONE};
    EGLDisplay other = eglGetPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, wide);
    EXPECT_NE(other, dpy);
    EXPECT_EQ(fakegl::callsTo("eglGetPlatformDisplay").at(0).attribs.size(), 3u);
    EXPECT_EQ(eglGetDisplay(EGL_DEFAULT_DISPLAY), dpy);
}

TEST_F(FakeGl, ProcAddressHandsOutRecordingExtensionEntryPoints) {
    auto createImage = proc<PFNEGLCREATEIMAGEKHRPROC>("eglCreateImageKHR");
    auto destroyImage = proc<PFNEGLDESTROYIMAGEKHRPROC>("eglDestroyImageKHR");
    auto target = proc<PFNGLEGLIMAGETARGETTEXTURE2DOESPROC>("glEGLImageTargetTexture2DOES");
    ASSERT_TRUE(createImage && destroyImage && target);
    EXPECT_TRUE(proc<PFNEGLGETPLATFORMDISPLAYEXTPROC>("eglGetPlatformDisplayEXT"));
    EXPECT_EQ(proc<void (*)()>("eglNoSuchThing"), nullptr);
    EXPECT_EQ(fakegl::callsTo("eglGetProcAddress").back().text, "eglNoSuchThing");

    const EGLint attribs[] = {EGL_LINUX_DRM_FOURCC_EXT, 0x3231564E, EGL_NONE};
    fakegl::inject().nullImageFrom = 2;
    EGLImageKHR image = createImage(nullptr, EGL_NO_CONTEXT, EGL_LINUX_DMA_BUF_EXT, nullptr, attribs);
    EXPECT_EQ(createImage(nullptr, EGL_NO_CONTEXT, EGL_LINUX_DMA_BUF_EXT, nullptr, attribs), EGL_NO_IMAGE_KHR);
    EXPECT_NE(image, EGL_NO_IMAGE_KHR);
    EXPECT_EQ(fakegl::callsTo("eglCreateImageKHR").at(0).attribs.size(), 3u);

    target(GL_TEXTURE_EXTERNAL_OES, image);
    EXPECT_EQ(glGetError(), GL_NO_ERROR);
    EXPECT_EQ(destroyImage(nullptr, image), EGL_TRUE);
    EXPECT_EQ(destroyImage(nullptr, image), EGL_FALSE);
    EXPECT_EQ(fakegl::doubleDeletes(), 1u);
    target(GL_TEXTURE_EXTERNAL_OES, image);  // a destroyed image is refused, as a driver would
    EXPECT_EQ(glGetError(), GL_INVALID_VALUE);
}

TEST_F(FakeGl, ShaderStatusAndLogsFollowInjection) {
    fakegl::inject().failCompileAt = 2;
    fakegl::inject().compileLog = "0:1: syntax error";
    GLuint a = glCreateShader(GL_VERTEX_SHADER), b = glCreateShader(GL_FRAGMENT_SHADER);
    const char* parts[] = {"#version 310 es\n", "void main() {}"};
    glShaderSource(a, 2, parts, nullptr);
    EXPECT_EQ(fakegl::callsTo("glShaderSource").at(0).text, "#version 310 es\nvoid main() {}");
    glCompileShader(a);
    glCompileShader(b);

    GLint ok = -1, len = -1;
    glGetShaderiv(a, GL_COMPILE_STATUS, &ok);
    glGetShaderiv(a, GL_INFO_LOG_LENGTH, &len);
    EXPECT_EQ(ok, GL_TRUE);
    EXPECT_EQ(len, 0);
    glGetShaderiv(b, GL_COMPILE_STATUS, &ok);
    glGetShaderiv(b, GL_INFO_LOG_LENGTH, &len);
    EXPECT_EQ(ok, GL_FALSE);
    EXPECT_EQ(len, 18);
    char log[8];
    GLsizei written = -1;
    glGetShaderInfoLog(b, sizeof log, &written, log);
    EXPECT_STREQ(log, "0:1: sy");
    EXPECT_EQ(written, 7);

    fakegl::inject().failLinkAt = 1;  // a failed link without a log reports length 0
    GLuint p = glCreateProgram();
    glLinkProgram(p);
    glGetProgramiv(p, GL_LINK_STATUS, &ok);
    glGetProgramiv(p, GL_INFO_LOG_LENGTH, &len);
    EXPECT_EQ(ok, GL_FALSE);
    EXPECT_EQ(len, 0);
}

TEST_F(FakeGl, LocationsAreStableAndHonourBindings) {
    EXPECT_EQ(glGetAttribLocation(1, "vPosition"), 0);
    EXPECT_EQ(glGetAttribLocation(1, "texCoords"), 1);
    GLint other = glGetAttribLocation(1, "extra");
    EXPECT_GE(other, 2);
    EXPECT_EQ(glGetAttribLocation(2, "extra"), other);
    glBindAttribLocation(2, 5, "vPosition");
    EXPECT_EQ(glGetAttribLocation(2, "vPosition"), 5);
    EXPECT_EQ(glGetAttribLocation(1, "vPosition"), 0);

    GLint u = glGetUniformLocation(1, "outTexture");
    EXPECT_NE(glGetUniformLocation(1, "scale"), u);
    EXPECT_EQ(glGetUniformLocation(1, "outTexture"), u);
    EXPECT_EQ(fakegl::callsTo("glGetUniformLocation").at(1).text, "scale");
}

TEST_F(FakeGl, EglBringUpFollowsInjection) {
    fakegl::inject().noWindowConfigs = true;
    EGLDisplay dpy = eglGetDisplay(EGL_DEFAULT_DISPLAY);
    EGLint major = 0, minor = 0, count = -1;
    ASSERT_EQ(eglInitialize(dpy, &major, &minor), EGL_TRUE);
    EXPECT_EQ(major * 10 + minor, 14);

    const EGLint window[] = {EGL_SURFACE_TYPE, EGL_WINDOW_BIT, EGL_NONE};
    const EGLint pbuffer[] = {EGL_SURFACE_TYPE, EGL_PBUFFER_BIT, EGL_NONE};
    eglChooseConfig(dpy, window, nullptr, 0, &count);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(eglCreatePbufferSurface(dpy, nullptr, nullptr), EGL_NO_SURFACE);  // no config found
    EXPECT_EQ(eglGetError(), EGL_BAD_CONFIG);
    EGLConfig config = nullptr;
    eglChooseConfig(dpy, pbuffer, &config, 1, &count);
    ASSERT_EQ(count, 1);

    EGLSurface surface = eglCreatePbufferSurface(dpy, config, nullptr);
    EGLContext context = eglCreateContext(dpy, config, EGL_NO_CONTEXT, nullptr);
    EGLint width = 0;
    eglQuerySurface(dpy, surface, EGL_WIDTH, &width);
    EXPECT_EQ(width, 100);
    fakegl::inject().makeCurrentFails = true;
    EXPECT_EQ(eglMakeCurrent(dpy, surface, surface, context), EGL_FALSE);
    EXPECT_EQ(eglMakeCurrent(dpy, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT), EGL_TRUE);

    EXPECT_STREQ(eglQueryString(EGL_NO_DISPLAY, EGL_EXTENSIONS), "EGL_EXT_platform_base");
    fakegl::inject().initializeFailsOnDefaultDisplay = true;
    EXPECT_EQ(eglInitialize(dpy, &major, &minor), EGL_FALSE);
    EGLDisplay surfaceless = eglGetPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
    EXPECT_EQ(eglInitialize(surfaceless, &major, &minor), EGL_TRUE);
}

TEST_F(FakeGl, FenceWaitReportsInjectedResultAndError) {
    auto createSync = proc<PFNEGLCREATESYNCKHRPROC>("eglCreateSyncKHR");
    auto wait = proc<PFNEGLCLIENTWAITSYNCKHRPROC>("eglClientWaitSyncKHR");
    auto destroySync = proc<PFNEGLDESTROYSYNCKHRPROC>("eglDestroySyncKHR");
    fakegl::inject().clientWaitResult = EGL_TIMEOUT_EXPIRED_KHR;
    fakegl::inject().clientWaitError = EGL_BAD_ACCESS;
    EGLSyncKHR sync = createSync(nullptr, EGL_SYNC_FENCE_KHR, nullptr);
    EXPECT_EQ(wait(nullptr, sync, 0, 1000), EGL_TIMEOUT_EXPIRED_KHR);
    EXPECT_EQ(eglGetError(), EGL_BAD_ACCESS);
    EXPECT_EQ(wait(nullptr, EGL_NO_SYNC_KHR, 0, 1000), EGL_FALSE);
    EXPECT_EQ(eglGetError(), EGL_BAD_PARAMETER);
    EXPECT_EQ(destroySync(nullptr, sync), EGL_TRUE);
    EXPECT_EQ(fakegl::liveObjects("sync"), 0u);
    fakegl::inject().noSync = true;
    EXPECT_EQ(createSync(nullptr, EGL_SYNC_FENCE_KHR, nullptr), EGL_NO_SYNC_KHR);
}

TEST_F(FakeGl, CallsFromOtherThreadsAreAllRecorded) {
    auto work = [] {
        for (int i = 0; i < 2000; ++i) {
            GLuint t;
            glGenTextures(1, &t);
            glDeleteTextures(1, &t);
        }
    };
    std::thread other(work);
    work();
    other.join();
    EXPECT_EQ(fakegl::countCalls("glGenTextures"), 4000u);
    EXPECT_EQ(fakegl::calls().size(), 8000u);
    EXPECT_EQ(fakegl::createdObjects("texture"), 4000u);
    EXPECT_EQ(fakegl::doubleDeletes(), 0u);
}

}  // namespace
