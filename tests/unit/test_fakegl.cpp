// The fake driver itself: the bookkeeping the library's fake-driver tests lean on to be able to
// fail. (Injected build failures are shown by the tests that inject them.)
#include "fakegl/fakegl.h"

#include <gtest/gtest.h>

namespace {

TEST(FakeGl, NamesPerKindAndDeletesAreTracked) {
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
}

}  // namespace
