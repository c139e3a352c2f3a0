// The fake driver itself: the bookkeeping the library's fake-driver tests lean on to be able to
// fail. (Injected build failures are shown by the tests that inject them.)
#include "fakegl/fakegl.h"

#include <gtest/gtest.h>

namespace {

TEST(FakeGl, NamesPerKindAndDeletesAreTrackedIncludingImages) {
    fakegl::reset();
    GLuint tex[3], fbo[2], zero = 0, never = 42;
    glGenTextures(3, tex);
    glGenFramebuffers(2, fbo);
    GLuint program = glCreateProgram();
    EXPECT_TRUE(tex[2] == 3u && fbo[0] == 1u);
    glDeleteTextures(1, &tex[1]);
    glDeleteFramebuffers(2, fbo);
    EXPECT_TRUE(fakegl::liveObjects("texture") == 2u && fakegl::createdObjects("texture") == 3u);
    EXPECT_FALSE(fakegl::isLive("texture", tex[1]));
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

}  // namespace
