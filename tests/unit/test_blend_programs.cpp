// The blend engine's shader programs against the fake driver.
#include "blend_engine_support.h"

#include <map>

#include "avs_shader_texts.h"

namespace blend_test {
namespace {

using namespace zqgfx_gpu_avs;

class BlendPrograms : public BlendTest {};

TEST_F(BlendPrograms, FourProgramsShareAttributeLocationsAndAreDeletedInOrder)
{
    EnginePtr engine = makeEngine();
    multibandResource layout = makeLayout(2, {}, 0, 0, 0);
    std::vector<int> flags = flagsOf(2, {});
    ASSERT_EQ(engine->initMultibandBlend(&layout, flags.data()), 0);

    // Copy, lowest, blend, blendYUV, each with the shared vertex text compiled anew.
    const char* fragments[] = {gFragmentShader, gFragmentShader_lowest, gFragmentShader_blend, gFragmentShader_blendYUV};
    std::vector<fakegl::Call> sources = fakegl::callsTo("glShaderSource");
    ASSERT_EQ(sources.size(), 8u);
    for (int p = 0; p < 4; ++p) {
        EXPECT_EQ(sources[2 * p].text, gVertexShader);
        EXPECT_EQ(sources[2 * p + 1].text, fragments[p]);
    }
    // Each program has both inputs bound, at 0 and 1, before it is linked.
    std::map<int64_t, std::map<std::string, int64_t>> bound;
    size_t links = 0;
    for (const fakegl::Call& c : fakegl::calls()) {
        if (c.fn == "glBindAttribLocation") bound[c.args[0]][c.text] = c.args[1];
        if (c.fn != "glLinkProgram") continue;
        ++links;
        EXPECT_EQ(bound[c.args[0]], (std::map<std::string, int64_t>{{"texCoords", 1}, {"vPosition", 0}}));
    }
    EXPECT_EQ(links, 4u);

    std::vector<GLuint> programs = BlendEngineTestAccess::programs(*engine);
    ASSERT_EQ(engine->deinitMultibandBlend(flags.data()), 0);
    std::vector<fakegl::Call> deletes = fakegl::callsTo("glDeleteProgram");
    ASSERT_EQ(deletes.size(), 4u);
    const GLuint order[] = {programs[0], programs[2], programs[3], programs[1]};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(deletes[i].args[0], order[i]);
    EXPECT_EQ(fakegl::liveObjects("program") + fakegl::liveObjects("shader"), 0u);
}

TEST_F(BlendPrograms, BuildFailuresFailInitWithTheirLogs)
{
    struct Case {
        int failCompileAt, failLinkAt;
        std::string log;
        size_t programsLeft;  // built before the failure, kept until de-init
    };
    // The fourth compile is the lowest program's fragment text; the fourth link is blendYUV's.
    const Case cases[] = {{4, 0, "Could not compile shader 35632:\nbad\n", 1},
                          {0, 4, "Could not link program:\nbad\n", 3}};
    for (const Case& c : cases) {
        fakegl::reset();
        fakegl::inject().failCompileAt = c.failCompileAt;
        fakegl::inject().failLinkAt = c.failLinkAt;
        fakegl::inject().compileLog = fakegl::inject().linkLog = "bad";
        EnginePtr engine = makeEngine();
        multibandResource layout = makeLayout(1, {}, 0, 0, 0);
        std::vector<int> flags = flagsOf(1, {});
        testing::internal::CaptureStderr();
        EXPECT_EQ(engine->initMultibandBlend(&layout, flags.data()), -1);
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_NE(err.find(c.log + "Could not set up graphics.\n"), std::string::npos) << err;
        EXPECT_EQ(fakegl::liveObjects("program"), c.programsLeft);
    }
}

}  // namespace
}  // namespace blend_test
