// The layout parameter file: grammar, sections and the lines printed while reading.
#include "calibration_dir.h"
#include "zqgfx_gpu_avs_internal.h"

namespace {

const std::string kGlobal = "src_width 640\nsrc_height 480\nbld_width 2048\nbld_height 480\nstep_x 16\nstep_y 8\n";
// Camera 0 with one non-overlap and one overlap block.
const std::string kCamera0 = "camera_0: 2\nn 1\no 1\nx 10\nx 20\nx 3\nx 4\nx 5\nx 30\nx 40\nx 6\nx 7\nx 8\nx 9\n";

class ParamFile : public ::testing::Test {
protected:
    int read(const std::string& text)
    {
        dir.writeParams(text);
        layout = PSR_INITPARAMS_T();
        int result = 0;
        printed = entry_test::stdoutOf([&] { result = readTxtParamsAVS(path(), &layout); });
        return result;
    }
    std::string path() const { return dir.path() + "zq_ps_gpu_mesh_params.txt"; }
    std::vector<int> globals() const
    {
        return {layout.src_width, layout.src_height, layout.bld_width, layout.bld_height, layout.step_x, layout.step_y};
    }

    entry_test::TempCalibrationDir dir;
    PSR_INITPARAMS_T layout;
    std::string printed;
};

TEST_F(ParamFile, ReadsGlobalAndCameraSections)
{
    ASSERT_EQ(read(kGlobal + kCamera0 + "camera_1: 0\nn 0\no 0\n"), 1);
    EXPECT_EQ(printed, "Read succeeded:" + path() + "\n");
    EXPECT_EQ(globals(), (std::vector<int>{640, 480, 2048, 480, 16, 8}));
    EXPECT_EQ(layout.image_block_num, (std::vector<int>{2, 0}));
    ASSERT_EQ(layout.overlap_block.size(), 2u);
    const zqPSR_NONOVERLAP_BLOCK& n = layout.nonoverlap_block[0];
    EXPECT_EQ((std::vector<int>{n.nonoverlap_num, n.dst_startx[0], n.dst_width[0], n.mesh_width[0], n.mesh_height[0]}),
              (std::vector<int>{1, 10, 20, 3, 4}));
    const zqPSR_OVERLAP_BLOCK& o = layout.overlap_block[0];
    EXPECT_EQ((std::vector<int>{o.overlap_num, o.band_num[0], o.dst_startx[0], o.dst_width[0], o.mesh_width[0],
                                o.mesh_height[0], o.alpha_width[0], o.alpha_height[0]}),
              (std::vector<int>{1, 5, 30, 40, 6, 7, 8, 9}));
    EXPECT_TRUE(layout.nonoverlap_block[1].dst_startx.empty());  // a camera without blocks has empty records
    EXPECT_EQ(layout.camera_num, 0);                             // not the file's business

    dir.remove("zq_ps_gpu_mesh_params.txt");
    printed = entry_test::stdoutOf([&] { EXPECT_EQ(readTxtParamsAVS(path(), &layout), 0); });
    EXPECT_EQ(printed, "Read failed:" + path() + "\n");
}

TEST_F(ParamFile, SectionStartsCommentsAndTokens)
{
    // '#' is a comment only where a section starts; inside a section it is data.
    ASSERT_EQ(read("# layout\n" + kGlobal + "#camera_0: 9\ncamera_0: 0\n# 1\no 0\nx 1\nx 2\nx 3\nx 4\n"), 1);
    EXPECT_EQ(layout.nonoverlap_block.at(0).nonoverlap_num, 1);
    EXPECT_EQ(layout.nonoverlap_block[0].mesh_height, std::vector<int>{4});

    // camera_1 before camera_0 and an empty line are not headers: each starts a global section,
    // and the last global section wins.
    ASSERT_EQ(read(kGlobal + "camera_1: 2\na 1\na 2\na 3\na 4\na 5\n\na 11\na 12\na 13\na 14\na 15\n"), 1);
    EXPECT_TRUE(layout.image_block_num.empty());
    EXPECT_EQ(globals(), (std::vector<int>{0, 11, 12, 13, 14, 15}));

    // The value is the second token at single blanks: two blanks give 0.
    ASSERT_EQ(read("w  640\nh 480 99\nbw\nbh x12\nsx -16\nsy 8px\n"), 1);
    EXPECT_EQ(globals(), (std::vector<int>{0, 480, 0, 0, -16, 8}));
}

TEST_F(ParamFile, LastLineWithoutLineBreak)
{
    // A last data line is taken; a last section-starting line is not.
    ASSERT_EQ(read(kGlobal + kCamera0.substr(0, kCamera0.size() - 1)), 1);
    EXPECT_EQ(layout.overlap_block.at(0).alpha_height, std::vector<int>{9});
    ASSERT_EQ(read(kGlobal + "src_width 1"), 1);
    EXPECT_EQ(layout.src_width, 640);
}

TEST_F(ParamFile, AppendsAndStopsReadingBlocksAtWildCounts)
{
    dir.writeParams(kGlobal + "camera_0: 2\nn 2000000000\no -5\n");
    layout.image_block_num.push_back(42);
    entry_test::stdoutOf([&] { EXPECT_EQ(readTxtParamsAVS(path(), &layout), 1); });
    EXPECT_EQ(layout.image_block_num, (std::vector<int>{42, 2}));
    // The counts are kept (the loader refuses them) but no more blocks are read than a camera holds.
    EXPECT_EQ(layout.nonoverlap_block.at(0).nonoverlap_num, 2000000000);
    EXPECT_EQ(layout.nonoverlap_block[0].dst_startx.size(), static_cast<size_t>(kMaxBlocksPerCamera));
    EXPECT_EQ(layout.overlap_block[0].overlap_num, -5);
}

}  // namespace
