// The exported entry points: the log level, refusals, and whole instances against the fake driver
// (init to deinit, the frame's call order, failed inits that leave their objects behind).
#include <algorithm>
#include <functional>
#include <regex>

#include "calibration_dir.h"
#include "fakegl/fakegl.h"
#include "gl_nv12_remap.h"
#include "gles_multiband_blend.h"
#include "zqgfx_gpu_avs_internal.h"

using entry_test::contains;
using entry_test::stdoutOf;

namespace {

// `text` in the error form of `function`, followed by the separately written newline.
bool hasErrorLine(const std::string& out, const std::string& function, const std::string& text)
{
    return contains(out, ": " + text + "\n") &&
           std::regex_search(out, std::regex("libzqgfx_avs: " + function + ",line=[0-9]+: "));
}

bool hasTraceLines(const std::string& out)
{
    return std::regex_search(out, std::regex(R"(libzqgfx_avs: \w+\([0-9]+\): )"));
}

class EntryPoints : public ::testing::Test {
public:
    void SetUp() override
    {
        fakegl::reset();
        forgetInstance();
        unsetenv("ZQ_GPU_AVS_DEBUG_LOG");
    }
    void TearDown() override
    {
        AvsThreadInstance& state = avs_thread_state();
        if (state.if_init_avs == 1 || fakegl::liveObjects("context") > 0) {
            state.if_init_avs = 1;  // a failed init past the EGL set-up is released like a finished one
            stdoutOf([&] { ZQGFX_AVS_deinit(&context); });
        } else {
            releaseObjectsOfAFailedInit();
        }
        forgetInstance();
        unsetenv("ZQ_GPU_AVS_DEBUG_LOG");
        refreshCalibrationLogLevel();
        refreshPlanningLogLevel();
    }

    static void forgetInstance() { avs_thread_state() = AvsThreadInstance{}; }

    // A failed init frees nothing; the tests do, so that the leak checker sees only the library.
    static void releaseObjectsOfAFailedInit()
    {
        AvsThreadInstance& s = avs_thread_state();
        if (s.mInputMeshCoords != nullptr) {
            for (auto* table : {&s.mInputMeshCoords->input_meshx, &s.mInputMeshCoords->input_meshy})
                for (auto& camera : *table)
                    for (float* mesh : camera) free(mesh);
            delete s.mInputMeshCoords;
        }
        delete s.init_params;
        delete s.mUseInputMeshCoords;
        delete s.multiband_resource;
        if (s.zqRemapInstance) s.zqRemapInstance->~ZQGL_Remap(), free(s.zqRemapInstance);
        if (s.zqMultibandBlendInstance) s.zqMultibandBlendInstance->~zqglMultibandBlend(), free(s.zqMultibandBlendInstance);
        free(s.doBlendArray);
    }

    // Four cameras in a ring, two-level pyramids; camera 3's right seam does not meet camera 0's left.
    void writeFourCameraCalibration()
    {
        layout = entry_test::ringLayout(4, 1, 2);
        for (zqPSR_OVERLAP_BLOCK& o : layout.overlap_block) o.band_num.assign(2, 1);
        layout.overlap_block[3].dst_startx[1] = layout.bld_width - 32;
        dir.writeCalibration(layout);
        for (const char* name : {"zq_ps_gpu_alpha01.bin", "zq_ps_gpu_alpha12.bin", "zq_ps_gpu_alpha23.bin"})
            dir.write(name, alpha.data(), alpha.size() * sizeof(float));
        context = entry_test::contextFor(layout, dir.path());
        context.inputBufferFormat = 0x3231564e;
        context.inputFdArray = fds;
    }

    ZQGFX_AVS_STATUS init()
    {
        ZQGFX_AVS_STATUS status = ZQGFX_AVS_FAILED;
        printed = stdoutOf([&] { status = ZQGFX_AVS_init(&context); });
        return status;
    }

    entry_test::TempCalibrationDir dir;
    PSR_INITPARAMS_T layout;
    std::vector<float> alpha = std::vector<float>(32 * 240 + 16 * 120, 0.5f);  // float maps of 32 x 240, 16 x 120
    ZQGFX_AVS_CONTEXT_T context{};
    int fds[5] = {11, 12, 13, 14, 15};
    std::string printed;
};

TEST_F(EntryPoints, NothingRunsWithoutAnInstanceOrAContext)
{
    EXPECT_EQ(ZQGFX_AVS_deinit(nullptr), ZQGFX_AVS_SUCCESS);
    EXPECT_STREQ(ZQGFX_AVS_get_path(), "none");
    PSR_REMAP_MESH mesh{};
    const std::string out = stdoutOf([&] {
        EXPECT_EQ(ZQGFX_AVS_AllProcess(&context), ZQGFX_AVS_FAILED);
        EXPECT_EQ(ZQGFX_AVS_resize(&context), ZQGFX_AVS_FAILED);
        EXPECT_EQ(ZQGFX_AVS_update_mesh(&context, &mesh), ZQGFX_AVS_FAILED);
        EXPECT_EQ(ZQGFX_AVS_create_sync(), nullptr);
        EXPECT_EQ(ZQGFX_AVS_wait_sync(nullptr), ZQGFX_AVS_FAILED);
    });
    EXPECT_TRUE(hasErrorLine(out, "ZQGFX_AVS_AllProcess", "no initialised instance on this thread, FAILED!")) << out;
    EXPECT_TRUE(fakegl::calls().empty());

    for (auto* entry : {&ZQGFX_AVS_init, &ZQGFX_AVS_resize, &ZQGFX_AVS_AllProcess}) {
        const std::string refused = stdoutOf([&] { EXPECT_EQ(entry(nullptr), ZQGFX_AVS_FAILED); });
        EXPECT_TRUE(std::regex_match(refused, std::regex(R"(libzqgfx_avs: ZQGFX_AVS_\w+,line=[0-9]+: )"
                                                         R"(input context is NULL, return FAILED!\n)")))
            << refused;
    }
}

TEST_F(EntryPoints, TraceLinesNeedLevelThreeAtInit)
{
    // No parameter file in the directory: init fails after its first steps.
    context = entry_test::contextFor(entry_test::ringLayout(2, 1, 1), dir.path());
    context.inputBufferFormat = 0x3231564e;
    for (const char* value : {"", "2", "abc", "3", "7"}) {
        SCOPED_TRACE(value);
        setenv("ZQ_GPU_AVS_DEBUG_LOG", value, 1);
        EXPECT_EQ(init(), ZQGFX_AVS_FAILED);
        EXPECT_TRUE(hasErrorLine(printed, "ZQGFX_AVS_init", "inputBufferFormat:0x3231564e,useMeshBufAddress=0,numView=2\n"));
        EXPECT_TRUE(contains(printed, "Read failed:" + dir.path() + "zq_ps_gpu_mesh_params.txt\n"));
        EXPECT_TRUE(hasErrorLine(printed, "ZQGFX_AVS_init", "init_coords_and_params FAILED!")) << printed;
        EXPECT_EQ(hasTraceLines(printed) + contains(printed, "init_params_internal="), 2 * (atoi(value) > 2)) << printed;
        releaseObjectsOfAFailedInit();
        forgetInstance();
    }
    // The level is read at init only: a later change waits for the next init.
    setenv("ZQ_GPU_AVS_DEBUG_LOG", "0", 1);
    init();
    setenv("ZQ_GPU_AVS_DEBUG_LOG", "3", 1);
    PSR_INITPARAMS_T caller = entry_test::ringLayout(1, 1, 0), copy;
    entry_test::CallerMeshes meshes(caller);
    ZQGFX_AVS_CONTEXT_T buffers = entry_test::contextFor(caller, "");
    buffers.AVS_initParams = &caller, buffers.avsRemapMeshArray = meshes.pointers.data();
    inputMeshCoords used;
    EXPECT_FALSE(hasTraceLines(stdoutOf([&] { EXPECT_EQ(get_mesh_and_init_params(&buffers, &copy, &used), 0); })));
}

TEST_F(EntryPoints, FileModeInstanceRunsFramesInOrderAndEndsAsTheCallerSynchronises)
{
    writeFourCameraCalibration();
    ASSERT_EQ(init(), ZQGFX_AVS_SUCCESS) << printed;
    EXPECT_TRUE(std::regex_search(printed, std::regex(R"(libzqgfx_avs: ZQGFX_AVS_init,line=[0-9]+: )"
                                                      R"(Init success! Version:v6\.9b1, use_time=[0-9.]+ms\n\n)")));
    EXPECT_STREQ(ZQGFX_AVS_get_path(), "target");
    const int* doBlend = avs_thread_instance().doBlendArray;
    EXPECT_EQ(std::vector<int>(doBlend, doBlend + 4), (std::vector<int>{1, 1, 1, 0}));
    const zqgfx_gpu_avs::ZQGL_Remap* remap = avs_thread_instance().zqRemapInstance;
    for (uint32_t useSync : {0u, 1u}) {
        context.useSync = useSync;
        const size_t start = fakegl::calls().size();
        EXPECT_EQ(ZQGFX_AVS_AllProcess(&context), ZQGFX_AVS_SUCCESS);
        const std::vector<fakegl::Call>& calls = fakegl::calls();
        // Programs in order of first use: non-overlap, overlap, then the blend engine's.
        std::vector<int64_t> programs;
        for (size_t i = start; i < calls.size(); ++i)
            if (calls[i].fn == "glUseProgram" && calls[i].args[0] != 0 &&
                std::find(programs.begin(), programs.end(), calls[i].args[0]) == programs.end())
                programs.push_back(calls[i].args[0]);
        ASSERT_GE(programs.size(), 3u);
        EXPECT_EQ(programs[0], remap->gProgram);
        EXPECT_EQ(programs[1], remap->gProgramRGB);
        EXPECT_EQ(calls.back().fn, useSync ? "glFlush" : "glFinish");
        EXPECT_EQ(std::count_if(calls.begin() + start, calls.end(), [](auto& c) { return c.fn == "glFinish"; }), useSync ? 0 : 1);
    }
    EXPECT_EQ(fakegl::countCalls("eglCreateImageKHR"), 5u);  // four cameras and the output, imported once

    AvsStageTimes times;  // a profiled frame drains the GPU after each of its five stages
    const size_t finishes = fakegl::countCalls("glFinish");
    EXPECT_EQ(avs_profile_frame(&context, &times), 0);
    EXPECT_EQ(fakegl::countCalls("glFinish") - finishes, 5u);
    EXPECT_EQ(ZQGFX_AVS_wait_sync(ZQGFX_AVS_create_sync()), ZQGFX_AVS_SUCCESS);

    fds[2] = 0;  // a failing step ends the frame without the flush or finish
    const size_t start = fakegl::calls().size();
    stdoutOf([&] { EXPECT_EQ(ZQGFX_AVS_AllProcess(&context), ZQGFX_AVS_FAILED); });
    EXPECT_EQ(fakegl::findCall("glFinish", start) + fakegl::findCall("glFlush", start), -2);

    stdoutOf([&] { EXPECT_EQ(ZQGFX_AVS_deinit(&context), ZQGFX_AVS_SUCCESS); });
    EXPECT_STREQ(ZQGFX_AVS_get_path(), "none");
    EXPECT_EQ(fakegl::liveObjects("context"), 0u);
    const size_t calls = fakegl::calls().size();
    EXPECT_EQ(ZQGFX_AVS_deinit(&context), ZQGFX_AVS_SUCCESS);  // a second deinit does nothing
    EXPECT_EQ(fakegl::calls().size(), calls);
    forgetInstance();
}

TEST_F(EntryPoints, UpdateMeshNamesTheBlockByCameraTimesTen)
{
    writeFourCameraCalibration();
    setenv("ZQ_GPU_AVS_DEBUG_LOG", "3", 1);
    ASSERT_EQ(init(), ZQGFX_AVS_SUCCESS) << printed;
    std::vector<float> mesh(3 * 16, 1.0f);
    PSR_REMAP_MESH record{4, 16, 16, 3, 16, mesh.data(), -1, mesh.data(), -1};
    std::string out = stdoutOf([&] { EXPECT_EQ(ZQGFX_AVS_update_mesh(nullptr, &record), ZQGFX_AVS_SUCCESS); });
    EXPECT_TRUE(contains(out, "Update mesh: index=4 inner_index=11 step_x=16 step_y=16 mesh_w=3 mesh_h=16 ")) << out;

    record.meshIndex = 12;  // past the last block: goes on as -1, which the remap engine refuses
    out = stdoutOf([&] { EXPECT_EQ(ZQGFX_AVS_update_mesh(nullptr, &record), ZQGFX_AVS_FAILED); });
    EXPECT_TRUE(contains(out, "inner_index=-1") && hasErrorLine(out, "ZQGFX_AVS_update_mesh", "ZQGFX_AVS_update_mesh FAILED!\n")) << out;
    stdoutOf([&] { EXPECT_EQ(ZQGFX_AVS_update_mesh(nullptr, nullptr), ZQGFX_AVS_FAILED); });
}

TEST_F(EntryPoints, AFailedInitKeepsWhatItMadeAndDeinitLeavesIt)
{
    const std::pair<std::function<void(EntryPoints&)>, const char*> rows[] = {
        {[](EntryPoints&) { fakegl::inject().noDisplay = true; }, "ZQ_EGL_Init FAILED!"},
        {[](EntryPoints& t) { t.dir.remove("zq_ps_gpu_alpha12.bin"); }, "init_multiband_blend FAILED!"},
    };
    for (const auto& row : rows) {
        TearDown();
        SetUp();
        writeFourCameraCalibration();
        row.first(*this);
        EXPECT_EQ(init(), ZQGFX_AVS_FAILED);
        EXPECT_TRUE(hasErrorLine(printed, "ZQGFX_AVS_init", row.second)) << printed;
        const AvsThreadInstance left = avs_thread_instance();
        EXPECT_TRUE(left.if_init_avs == 0 && left.init_params && left.multiband_resource && left.zqRemapInstance &&
                    left.zqMultibandBlendInstance);
        EXPECT_STREQ(ZQGFX_AVS_get_path(), "none");
        const size_t calls = fakegl::calls().size();
        EXPECT_EQ(ZQGFX_AVS_deinit(&context), ZQGFX_AVS_SUCCESS);
        EXPECT_TRUE(fakegl::calls().size() == calls && avs_thread_instance().multiband_resource == left.multiband_resource);
    }
}

TEST_F(EntryPoints, RepeatedInstancesLeaveNoDriverObjectBehind)
{
    writeFourCameraCalibration();
    const int cycles = 10;
    for (int cycle = 0; cycle < cycles; ++cycle) {
        context.useSync = cycle % 2;
        ASSERT_EQ(init(), ZQGFX_AVS_SUCCESS) << "cycle " << cycle << printed;
        for (int frame = 0; frame < 3; ++frame) {
            ASSERT_EQ(ZQGFX_AVS_AllProcess(&context), ZQGFX_AVS_SUCCESS);
            if (context.useSync) {
                ASSERT_EQ(ZQGFX_AVS_wait_sync(ZQGFX_AVS_create_sync()), ZQGFX_AVS_SUCCESS);
            }
        }
        stdoutOf([&] { ZQGFX_AVS_deinit(&context); });
        forgetInstance();
    }
    for (const char* kind : {"texture", "framebuffer", "buffer", "renderbuffer", "vertexarray", "program", "shader",
                             "query", "sampler", "fence", "image", "sync", "surface", "context"})
        EXPECT_EQ(fakegl::liveObjects(kind), 0u) << kind << " of " << fakegl::createdObjects(kind);
    EXPECT_EQ(fakegl::doubleDeletes(), 0u);
    // One instance at a time: each leaves the display terminated.
    EXPECT_EQ(fakegl::countCalls("eglTerminate"), static_cast<size_t>(cycles));
}

TEST_F(EntryPoints, BufferModeLeavesTheCallersMeshesAlone)
{
    writeFourCameraCalibration();
    entry_test::CallerMeshes caller(layout);
    const std::vector<std::vector<float>>& meshes = caller.meshes;
    PSR_DRM_BUF_MSG_S alphaBuffer{alpha.data(), 9, 0, static_cast<int64_t>(alpha.size() * sizeof(float))};
    void* alphaBuffers[3] = {&alphaBuffer, &alphaBuffer, &alphaBuffer};
    context.useMeshBufAddress = 1, context.AVS_initParams = &layout, context.meshFilePath = nullptr;
    context.avsRemapMeshArray = caller.pointers.data(), context.meshAlphaDrmBufMsgArray = alphaBuffers;

    ASSERT_EQ(init(), ZQGFX_AVS_SUCCESS) << printed;
    EXPECT_EQ(avs_thread_instance().mUseInputMeshCoords->input_meshy[3][2], meshes[23].data());
    stdoutOf([&] { EXPECT_EQ(ZQGFX_AVS_deinit(&context), ZQGFX_AVS_SUCCESS); });
    forgetInstance();
    // Still the caller's (freeing them here would also trip the allocator when the vectors go).
    EXPECT_EQ(meshes[0], entry_test::meshValues('x', 0, 0, static_cast<int>(meshes[0].size())));
}

}  // namespace
