// Loading the layout and meshes from files (file mode) and from the caller's records (buffer
// mode): size checks, file names, and every file tried before a refusal (the refusals themselves
// are in the entry points' catalogue of hostile inputs).
#include "calibration_dir.h"
#include "zqgfx_gpu_avs_internal.h"

using entry_test::contains;
using entry_test::ringLayout;

namespace {

class MeshLoading : public ::testing::Test {
protected:
    ~MeshLoading() override { freeMeshes(); }
    void freeMeshes()
    {
        for (auto* table : {&owned.input_meshx, &owned.input_meshy})
            for (auto& camera : *table)
                for (float* mesh : camera) free(mesh);
        owned = inputMeshCoords();
    }
    int load()
    {
        freeMeshes();
        layout = PSR_INITPARAMS_T();
        int result = 0;
        printed = entry_test::stdoutOf([&] { result = read_files_and_init_params(&context, &layout, &owned, &used); });
        return result;
    }
    bool holdsWrittenMeshes(int camera, int position) const
    {
        const int n = entry_test::meshNodes(layout, camera, position);
        const float* x = owned.input_meshx[camera][position];
        const float* y = owned.input_meshy[camera][position];
        return x && y && std::vector<float>(x, x + n) == entry_test::meshValues('x', camera, position, n) &&
               std::vector<float>(y, y + n) == entry_test::meshValues('y', camera, position, n);
    }

    entry_test::TempCalibrationDir dir;
    ZQGFX_AVS_CONTEXT_T context{};
    PSR_INITPARAMS_T layout;
    inputMeshCoords owned, used;
    std::string printed;
};

TEST_F(MeshLoading, FileModeCompletesTheLayoutAndFillsBothTables)
{
    PSR_INITPARAMS_T file = ringLayout(3, 2, 1);
    file.bld_width = 950;
    dir.writeCalibration(file);
    context = entry_test::contextFor(file, dir.path());
    context.numView = 2;  // wins over the file's three cameras
    ASSERT_EQ(load(), 0) << printed;
    EXPECT_EQ((std::vector<int64_t>{layout.camera_num, layout.image_stride, layout.output_image_stride}),
              (std::vector<int64_t>{2, 320, 960}));
    ASSERT_EQ(owned.input_meshx.size(), 2u);
    for (int c = 0; c < 2; ++c) {
        ASSERT_EQ(owned.input_meshy[c].size(), 3u);
        for (int p = 0; p < 3; ++p) EXPECT_TRUE(holdsWrittenMeshes(c, p)) << c << "/" << p;
    }
    EXPECT_TRUE(used.input_meshx == owned.input_meshx && used.input_meshy == owned.input_meshy);
    EXPECT_TRUE(contains(printed, "Read succeeded:" + dir.path()) && !contains(printed, "meshx2")) << printed;
}

TEST_F(MeshLoading, BufferSizesAreCheckedAgainstTheLayout)
{
    PSR_INITPARAMS_T file = ringLayout(1, 1, 0);
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
        SCOPED_TRACE(std::to_string(c.inW) + "x" + std::to_string(c.inH) + " " + std::to_string(c.outW));
        context = entry_test::contextFor(file, dir.path());
        context.inputBufferWidth = c.inW, context.inputBufferHeight = c.inH;
        context.outputBufferWidth = c.outW, context.outputBufferHeight = c.outH;
        EXPECT_EQ(load(), c.message.empty() ? 0 : -1);
        EXPECT_TRUE(contains(printed, "libzqgfx_avs: read_files_and_init_params,line=") == !c.message.empty());
        EXPECT_TRUE(contains(printed, c.message)) << printed;
    }
}

TEST_F(MeshLoading, EveryFileIsTriedBeforeFailing)
{
    const PSR_INITPARAMS_T file = ringLayout(2, 2, 1);
    dir.writeCalibration(file);
    dir.remove("zq_ps_gpu_meshy11.bin");
    dir.writeMesh('x', 0, 2, entry_test::meshNodes(file, 0, 2) - 1);  // short: refused, not half-read
    context = entry_test::contextFor(file, dir.path());
    EXPECT_EQ(load(), -1);
    EXPECT_TRUE(contains(printed, "open failed: " + dir.path() + "zq_ps_gpu_meshy11.bin\n")) << printed;
    EXPECT_TRUE(contains(printed, "zq_ps_gpu_meshx02.bin holds 188 bytes, 192 expected, FAILED!")) << printed;
    for (auto block : {std::pair{0, 0}, {0, 1}, {1, 0}, {1, 2}})
        EXPECT_TRUE(holdsWrittenMeshes(block.first, block.second)) << block.first << "/" << block.second;
    EXPECT_EQ(owned.input_meshx[1][1][5], entry_test::meshValues('x', 1, 1, 6)[5]);
    EXPECT_EQ(owned.input_meshy[0][2][47], entry_test::meshValues('y', 0, 2, 48)[47]);
}

TEST(BufferModeLoading, CopiesTheLayoutAndTakesThePointersInMeshOrder)
{
    PSR_INITPARAMS_T caller = ringLayout(2, 1, 2), layout;
    caller.output_image_stride = 1234, caller.useSync = 7;
    entry_test::CallerMeshes meshes(caller);
    ZQGFX_AVS_CONTEXT_T context = entry_test::contextFor(caller, "");
    context.useMeshBufAddress = 1, context.AVS_initParams = &caller, context.avsRemapMeshArray = meshes.pointers.data();
    inputMeshCoords used;
    int result = -1;
    setenv("ZQ_GPU_AVS_DEBUG_LOG", "3", 1);
    refreshCalibrationLogLevel();
    const std::string printed = entry_test::stdoutOf([&] { result = get_mesh_and_init_params(&context, &layout, &used); });
    unsetenv("ZQ_GPU_AVS_DEBUG_LOG");
    refreshCalibrationLogLevel();
    ASSERT_EQ(result, 0) << printed;
    EXPECT_EQ(layout.output_image_stride, 1234u);  // nothing derived
    EXPECT_EQ(layout.useSync, 7u);
    caller.overlap_block[1].dst_startx[0] = -99;  // a deep copy
    EXPECT_EQ(layout.overlap_block[1].dst_startx[0], 320);
    for (int m = 0; m < 6; ++m) {
        EXPECT_EQ(used.input_meshx[m / 3][m % 3], meshes.meshes[2 * m].data());
        EXPECT_EQ(used.input_meshy[m / 3][m % 3], meshes.meshes[2 * m + 1].data());
    }
    char line[64];
    snprintf(line, sizeof line, "use_input_meshy[1][2]=%x\n\n", unsigned(reinterpret_cast<uintptr_t>(meshes.meshes[11].data())));
    EXPECT_TRUE(contains(printed, line)) << printed;
}

}  // namespace
