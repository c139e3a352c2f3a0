// The fake driver itself: the properties the library's fake-driver tests lean on.
#include "fakegl/fakegl.h"

#include <gtest/gtest.h>

namespace {

struct FakeGl : ::testing::Test {
    void SetUp() override { fakegl::reset(); }
};

TEST_F(FakeGl, NamesPerKindAndDeletesAreTrackedIncludingImages) {
    GLuint tex[3], fbo[2], zero = 0, never = 42;
    glGenTextures(3, tex);
    glGenFramebuffers(2, fbo);
    GLuint program = glCreateProgram();
    EXPECT_TRUE(tex[2] == 3u && fbo[0] == 1u);
    glDeleteTextures(1, &tex[1]);
    glDeleteFramebuffers(2, fbo);
    EXPECT_TRUE(fakegl::liveObjects("texture") == 2u && fakegl::createdObjects("texture") == 3u);
    EXPECT_FALSE(fakegl::isLive("texture", tex[1]));
    EXPECT_EQ(fakegl::callsTo("glDeleteFramebuffers").at(0).args.back(), 2);  // n, array, then the names
    // Name 0 is a no-op; a second delete, or a name of another kind, is not.
    glDeleteTextures(1, &zero);
    glDeleteProgram(0);
    glDeleteTextures(1, &tex[1]);
    glDeleteTextures(1, &never);
    glDeleteShader(program);
    EXPECT_EQ(fakegl::doubleDeletes(), 3u);

    // Images come through eglGetProcAddress; a destroyed one is refused, as a driver would.
    auto createImage = reinterpret_cast<PFNEGLCREATEIMAGEKHRPROC>(eglGetProcAddress("eglCreateImageKHR"));
    auto destroyImage = reinterpret_cast<PFNEGLDESTROYIMAGEKHRPROC>(eglGetProcAddress("eglDestroyImageKHR"));
    auto target = reinterpret_cast<PFNGLEGLIMAGETARGETTEXTURE2DOESPROC>(eglGetProcAddress("glEGLImageTargetTexture2DOES"));
    ASSERT_TRUE(createImage && destroyImage && target);
    const EGLint attribs[] = {EGL_WIDTH, 100, EGL_LARGEST_PBUFFER, EGL_NONE, EGL_NONE, 77, 77};
    EGLImageKHR image = createImage(nullptr, EGL_NO_CONTEXT, EGL_LINUX_DMA_BUF_EXT, nullptr, attribs);
    // Values past EGL_NONE belong to nobody; an EGL_NONE value must not end the list early.
    EXPECT_EQ(fakegl::callsTo("eglCreateImageKHR").at(0).attribs, std::vector<EGLint>(attribs, attribs + 5));
    target(GL_TEXTURE_EXTERNAL_OES, image);
    EXPECT_EQ(glGetError(), GL_NO_ERROR);
    EXPECT_EQ(destroyImage(nullptr, image) * 10 + destroyImage(nullptr, image), EGL_TRUE * 10 + EGL_FALSE);
    EXPECT_EQ(fakegl::doubleDeletes(), 4u);
    target(GL_TEXTURE_EXTERNAL_OES, image);
    EXPECT_EQ(glGetError(), GL_INVALID_VALUE);
}

TEST_F(FakeGl, ErrorsComeQueuedThenArmedThenNone) {
    fakegl::queueGlError(GL_INVALID_ENUM);
    fakegl::failCall("glBindTexture", GL_INVALID_OPERATION, 2);
    const std::pair<int, GLenum> rows[] = {{1, GL_INVALID_ENUM}, {0, GL_NO_ERROR}, {1, GL_INVALID_OPERATION}, {1, GL_NO_ERROR}};
    for (auto [binds, expected] : rows) {  // armed for the second call only
        if (binds) glBindTexture(GL_TEXTURE_2D, 1);
        EXPECT_EQ(glGetError(), expected);
    }
}

TEST_F(FakeGl, ShaderStatusAndLogFollowInjection) {
    fakegl::inject().failCompileAt = 2;
    fakegl::inject().compileLog = "0:1: syntax error";
    GLuint a = glCreateShader(GL_VERTEX_SHADER), b = glCreateShader(GL_FRAGMENT_SHADER);
    const char* parts[] = {"#version 310 es\n", "void main() {}"};
    glShaderSource(a, 2, parts, nullptr);
    EXPECT_EQ(fakegl::callsTo("glShaderSource").at(0).text, "#version 310 es\nvoid main() {}");
    glCompileShader(a);
    glCompileShader(b);
    GLint okA = -1, okB = -1, len = -1;
    glGetShaderiv(a, GL_COMPILE_STATUS, &okA);
    glGetShaderiv(b, GL_COMPILE_STATUS, &okB);
    glGetShaderiv(b, GL_INFO_LOG_LENGTH, &len);
    EXPECT_TRUE(okA == GL_TRUE && okB == GL_FALSE && len == 18);
    char log[8];
    GLsizei written = -1;
    glGetShaderInfoLog(b, sizeof log, &written, log);
    EXPECT_EQ(std::string(log) + "/" + std::to_string(written), "0:1: sy/7");
}

}  // namespace
