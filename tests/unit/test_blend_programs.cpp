// The blend engine's shader programs against the fake driver.
#include "blend_engine_support.h"

#include <map>

#include "avs_shader_texts.h"

namespace blend_test {
namespace {

using namespace zqgfx_gpu_avs;

class BlendPrograms : public BlendTest {};

TEST_F(BlendPrograms, FourProgramsShareAttributeLocationsAndAreAllDeleted)
{
    EnginePtr engine = makeEngine();
    multibandResource layout = makeLayout(2, {}, 0, 0, 0);
    std::vector<int> flags = flagsOf(2, {});
    ASSERT_EQ(engine->initMultibandBlend(&layout, flags.data()), 0);

    // Copy, lowest, blend, blendYUV, each with the shared vertex text compiled anew.
    std::vector<std::string> expected, sources;
    for (const char* fragment : {gFragmentShader, gFragmentShader_lowest, gFragmentShader_blend, gFragmentShader_blendYUV})
        expected.insert(expected.end(), {gVertexShader, fragment});
    for (const fakegl::Call& c : fakegl::callsTo("glShaderSource")) sources.push_back(c.text);
    EXPECT_EQ(sources, expected);
    // Each program has both inputs bound, at 0 and 1, before it is linked.
    std::map<int64_t, std::map<std::string, int64_t>> bound;
    for (const fakegl::Call& c : fakegl::calls()) {
        if (c.fn == "glBindAttribLocation") bound[c.args[0]][c.text] = c.args[1];
        if (c.fn == "glLinkProgram") {
            EXPECT_EQ(bound[c.args[0]], (std::map<std::string, int64_t>{{"texCoords", 1}, {"vPosition", 0}}));
        }
    }
    EXPECT_EQ(fakegl::countCalls("glLinkProgram"), 4u);

    ASSERT_EQ(engine->deinitMultibandBlend(flags.data()), 0);
    EXPECT_EQ(fakegl::liveObjects("program") + fakegl::liveObjects("shader") + fakegl::doubleDeletes(), 0u);
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
