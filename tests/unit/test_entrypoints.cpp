// The exported entry points: refusals, and whole instances against the fake driver
// (init to deinit, the frame's call order, failed inits that leave their objects behind), on the
// target path and on the plane paths; and the calibration loaders beneath them.
#include <sys/mman.h>
#include <unistd.h>

#include <drm_fourcc.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <functional>
#include <memory>
#include <regex>
#include <utility>

#include "calibration_dir.h"
#include "instance_support.h"
#include "io/plane_io.h"
#include "unit/remap_engine_support.h"

using entry_test::contains;
using entry_test::forgetInstance;
using engine_test::hasErrorLine;
using entry_test::stdoutOf;

namespace {

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
        stdoutOf([&] { entry_test::endInstance(&context); });
        unsetenv("ZQ_GPU_AVS_DEBUG_LOG");
        refreshCalibrationLogLevel();
        refreshPlanningLogLevel();
    }

    // Four cameras in a ring, seams `seam` columns wide with `bands` + 1 pyramid levels, blended
    // with the alpha map `alphaMap`; camera 3's right seam does not meet camera 0's left.
    void writeRing(int seam, int bands, const void* alphaMap, size_t bytes)
    {
        layout = entry_test::ringLayout(4, 1, 2);
        for (zqPSR_OVERLAP_BLOCK& o : layout.overlap_block)
            o.dst_width.assign(2, seam), o.alpha_width.assign(2, seam), o.band_num.assign(2, bands);
        layout.overlap_block[3].dst_startx[1] = layout.bld_width - seam;
        dir.writeCalibration(layout);
        for (int c = 0; c < 3; ++c) dir.write(zqavs_calib_core::alphaFileName(c, c + 1), alphaMap, bytes);
        context = entry_test::contextFor(layout, dir.path());
        context.inputBufferFormat = 0x3231564e;
        context.inputFdArray = fds;
    }
    void writeFourCameraCalibration() { writeRing(32, 1, alpha.data(), alpha.size() * sizeof(float)); }

    // File mode on the four-camera calibration as `change` leaves it (the buffers fit the original).
    ZQGFX_AVS_STATUS initChanged(const std::function<void(PSR_INITPARAMS_T&)>& change)
    {
        change(layout);
        dir.writeCalibration(layout);
        return ZQGFX_AVS_init(&context);
    }
    // Buffer mode on the same calibration: a record for every block, one alpha record for all seams.
    void useBuffers()
    {
        callerMeshes = std::make_unique<entry_test::CallerMeshes>(layout);
        alphaRecord = PSR_DRM_BUF_MSG_S{alpha.data(), 9, 0, static_cast<int64_t>(alpha.size() * sizeof(float))};
        std::fill(std::begin(alphaRecords), std::end(alphaRecords), &alphaRecord);
        context.useMeshBufAddress = 1, context.AVS_initParams = &layout, context.meshFilePath = nullptr;
        context.avsRemapMeshArray = callerMeshes->pointers.data(), context.meshAlphaDrmBufMsgArray = alphaRecords;
    }
    // Buffer mode, the records as `change` leaves them.
    ZQGFX_AVS_STATUS initBuffers(const std::function<void(EntryPoints&)>& change)
    {
        useBuffers();
        change(*this);
        return ZQGFX_AVS_init(&context);
    }
    // A running instance, then `call`.
    ZQGFX_AVS_STATUS running(const std::function<ZQGFX_AVS_STATUS(EntryPoints&)>& call)
    {
        return ZQGFX_AVS_init(&context) == ZQGFX_AVS_SUCCESS ? call(*this) : ZQGFX_AVS_FAILED;
    }
    ZQGFX_AVS_STATUS initAndFrame() { return running([](EntryPoints& t) { return ZQGFX_AVS_AllProcess(&t.context); }); }

    ZQGFX_AVS_STATUS initNow() { return ZQGFX_AVS_init(&context); }
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
    std::vector<int> manyFds;  // for layouts of more cameras
    std::string printed;
    std::unique_ptr<entry_test::CallerMeshes> callerMeshes;
    PSR_DRM_BUF_MSG_S alphaRecord{};
    void* alphaRecords[4] = {};
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
        ZQGFX_AVS_STAGE_TIMES_T times{};
        EXPECT_EQ(ZQGFX_AVS_profile_frame(&context, &times), ZQGFX_AVS_FAILED);
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

// Ten file-mode instances one after another, fenced and not; the first is looked at closely.
TEST_F(EntryPoints, InstancesRunFramesInOrderEndAsTheCallerSynchronisesAndLeaveNothingBehind)
{
    writeFourCameraCalibration();
    ASSERT_EQ(init(), ZQGFX_AVS_SUCCESS) << printed;
    EXPECT_TRUE(std::regex_search(printed, std::regex(R"(libzqgfx_avs: ZQGFX_AVS_init,line=[0-9]+: )"
                                                      R"(Init success! Version:v6\.9b1, use_time=[0-9.]+ms\n\n)")));
    EXPECT_STREQ(ZQGFX_AVS_get_path(), "target");
    for (uint32_t useSync : {0u, 1u}) {
        context.useSync = useSync;
        const size_t start = fakegl::calls().size();
        EXPECT_EQ(ZQGFX_AVS_AllProcess(&context), ZQGFX_AVS_SUCCESS);
        EXPECT_EQ(remap_test::callSequence("^glFinish$|^glFlush$", start), useSync ? "glFlush" : "glFinish");
        EXPECT_EQ(fakegl::calls().back().fn, useSync ? "glFlush" : "glFinish");
    }
    EXPECT_EQ(fakegl::countCalls("eglCreateImageKHR"), 5u);  // four cameras and the output, imported once

    ZQGFX_AVS_STAGE_TIMES_T times;  // a profiled frame drains the GPU after each of its five stages
    const size_t finishes = fakegl::countCalls("glFinish");
    EXPECT_EQ(ZQGFX_AVS_profile_frame(&context, &times), ZQGFX_AVS_SUCCESS);
    EXPECT_EQ(fakegl::countCalls("glFinish") - finishes, 5u);

    fds[2] = 0;  // a failing step ends the frame without the flush or finish
    const size_t start = fakegl::calls().size();
    stdoutOf([&] { EXPECT_EQ(ZQGFX_AVS_AllProcess(&context), ZQGFX_AVS_FAILED); });
    EXPECT_EQ(remap_test::callSequence("^glFinish$|^glFlush$", start), "");
    fds[2] = 13;
    stdoutOf([&] { EXPECT_EQ(ZQGFX_AVS_deinit(&context), ZQGFX_AVS_SUCCESS); });
    EXPECT_STREQ(ZQGFX_AVS_get_path(), "none");
    const size_t calls = fakegl::calls().size();
    EXPECT_EQ(ZQGFX_AVS_deinit(&context), ZQGFX_AVS_SUCCESS);  // a second deinit does nothing
    EXPECT_EQ(fakegl::calls().size(), calls);
    forgetInstance();

    for (int cycle = 1; cycle < 10; ++cycle) {
        context.useSync = cycle % 2;
        ASSERT_EQ(init(), ZQGFX_AVS_SUCCESS) << "cycle " << cycle << printed;
        for (int frame = 0; frame < 3; ++frame) {
            ASSERT_EQ(ZQGFX_AVS_AllProcess(&context), ZQGFX_AVS_SUCCESS);
            ASSERT_TRUE(!context.useSync || ZQGFX_AVS_wait_sync(ZQGFX_AVS_create_sync()) == ZQGFX_AVS_SUCCESS);
        }
        stdoutOf([&] { ZQGFX_AVS_deinit(&context); });
        forgetInstance();
    }
    for (const char* kind : {"texture", "framebuffer", "buffer", "renderbuffer", "vertexarray", "program", "shader",
                             "query", "sampler", "fence", "image", "sync", "surface", "context"})
        EXPECT_EQ(fakegl::liveObjects(kind), 0u) << kind << " of " << fakegl::createdObjects(kind);
    EXPECT_EQ(fakegl::doubleDeletes(), 0u);
    // One instance at a time: each leaves the display terminated.
    EXPECT_EQ(fakegl::countCalls("eglTerminate"), 10u);
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

// One row of a refusal table: what it does to a fresh instance, what that returns, and the line
// it prints (for a success without a line: no FAILED line at all).
struct EntryRow {
    const char* name;
    std::function<ZQGFX_AVS_STATUS(EntryPoints&)> call;
    ZQGFX_AVS_STATUS expected;
    std::string line;
};

// Runs `row`, checks its status and line, and ends whatever instance it left.
void expectRowOutcome(EntryPoints& t, const EntryRow& row)
{
    ZQGFX_AVS_STATUS status = ZQGFX_AVS_SUCCESS;
    const std::string out = stdoutOf([&] { status = row.call(t); });
    EXPECT_EQ(status, row.expected) << out;
    const bool quiet = row.expected == ZQGFX_AVS_SUCCESS && row.line.empty();
    EXPECT_TRUE(quiet ? !contains(out, "FAILED") : contains(out, row.line)) << out;
    stdoutOf([&] { entry_test::endInstance(&t.context); });
}

// What callers hand over by mistake or malice, at every entry point. Each row is refused with its
// line (or gets what the interface documents), the sanitizers stay quiet, and the same thread
// then starts a valid instance.
TEST_F(EntryPoints, HostileInputsAreRefusedAndTheThreadRecovers)
{
    using T = EntryPoints;
    using L = PSR_INITPARAMS_T;
    const ZQGFX_AVS_STATUS ok = ZQGFX_AVS_SUCCESS, failed = ZQGFX_AVS_FAILED;
    const std::string params = "zq_ps_gpu_mesh_params.txt";
    const std::string layoutAt = params + ": camera ";
    using Row = EntryRow;
    const Row rows[] = {
        // ---- the context (a null one: NothingRunsWithoutAnInstanceOrAContext; buffer sizes: MeshLoading)
        {"no calibration directory", [](T& t) { t.context.meshFilePath = nullptr; return t.initNow(); }, failed,
         "meshFilePath is NULL, FAILED!"},
        {"more views than cameras", [](T& t) { t.context.numView = 5; return t.initNow(); }, failed,
         params + " describes 4 cameras but camera_num is 5, FAILED!"},
        {"negative view count", [](T& t) { t.context.numView = 0x80000000u; return t.initNow(); }, failed,
         "camera_num=-2147483648 is negative, FAILED!"},
        // ---- the calibration files (missing and short ones: MeshLoading and AFailedInitKeepsWhatItMade)
        {"directory for the parameter file", [&](T& t) { t.dir.remove(params);
             std::filesystem::create_directory(t.dir.path() + params);
             return t.initNow(); }, failed, "inputBufferWidth is not aligned with 16, recommend size: 0x0"},
        {"non-numeric value", [&](T& t) {  // reads as 0
             std::string text = zqavs_calib_core::paramsFileText(t.layout);
             text.replace(text.find("240"), 3, "high");
             t.dir.write(params, text.data(), text.size());
             return t.initNow(); }, failed, "inputBufferWidth is not aligned with 16, recommend size: 320x0"},
        {"block count above the lists'", [](T& t) { return t.initChanged([](L& l) { l.image_block_num[1] = 4; }); },
         failed, layoutAt + "1 declares 4 blocks but has nonoverlap_num=1 + overlap_num=2, FAILED!"},
        {"negative block count", [](T& t) { return t.initChanged([](L& l) { l.overlap_block[0] = {}, l.overlap_block[0].overlap_num = -1; }); },
         failed, layoutAt + "0 has nonoverlap_num=1 overlap_num=-1, FAILED!"},
        {"alpha map wider than its block", [](T& t) { return t.initChanged([](L& l) { l.overlap_block[1].alpha_width[0] = 64; }); },
         failed, "zq_ps_gpu_alpha01.bin elements=9600 expected=19200"},
        // ---- what the GPU only draws: meshes and blocks placed anywhere
        {"not-a-number meshes, and meshes far outside the image", [](T& t) {
             const std::vector<float> nan(17 * 16, std::nanf("")), far(3 * 16, -1e30f);
             t.dir.write("zq_ps_gpu_meshx10.bin", nan.data(), nan.size() * sizeof(float));
             t.dir.write("zq_ps_gpu_meshy21.bin", far.data(), far.size() * sizeof(float));
             return t.initAndFrame(); }, ok, ""},
        {"a block past the panorama's width over another", [](T& t) { t.initChanged([](L& l) {
             l.nonoverlap_block[3].dst_startx[0] = 1200, l.nonoverlap_block[1].dst_startx[0] = 40; });
             return ZQGFX_AVS_AllProcess(&t.context); }, ok, ""},
        // ---- the caller's records
        {"no layout record", [](T& t) { return t.initBuffers([](T& u) { u.context.AVS_initParams = nullptr; }); },
         failed, "input AVS_initParams is NULL, FAILED!"},
        {"block lists shorter than the counts", [](T& t) { return t.initBuffers([](T& u) { u.layout.overlap_block[1].alpha_height.pop_back(); }); },
         failed, "AVS_initParams: camera 1 lists fewer block values than its block counts, FAILED!"},
        {"mesh record without buffers", [](T& t) { return t.initBuffers([](T& u) { u.callerMeshes->records[4].meshyBufAddr_ = nullptr; }); },
         failed, "avsRemapMeshArray[4] (camera 1 block 1) has no mesh buffers, FAILED!"},
        {"no alpha records", [](T& t) { return t.initBuffers([](T& u) { u.context.meshAlphaDrmBufMsgArray = nullptr; }); },
         failed, "meshAlphaDrmBufMsgArray[0] is NULL!"},
        {"alpha record smaller than its map", [](T& t) { return t.initBuffers([](T& u) { u.alphaRecord.mem_size = 100; }); },
         failed, "meshAlphaBufArray[0] mem_size=100 too small"},
        // ---- calls out of order or with nothing to work on (a failing descriptor: InstancesRunFrames...)
        {"frame after deinit", [](T& t) { t.running([](T& u) { return ZQGFX_AVS_deinit(&u.context); });
             forgetInstance();
             return ZQGFX_AVS_AllProcess(&t.context); }, failed, "no initialised instance on this thread, FAILED!"},
        {"frame without descriptors", [](T& t) { return t.running([](T& u) { u.context.inputFdArray = nullptr;
             return ZQGFX_AVS_AllProcess(&u.context); }); }, failed, "inputFdArray is NULL, FAILED!"},
        {"same descriptor as input and output", [](T& t) { return t.running([](T& u) { u.fds[4] = u.fds[0];
             return ZQGFX_AVS_AllProcess(&u.context); }); }, ok, ""},
        {"resize wider than the initial panorama", [](T& t) { return t.running([](T& u) { u.context.outputBufferWidth = 2560;
             return ZQGFX_AVS_resize(&u.context) ? ZQGFX_AVS_FAILED : ZQGFX_AVS_AllProcess(&u.context); }); }, ok, ""},
        {"resize to no width", [](T& t) { return t.running([](T& u) { u.context.outputBufferWidth = 0;
             return ZQGFX_AVS_resize(&u.context) ? ZQGFX_AVS_FAILED : ZQGFX_AVS_AllProcess(&u.context); }); }, ok, ""},
        {"mesh update of an unknown block", [](T& t) { return t.running([](T& u) {
             PSR_REMAP_MESH record{12, 16, 16, 3, 16, u.alpha.data(), -1, u.alpha.data(), -1};
             return ZQGFX_AVS_update_mesh(&u.context, &record); }); }, failed, "ZQGFX_AVS_update_mesh FAILED!"},
        {"mesh update names the block by camera times ten", [](T& t) { setenv("ZQ_GPU_AVS_DEBUG_LOG", "3", 1);
             return t.running([](T& u) { unsetenv("ZQ_GPU_AVS_DEBUG_LOG");
             PSR_REMAP_MESH record{4, 16, 16, 3, 16, u.alpha.data(), -1, u.alpha.data(), -1};
             return ZQGFX_AVS_update_mesh(nullptr, &record); }); }, ok,
         "Update mesh: index=4 inner_index=11 step_x=16 step_y=16 mesh_w=3 mesh_h=16 "},
        {"mesh update without a mesh", [](T& t) { return t.running([](T& u) { return ZQGFX_AVS_update_mesh(&u.context, nullptr); }); },
         failed, "no mesh or no initialised instance on this thread, FAILED!"},
        {"compensation asked for by the caller's layout", [](T& t) { setenv("ZQ_GPU_AVS_DEBUG_LOG", "3", 1);
             const ZQGFX_AVS_STATUS status = t.initBuffers([](T& u) { u.layout.use_gain = 2; });
             unsetenv("ZQ_GPU_AVS_DEBUG_LOG");
             return status; }, ok, "exposure compensation: mode 2, smoothing 0.1"},
        {"compensation mode past channels", [](T& t) { return t.running([](T& u) {
             return ZQGFX_AVS_set_compensation(&u.context, 3, 0.1f); }); }, failed,
         "compensation mode 3 is none of 0 (off), 1 (gain), 2 (channels), FAILED!"},
        {"compensation that never moves", [](T& t) { return t.running([](T& u) {
             return ZQGFX_AVS_set_compensation(&u.context, 1, 0.0f); }); }, failed,
         "compensation smoothing 0 is not in (0, 1], FAILED!"},
        {"fewer gains than cameras have", [](T& t) { return t.running([](T& u) { float gains[11];
             return ZQGFX_AVS_get_compensation(&u.context, gains, 11); }); }, failed,
         "11 gains asked for, the 4 cameras have 12, FAILED!"},
        {"wait on no fence", [](T& t) { return t.running([](T&) { return ZQGFX_AVS_wait_sync(nullptr); }); }, failed,
         "GLProcess: error waiting on EGL fence: 0x300c"},
        {"init twice", [](T& t) { t.running([](T&) { return ZQGFX_AVS_SUCCESS; });
             const AvsThreadInstance first = avs_thread_instance();  // the second init drops it
             const ZQGFX_AVS_STATUS second = ZQGFX_AVS_init(&t.context);
             ZQGFX_AVS_deinit(&t.context);
             avs_thread_state() = first;
             return second; }, ok, ""},
        {"deinit twice", [](T& t) { t.running([](T& u) { return ZQGFX_AVS_deinit(&u.context); });
             forgetInstance();
             return ZQGFX_AVS_deinit(&t.context); }, ok, ""},
    };
    auto fresh = [this] {
        fakegl::reset();
        std::filesystem::remove_all(dir.path());
        std::filesystem::create_directory(dir.path());
        writeFourCameraCalibration();
        for (int i = 0; i < 5; ++i) fds[i] = 11 + i;
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        fresh();
        expectRowOutcome(*this, row);

        fresh();
        ZQGFX_AVS_STATUS recovered = failed;
        const std::string again = stdoutOf([&] {
            recovered = initAndFrame();
            entry_test::endInstance(&context);
        });
        EXPECT_EQ(recovered, ok) << again;
        EXPECT_FALSE(contains(again, "FAILED")) << again;
    }
}

// Every limit the library enforces, exactly at the limit (accepted) and one past it (refused with
// its line), where it is enforced: cameras, blocks and the texture limits by init and a frame;
// levels and block sizes by init, which reads them. The import table's 100 slots recycle rather
// than refuse: RemapImport.TableIsFlushedOnceTheLastSlotIsUsed.
TEST_F(EntryPoints, EveryLimitAcceptsItsEdgeAndRefusesOnePast)
{
    using T = EntryPoints;
    using L = PSR_INITPARAMS_T;
    const ZQGFX_AVS_STATUS ok = ZQGFX_AVS_SUCCESS, failed = ZQGFX_AVS_FAILED;
    const std::string layoutAt = "zq_ps_gpu_mesh_params.txt: camera ";
    // `cameras` in a ring without seams, each with one block.
    const auto cameras = [](T& t, int count) {
        t.layout = entry_test::ringLayout(count, 1, 0);
        t.dir.writeCalibration(t.layout);
        t.context = entry_test::contextFor(t.layout, t.dir.path());
        t.context.inputBufferFormat = 0x3231564e;
        t.manyFds.resize(static_cast<size_t>(count) + 1);
        for (size_t i = 0; i < t.manyFds.size(); ++i) t.manyFds[i] = 11 + static_cast<int>(i);
        t.context.inputFdArray = t.manyFds.data();
        return t.initAndFrame();
    };
    // The four-camera ring with `nonoverlap` + 2 blocks per camera.
    const auto blocks = [](T& t, int nonoverlap) {
        t.initChanged([nonoverlap](L& l) {
            const L seams = l;
            l = entry_test::ringLayout(4, nonoverlap, 2);
            for (int c = 0; c < 4; ++c) l.overlap_block[c] = seams.overlap_block[c];
        });
        return ZQGFX_AVS_AllProcess(&t.context);
    };
    // The seam between cameras 0 and 1 with `levels` pyramid levels and an alpha map to match;
    // on planes (the target path keeps level 2 in a DRM buffer, and there is no DRM device here).
    const auto levels = [](T& t, int count) {
        fakegl::inject().glExtensions = "GL_OES_EGL_image GL_OES_EGL_image_external";
        const std::vector<float> map(zqavs_calib_core::alphaElementCount(32, 240, count), 0.5f);
        t.dir.write(zqavs_calib_core::alphaFileName(0, 1), map.data(), map.size() * sizeof(float));
        return t.initChanged([count](L& l) { l.overlap_block[0].band_num[1] = l.overlap_block[1].band_num[0] = count - 1; });
    };
    const auto panoramaWidth = [](T& t, int width) {
        t.initChanged([&t, width](L& l) { l.bld_width = width, t.context.outputBufferWidth = (width + 15) & ~15; });
        return ZQGFX_AVS_AllProcess(&t.context);
    };
    // A driver that holds textures up to 4096 pixels a side.
    const auto panoramaOn4096 = [&](T& t, int width) {
        fakegl::inject().maxTextureSize = 4096;
        return panoramaWidth(t, width);
    };
    // Camera 1's first non-overlap block (block 0) or first overlap block (block 1) `size` high.
    const auto meshHeight = [](T& t, bool overlap, int size) {
        return t.initChanged([overlap, size](L& l) {
            (overlap ? l.overlap_block[1].mesh_height : l.nonoverlap_block[1].mesh_height)[0] = size;
        });
    };
    using Row = EntryRow;
    const Row rows[] = {
        {"10 cameras", [&](T& t) { return cameras(t, 10); }, ok, ""},
        {"11 cameras", [&](T& t) { return cameras(t, 11); }, failed, "input cam_num=11 is illegal"},
        {"10 blocks in a camera", [&](T& t) { return blocks(t, 8); }, ok, ""},
        {"11 blocks in a camera", [&](T& t) { return blocks(t, 9); }, failed,
         layoutAt + "0 has 11 blocks, at most 10 are supported, FAILED!"},
        {"16 pyramid levels", [&](T& t) { return levels(t, 16); }, ok, ""},
        {"17 pyramid levels", [&](T& t) { return levels(t, 17); }, failed, "multi_band_num[0]=17 is illegal!"},
        {"panorama one below the texture limit", [&](T& t) { return panoramaWidth(t, 16383); }, ok, ""},
        {"panorama at the texture limit", [&](T& t) { return panoramaWidth(t, 16384); }, failed,
         "bld_width=16384 or bld_height=240 is exceed the gpu max texture size limit!"},
        {"panorama at the driver's texture limit", [&](T& t) { return panoramaOn4096(t, 4096); }, ok, ""},
        {"panorama past the driver's texture limit", [&](T& t) { return panoramaOn4096(t, 4097); }, failed,
         "panorama 4097x240 exceeds the driver's texture limit 4096 (GL_MAX_TEXTURE_SIZE)"},
        {"non-overlap block of height 0", [&](T& t) { return meshHeight(t, false, 0); }, ok, ""},
        {"non-overlap block of height -1", [&](T& t) { return meshHeight(t, false, -1); }, failed,
         layoutAt + "1 block 0 has a negative size, FAILED!"},
        {"overlap block of height 0", [&](T& t) { return meshHeight(t, true, 0); }, ok, ""},
        {"overlap block of height -1", [&](T& t) { return meshHeight(t, true, -1); }, failed,
         layoutAt + "1 block 1 has a negative size, FAILED!"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        fakegl::reset();
        std::filesystem::remove_all(dir.path());
        std::filesystem::create_directory(dir.path());
        writeFourCameraCalibration();
        expectRowOutcome(*this, row);
    }
}

// Loading the layout and meshes from files (file mode) and from the caller's records (buffer mode).
class MeshLoading : public EntryPoints {
protected:
    ~MeshLoading() override { entry_test::freeMeshTables(owned); }
    int load()
    {
        entry_test::freeMeshTables(owned);
        loaded = PSR_INITPARAMS_T();
        int result = 0;
        printed = stdoutOf([&] { result = read_files_and_init_params(&context, &loaded, &owned, &used); });
        return result;
    }
    bool holdsWrittenMeshes(int camera, int position) const
    {
        const int n = entry_test::meshNodes(loaded, camera, position);
        const float* x = owned.input_meshx[camera][position];
        const float* y = owned.input_meshy[camera][position];
        return x && y && std::vector<float>(x, x + n) == entry_test::meshValues('x', camera, position, n) &&
               std::vector<float>(y, y + n) == entry_test::meshValues('y', camera, position, n);
    }

    PSR_INITPARAMS_T loaded;
    inputMeshCoords owned, used;
};

TEST_F(MeshLoading, FileModeCompletesTheLayoutAndLoadsTheContextsCameras)
{
    PSR_INITPARAMS_T file = entry_test::ringLayout(3, 2, 1);
    file.bld_width = 950;
    dir.writeCalibration(file);
    context = entry_test::contextFor(file, dir.path());
    context.numView = 2;  // wins over the file's three cameras
    ASSERT_EQ(load(), 0) << printed;
    EXPECT_EQ((std::vector<int64_t>{loaded.camera_num, loaded.image_stride, loaded.output_image_stride}),
              (std::vector<int64_t>{2, 320, 960}));
    EXPECT_EQ(owned.input_meshx.size(), 2u);
    EXPECT_TRUE(used.input_meshx == owned.input_meshx && used.input_meshy == owned.input_meshy);
}

TEST_F(MeshLoading, BufferSizesAreCheckedAgainstTheLayout)
{
    PSR_INITPARAMS_T file = entry_test::ringLayout(1, 1, 0);
    file.src_width = 1000, file.bld_width = 630;
    const std::string in = "inputBufferWidth is not aligned with 16, recommend size: 1008x240\n\n";
    const std::string out = "outputBufferWidth is not aligned with 16, recommend size: 640x240\n\n";
    struct Case {
        uint32_t inW, inH, outW, outH;
        std::string message;
    } cases[] = {{1008, 240, 640, 240, ""}, {1024, 240, 656, 240, ""}, {1000, 240, 640, 240, in},
                 {992, 240, 640, 240, in},  {1008, 256, 640, 240, in},  {1008, 240, 630, 240, out},
                 {1008, 240, 624, 240, out}, {1008, 240, 640, 241, out}};
    dir.writeCalibration(file);
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.inW << "x" << c.inH << " " << c.outW << "x" << c.outH);
        context = entry_test::contextFor(file, dir.path());
        context.inputBufferWidth = c.inW, context.inputBufferHeight = c.inH;
        context.outputBufferWidth = c.outW, context.outputBufferHeight = c.outH;
        EXPECT_EQ(load(), c.message.empty() ? 0 : -1);
        EXPECT_TRUE(contains(printed, "libzqgfx_avs: read_files_and_init_params,line=") == !c.message.empty());
        EXPECT_TRUE(contains(printed, c.message)) << printed;
    }
}

// Every file is read (or reported) before the load fails, and a short one is refused, not half-read.
TEST_F(MeshLoading, EveryFileIsTriedBeforeFailing)
{
    const PSR_INITPARAMS_T file = entry_test::ringLayout(2, 2, 1);
    dir.writeCalibration(file);
    dir.remove("zq_ps_gpu_meshy11.bin");
    dir.writeMesh('x', 0, 2, entry_test::meshNodes(file, 0, 2) - 1);
    context = entry_test::contextFor(file, dir.path());
    EXPECT_EQ(load(), -1);
    EXPECT_TRUE(contains(printed, "open failed: " + dir.path() + "zq_ps_gpu_meshy11.bin\n")) << printed;
    EXPECT_TRUE(contains(printed, "zq_ps_gpu_meshx02.bin holds 188 bytes, 192 expected, FAILED!")) << printed;
    for (auto block : {std::pair{0, 0}, {0, 1}, {1, 0}, {1, 2}})
        EXPECT_TRUE(holdsWrittenMeshes(block.first, block.second)) << block.first << "/" << block.second;
    EXPECT_EQ(owned.input_meshy[0][2][47], entry_test::meshValues('y', 0, 2, 48)[47]);  // beside the short x mesh
}

TEST_F(MeshLoading, BufferModeTakesTheLayoutAsGiven)
{
    writeFourCameraCalibration();
    layout.output_image_stride = 1234, layout.useSync = 7;
    useBuffers();
    ASSERT_EQ(get_mesh_and_init_params(&context, &loaded, &used), 0);
    EXPECT_TRUE(loaded.output_image_stride == 1234u && loaded.useSync == 7u);  // nothing derived
}

// ---- the plane paths: drivers without YUV render targets, with and without dma-buf import

int memfdOf(size_t bytes)
{
    const int fd = memfd_create("portable-wiring", MFD_CLOEXEC);
    return fd >= 0 && ftruncate(fd, static_cast<off_t>(bytes)) == 0 ? fd : -1;
}

const char* pathName(bool zeroCopy) { return zeroCopy ? "planes" : "portable"; }

// The parameter: whether the driver imports dma-bufs (the "planes" path) or not ("portable").
class PortableWiring : public EntryPoints, public ::testing::WithParamInterface<bool> {
protected:
    bool zeroCopy() const { return GetParam(); }
    // Camera images and the output in memfds; seams blended with three levels of U8 alpha 64 wide,
    // so that level 2 and a wide alpha level exist.
    void SetUp() override
    {
        EntryPoints::SetUp();
        fakegl::inject().glExtensions = "GL_OES_EGL_image GL_OES_EGL_image_external";
        fakegl::inject().eglExtensions = zeroCopy() ? "EGL_KHR_image_base EGL_EXT_image_dma_buf_import EGL_KHR_fence_sync"
                                                    : "EGL_KHR_image_base EGL_KHR_fence_sync";
        for (int c = 0; c < 5; ++c) fds[c] = memfdOf(zqgfx_gpu_avs::nv12ImageBytes(c < 4 ? 320 : 1280, 240));
        const std::vector<uint8_t> u8(zqgfx_gpu_avs::alphaBufferLength(64, 240, 3), 128);
        writeRing(64, 2, u8.data(), u8.size());
        context.avsAlphaType = FUSE_GPU_ALPHA_U8;
        ASSERT_EQ(init(), ZQGFX_AVS_SUCCESS) << printed;
    }
    void TearDown() override
    {
        EntryPoints::TearDown();
        for (int fd : fds) close(fd);
    }
    ZQGFX_AVS_STATUS frame()
    {
        ZQGFX_AVS_STATUS status = ZQGFX_AVS_FAILED;
        printed = stdoutOf([&] { status = ZQGFX_AVS_AllProcess(&context); });
        return status;
    }
    zqgfx_gpu_avs::ZQGL_Remap& remap() { return *avs_thread_state().zqRemapInstance; }
};

// The attribute list of a plane image: fourcc, size, descriptor, offset, pitch.
std::vector<EGLint> planeImageOf(const fakegl::Call& call)
{
    std::vector<EGLint> v;
    for (EGLint name : {EGL_LINUX_DRM_FOURCC_EXT, EGL_WIDTH, EGL_HEIGHT, EGL_DMA_BUF_PLANE0_FD_EXT,
                        EGL_DMA_BUF_PLANE0_OFFSET_EXT, EGL_DMA_BUF_PLANE0_PITCH_EXT})
        v.push_back(fakegl::attribValue(call, name));
    return v;
}

TEST_P(PortableWiring, WarmFramesMakeNoObjectsAndMoveFramesTheirPathsWay)
{
    EXPECT_STREQ(ZQGFX_AVS_get_path(), pathName(zeroCopy()));
    const size_t probeImages = fakegl::countCalls("eglCreateImageKHR");  // level 2 and wide alpha levels are textures
    EXPECT_EQ(probeImages, zeroCopy() ? 1u : 0u);
    ASSERT_EQ(frame(), ZQGFX_AVS_SUCCESS);
    ASSERT_EQ(frame(), ZQGFX_AVS_SUCCESS);
    const size_t warm = fakegl::calls().size(), uploads = fakegl::countCalls("glTexSubImage2D");
    ASSERT_EQ(frame(), ZQGFX_AVS_SUCCESS);
    EXPECT_EQ(remap_test::callSequence("^glGen|^glCreate|^eglCreate", warm), "");
    const std::vector<fakegl::Call> images = fakegl::callsTo("eglCreateImageKHR");
    if (zeroCopy()) {
        // One import per descriptor and plane (cameras, then the output), on the first frame only.
        // The output's planes are drawn 4 luma pixels or 2 CbCr pairs to an RGBA texel.
        ASSERT_EQ(images.size(), probeImages + 2 * 5);
        for (int i = 0; i < 5; ++i) {
            const bool output = i == 4;
            const EGLint w = output ? 1280 : 320;
            EXPECT_EQ(planeImageOf(images[probeImages + 2 * i]),
                      (std::vector<EGLint>{EGLint(output ? DRM_FORMAT_ABGR8888 : DRM_FORMAT_R8), output ? w / 4 : w, 240,
                                           fds[i], 0, w}));
            EXPECT_EQ(planeImageOf(images[probeImages + 2 * i + 1]),
                      (std::vector<EGLint>{EGLint(output ? DRM_FORMAT_ABGR8888 : DRM_FORMAT_GR88), output ? w / 4 : w / 2,
                                           120, fds[i], w * 240, w}));
        }
        // Nothing copied either way.
        EXPECT_EQ(fakegl::countCalls("glTexSubImage2D") - uploads, 0u);
        EXPECT_EQ(fakegl::countCalls("glReadPixels"), 0u);
    } else {
        EXPECT_TRUE(images.empty());
        EXPECT_EQ(fakegl::countCalls("glTexSubImage2D") - uploads, 2 * 4u);  // both planes of every camera
    }
    EXPECT_EQ(fakegl::liveObjects("image"), 0u);  // the textures hold the buffers
}

TEST_P(PortableWiring, AfbcShortDescriptorsAndFailedReadBacksFailTheFrameWithTheirReason)
{
    const size_t setUpUploads = fakegl::countCalls("glTexSubImage2D");  // meshes and alpha levels
    for (uint32_t* afbc : {&context.inputIsAFBC, &context.outputIsAFBC}) {
        *afbc = 1;
        EXPECT_EQ(frame(), ZQGFX_AVS_FAILED);
        const char* what = afbc == &context.inputIsAFBC ? "input" : "output";
        const std::string refusal = std::string("AFBC ") + what + " is not supported on the " + pathName(zeroCopy());
        EXPECT_TRUE(contains(printed, refusal + " path")) << printed;
        EXPECT_EQ(std::count(remap().cache_input_fd, remap().cache_input_fd + 100, 0u), 100);  // none looked at
        EXPECT_EQ(fakegl::countCalls("glTexSubImage2D"), setUpUploads);  // no camera image
        *afbc = 0;
    }

    for (int which : {2, 4}) {  // a camera, then the output, in a buffer one byte short of its image
        const size_t bytes = zqgfx_gpu_avs::nv12ImageBytes(which == 4 ? 1280 : 320, 240) - 1;
        const int whole = std::exchange(fds[which], memfdOf(bytes));
        EXPECT_EQ(frame(), ZQGFX_AVS_FAILED);
        EXPECT_TRUE(contains(printed, "descriptor " + std::to_string(fds[which]) + " holds " + std::to_string(bytes)))
            << printed;
        // Refused, and its slot freed again.
        EXPECT_EQ(std::count(remap().cache_input_fd, remap().cache_input_fd + 100, static_cast<GLuint>(fds[which])), 0);
        close(std::exchange(fds[which], whole));
        EXPECT_EQ(frame(), ZQGFX_AVS_SUCCESS);
    }

    if (zeroCopy()) return;
    fakegl::failCall("glReadPixels", GL_INVALID_OPERATION);
    EXPECT_EQ(frame(), ZQGFX_AVS_FAILED);
    EXPECT_TRUE(contains(printed, "read-back of output descriptor " + std::to_string(fds[4]) + " failed")) << printed;
}

// A descriptor number that comes to name another buffer, a full import table, a resize and the
// tear-down: each replaces or releases the plane objects it concerns, once.
TEST_P(PortableWiring, PlaneObjectsFollowReusedNumbersFlushesResizesAndDeinit)
{
    ASSERT_EQ(frame(), ZQGFX_AVS_SUCCESS);
    const size_t made = fakegl::createdObjects("texture"), images = fakegl::countCalls("eglCreateImageKHR");
    for (int which : {1, 4}) {  // a camera, then the output: the number stays, the buffer changes
        const int fresh = memfdOf(zqgfx_gpu_avs::nv12ImageBytes(which == 4 ? 1280 : 320, 240));
        ASSERT_EQ(dup2(fresh, fds[which]), fds[which]);
        close(fresh);
    }
    for (int frames = 0; frames < 2; ++frames) {  // imported again, then kept
        ASSERT_EQ(frame(), ZQGFX_AVS_SUCCESS);
        EXPECT_EQ(fakegl::createdObjects("texture") - made, 2 * 2u);  // both planes of both buffers
        EXPECT_EQ(fakegl::countCalls("eglCreateImageKHR") - images, zeroCopy() ? 4u : 0u);
    }
    const size_t textures = fakegl::liveObjects("texture"), framebuffers = fakegl::liveObjects("framebuffer");
    // New descriptor numbers every frame fill the 100-slot table; it is flushed along the way.
    std::vector<int> dups;
    const int original[4] = {fds[0], fds[1], fds[2], fds[3]};
    bool flushed = false;
    for (int f = 0; f < 30 && !flushed; ++f) {
        for (int c = 0; c < 4; ++c) dups.push_back(fds[c] = dup(original[c]));
        flushed = remap().cache_input_fd[99] != 0;
        ASSERT_EQ(frame(), ZQGFX_AVS_SUCCESS) << "frame " << f;
    }
    ASSERT_TRUE(flushed);
    EXPECT_EQ(fakegl::liveObjects("texture"), textures);  // the flushed inputs' textures went
    for (int c = 0; c < 4; ++c) fds[c] = original[c];
    for (int fd : dups) close(fd);

    context.outputBufferWidth = 630;  // the output slot is made anew at the new size, rows of 640
    ASSERT_EQ(ZQGFX_AVS_resize(&context), ZQGFX_AVS_SUCCESS);
    ASSERT_EQ(frame(), ZQGFX_AVS_SUCCESS);
    EXPECT_EQ(fakegl::liveObjects("framebuffer"), framebuffers);
    if (zeroCopy()) {  // chroma follows the rows of luma, not the pixels: 315 pairs in 158 texels
        EXPECT_EQ(planeImageOf(fakegl::callsTo("eglCreateImageKHR").back()),
                  (std::vector<EGLint>{DRM_FORMAT_ABGR8888, 158, 120, fds[4], 640 * 240, 640}));
    }
    EXPECT_EQ(fakegl::doubleDeletes(), 0u);

    stdoutOf([&] { ZQGFX_AVS_deinit(&context); });
    forgetInstance();
    for (const char* kind : {"texture", "framebuffer", "buffer", "program", "shader", "vertexarray", "image", "context"})
        EXPECT_EQ(fakegl::liveObjects(kind), 0u) << kind;
    EXPECT_EQ(fakegl::doubleDeletes(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Paths, PortableWiring, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) { return std::string(pathName(info.param)); });

// ---- the work of a warm frame on each path

// Render passes (a draw into another framebuffer than the draw before it), draws and triangles
// of the calls recorded since `from`.
struct FrameWorkCount {
    int64_t passes = 0, draws = 0, triangles = 0;
    bool operator==(const FrameWorkCount& o) const
    {
        return passes == o.passes && draws == o.draws && triangles == o.triangles;
    }
};
std::ostream& operator<<(std::ostream& os, const FrameWorkCount& w)
{
    return os << w.passes << " passes, " << w.draws << " draws, " << w.triangles << " triangles";
}

FrameWorkCount recordedWork(size_t from)
{
    FrameWorkCount work;
    int64_t bound = 0, lastDrawn = -1;
    for (size_t i = from; i < fakegl::calls().size(); ++i) {
        const fakegl::Call& call = fakegl::calls()[i];
        if (call.fn == "glBindFramebuffer") bound = call.args[1];
        if (call.fn != "glDrawArrays") continue;
        work.passes += bound != lastDrawn ? 1 : 0;
        lastDrawn = bound;
        ++work.draws;
        const int64_t vertices = call.args[2];
        work.triangles += call.args[0] == GL_TRIANGLE_STRIP ? std::max<int64_t>(vertices - 2, 0) : vertices / 3;
    }
    return work;
}

// Four cameras, three seams of 64 columns, `bands` + 1 levels. The target path keeps a pass per
// overlap block, seam side and level (its level 2 would want a DRM device, so two levels here);
// the plane paths one pass for all seams' sides, one per pyramid level up and down, one per plane.
struct WorkRow {
    const char* path;
    int bands;
    FrameWorkCount expected;  // triangles -1: not pinned (the strips' count follows the meshes)
};

class FrameWork : public EntryPoints, public ::testing::WithParamInterface<WorkRow> {};

TEST_P(FrameWork, AWarmFrameMakesItsPathsPassesAndTheProfileHookCountsThem)
{
    const WorkRow& row = GetParam();
    const std::string path = row.path;
    if (path != "target") fakegl::inject().glExtensions = "GL_OES_EGL_image GL_OES_EGL_image_external";
    if (path == "portable") fakegl::inject().eglExtensions = "EGL_KHR_image_base EGL_KHR_fence_sync";
    for (int c = 0; c < 5; ++c) fds[c] = memfdOf(zqgfx_gpu_avs::nv12ImageBytes(c < 4 ? 320 : 1280, 240));
    // Float alpha: U8 maps from files would want a DRM device on the target path.
    const std::vector<float> half(zqgfx_gpu_avs::alphaBufferLength(64, 240, row.bands + 1), 0.5f);
    writeRing(64, row.bands, half.data(), half.size() * sizeof(float));
    context.avsAlphaType = FUSE_GPU_ALPHA_FLOAT;
    ASSERT_EQ(init(), ZQGFX_AVS_SUCCESS) << printed;
    ASSERT_STREQ(ZQGFX_AVS_get_path(), row.path);
    stdoutOf([&] { ZQGFX_AVS_AllProcess(&context); });  // imports and first uses happen here

    const size_t from = fakegl::calls().size();
    ZQGFX_AVS_STAGE_TIMES_T times{};
    ASSERT_EQ(ZQGFX_AVS_profile_frame(&context, &times), ZQGFX_AVS_SUCCESS);
    const FrameWorkCount recorded = recordedWork(from);
    FrameWorkCount expected = row.expected;
    if (expected.triangles < 0) expected.triangles = recorded.triangles;
    EXPECT_EQ(recorded, expected);
    EXPECT_EQ((FrameWorkCount{times.render_passes, times.draw_calls, times.triangles}), recorded);
    EXPECT_GT(times.fragments, 0);

    // Compensation on: no pass more, and its measurement goes into a pack buffer behind a fence
    // that is only ever polled. Off again: the calls of a frame that never compensated.
    const std::string plainFrame = remap_test::callSequence(".", from);
    const ZQGFX_AVS_STATUS on = ZQGFX_AVS_set_compensation(&context, 2, 0.1f);
    ASSERT_EQ(on, ZQGFX_AVS_SUCCESS);
    for (int f = 0; f < 2; ++f) {
        const size_t start = fakegl::calls().size();
        ASSERT_EQ(ZQGFX_AVS_profile_frame(&context, &times), ZQGFX_AVS_SUCCESS);
        EXPECT_EQ(recordedWork(start), expected);
        int64_t packBuffer = 0;
        int packedReads = 0, polls = 0, gainSets = 0;
        for (size_t i = start; i < fakegl::calls().size(); ++i) {
            const fakegl::Call& call = fakegl::calls()[i];
            if (call.fn == "glBindBuffer" && call.args[0] == GL_PIXEL_PACK_BUFFER) packBuffer = call.args[1];
            packedReads += call.fn == "glReadPixels" && packBuffer != 0;
            if (call.fn == "glClientWaitSync") {
                EXPECT_EQ(call.args[2], 0) << "a wait on the GPU";
                ++polls;
            }
            gainSets += call.fn == "glUniformMatrix3fv" || call.fn == "glProgramUniformMatrix3fv";
            EXPECT_NE(call.fn, "glMapBufferRange") << "a measurement whose fence never passed was read";
        }
        EXPECT_EQ(packedReads, path == "target" ? 2 * 3 : 1);  // per seam and side, or the whole atlas level
        EXPECT_EQ(fakegl::countCalls("glFenceSync"), static_cast<size_t>(f + 1));
        EXPECT_EQ(polls, f);  // the first frame has nothing in flight
        EXPECT_GT(gainSets, 0);
        EXPECT_EQ(packBuffer, 0);  // unbound again
    }
    ASSERT_EQ(ZQGFX_AVS_set_compensation(&context, 0, 0.1f), ZQGFX_AVS_SUCCESS);
    const size_t start = fakegl::calls().size();
    ASSERT_EQ(ZQGFX_AVS_profile_frame(&context, &times), ZQGFX_AVS_SUCCESS);
    EXPECT_EQ(remap_test::callSequence(".", start), plainFrame);
    EXPECT_EQ(fakegl::liveObjects("sync"), 0u);
    for (int fd : fds) close(fd);
}

INSTANTIATE_TEST_SUITE_P(Paths, FrameWork,
                         ::testing::Values(WorkRow{"target", 1, {1 + 8 + 3 * 2 + 3 * 2, 4 + 8 + 6 + 6, -1}},
                                           WorkRow{"planes", 4, {1 + 4 + 4 + 2, 6 + 4 + 4 + 2 * (4 + 3), 112}},
                                           WorkRow{"portable", 4, {1 + 4 + 4 + 2, 6 + 4 + 4 + 2 * (4 + 3), 112}}),
                         [](const ::testing::TestParamInfo<WorkRow>& info) { return std::string(info.param.path); });

}  // namespace
