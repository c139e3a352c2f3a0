// The calibration core: its parameter-file reader (the library's own) with what it reports line
// by line, and its writer's all-or-nothing promise.
#include <cstring>
#include <functional>
#include <map>
#include <sstream>

#include "avs_calib_core.h"
#include "calibration_dir.h"
#include "zqavs_synth.h"

namespace core = zqavs_calib_core;

namespace {

const std::string kGlobal = "src_width 640\nsrc_height 480\nbld_width 2048\nbld_height 480\nstep_x 16\nstep_y 8\n";
// Camera 0 with one non-overlap and one overlap block.
const std::string kCamera0 = "camera_0: 2\nn 1\no 1\nx 10\nx 20\nx 3\nx 4\nx 5\nx 30\nx 40\nx 6\nx 7\nx 8\nx 9\n";

// Reads `text` into `layout`; returns "LINE E|W message" for every diagnostic.
std::vector<std::string> read(const std::string& text, PSR_INITPARAMS_T* layout)
{
    std::vector<std::string> found;
    std::istringstream in(text);
    core::readParams(in, layout, [&](const core::ParamsDiagnostic& d) {
        found.push_back(std::to_string(d.line) + (d.severity == d.Error ? " E " : " W ") + d.message);
    });
    return found;
}

std::vector<int> globals(const PSR_INITPARAMS_T& l)
{
    return {l.src_width, l.src_height, l.bld_width, l.bld_height, l.step_x, l.step_y};
}

TEST(CalibCore, ReaderTakesSectionsByPositionAndTheSecondTokenAsTheValue)
{
    PSR_INITPARAMS_T l;
    ASSERT_TRUE(read(kGlobal + kCamera0 + "camera_1: 0\nn 0\no 0\n", &l).empty());
    EXPECT_EQ(globals(l), (std::vector<int>{640, 480, 2048, 480, 16, 8}));
    EXPECT_EQ(l.image_block_num, (std::vector<int>{2, 0}));
    const zqPSR_NONOVERLAP_BLOCK& n = l.nonoverlap_block.at(0);
    EXPECT_EQ((std::vector<int>{n.nonoverlap_num, n.dst_startx[0], n.dst_width[0], n.mesh_width[0], n.mesh_height[0]}),
              (std::vector<int>{1, 10, 20, 3, 4}));
    const zqPSR_OVERLAP_BLOCK& o = l.overlap_block.at(0);
    EXPECT_EQ((std::vector<int>{o.overlap_num, o.band_num[0], o.dst_startx[0], o.dst_width[0], o.mesh_width[0],
                                o.mesh_height[0], o.alpha_width[0], o.alpha_height[0]}),
              (std::vector<int>{1, 5, 30, 40, 6, 7, 8, 9}));
    EXPECT_TRUE(l.nonoverlap_block.at(1).dst_startx.empty());  // a camera without blocks has empty records
    EXPECT_EQ(l.camera_num, 0);                                // not the file's business

    // camera_1 before camera_0 and an empty line each start a global section; the last one wins.
    l = PSR_INITPARAMS_T();
    read(kGlobal + "camera_1: 2\na 1\na 2\na 3\na 4\na 5\n\na 11\na 12\na 13\na 14\na 15\n", &l);
    EXPECT_TRUE(l.image_block_num.empty());
    EXPECT_EQ(globals(l), (std::vector<int>{0, 11, 12, 13, 14, 15}));
    // The value is the second token at single blanks: two blanks give 0. A last section-starting
    // line without a line break is not taken.
    read("w  640\nh 480 99\nbw\nbh x12\nsx -16\nsy 8px\nsrc_width 1", &l);
    EXPECT_EQ(globals(l), (std::vector<int>{0, 480, 0, 0, -16, 8}));

    // Appends to what the layout holds; wild counts are kept (the loader refuses them), but no
    // more blocks are read than a camera holds.
    l.image_block_num = {42};
    read(kGlobal + "camera_0: 2\nn 2000000000\no -5\n", &l);
    EXPECT_EQ(l.image_block_num, (std::vector<int>{42, 2}));
    EXPECT_EQ(l.nonoverlap_block.at(0).nonoverlap_num, 2000000000);
    EXPECT_EQ(l.nonoverlap_block[0].dst_startx.size(), static_cast<size_t>(core::kMaxBlocksPerCamera));
    EXPECT_EQ(l.overlap_block[0].overlap_num, -5);
}

TEST(CalibCore, ReaderReportsEveryLineThatDoesNotMeanWhatItSeems)
{
    // Each expected entry is the start of one diagnostic, in order; then the last overlap block's
    // alpha height read, or -1 for none.
    struct Row {
        std::string text;
        std::vector<std::string> diagnostics;
        int alphaHeight;
    };
    const Row rows[] = {
        // A last data line without a line break is taken; a last section-starting one is not.
        {kGlobal + kCamera0.substr(0, kCamera0.size() - 1), {}, 9},
        {kGlobal + kCamera0 + "camera_1: 0", {"21 W the last line has no line break and is not read"}, 9},
        // '#' is a comment only where a section starts; inside a section it is data.
        {"# layout\n" + kGlobal + "#camera_0: 9\ncamera_0: 1\n# 1\no 0\nx 10\nx 20\nx 3\nx 4\n",
         {"10 E comment line inside camera_0: is read as the value of 'nonoverlap_num'"}, -1},
        {"src_width  640\n" + kGlobal.substr(kGlobal.find('\n') + 1) + kCamera0,
         {"1 W 'src_width' has no number after a single blank"}, 9},
        {kGlobal + "camera_1: 0\na 1\na 2\na 3\na 4\na 5\n",
         {"7 E 'camera_1:' where 'camera_0:' was expected", "7 W a second global section"}, -1},
        {kGlobal + "camera_0: 1\nn 1\no 0\nx 10\n",
         {"10 E the file ends inside camera_0:", "10 E the file ends inside camera_0:",
          "10 E the file ends inside camera_0:"}, -1},
        {kGlobal + "camera_0: 0\nn 0\no -1\n", {"7 E camera_0: block counts 0 + -1 are not plausible"}, -1},
    };
    for (const Row& row : rows) {
        PSR_INITPARAMS_T l;
        const std::vector<std::string> found = read(row.text, &l);
        ASSERT_EQ(found.size(), row.diagnostics.size()) << row.text << testing::PrintToString(found);
        for (size_t i = 0; i < found.size(); ++i) EXPECT_EQ(found[i].rfind(row.diagnostics[i], 0), 0u) << found[i];
        const bool overlap = !l.overlap_block.empty() && !l.overlap_block.back().alpha_height.empty();
        EXPECT_EQ(overlap ? l.overlap_block.back().alpha_height.back() : -1, row.alphaHeight) << row.text;
    }
}

// Name -> content of every entry of a directory ("<dir>" for directories); empty when missing.
std::map<std::string, std::string> snapshot(const std::string& dir)
{
    std::map<std::string, std::string> entries;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(dir, ignored)) {
        std::ifstream in(entry.path(), std::ios::binary);
        entries[entry.path().filename()] =
            entry.is_directory() ? "<dir>" : std::string(std::istreambuf_iterator<char>(in), {});
    }
    return entries;
}

struct WriteCase {
    const char* name;
    std::function<void(const std::string& target)> prepare;
    std::vector<core::NamedFile> extras;
    bool shortMesh;
    bool written;
};

TEST(CalibCore, WriterMovesACompleteSetInOrLeavesTheTargetAsItWas)
{
    zqavs_synth::RigConfig rig;
    rig.cameras = 2, rig.src_height = 64, rig.bld_width = 1024, rig.bld_height = 64;
    zqavs_synth::Calibration calib;
    std::string generated;
    ASSERT_TRUE(zqavs_synth::generateCalibration(rig, &calib, &generated)) << generated;
    const std::string alphaName = core::alphaFileName(calib.alphas[0].camera, calib.alphas[0].next);
    auto makeDir = [](const std::string& path) { std::filesystem::create_directories(path); };
    auto oldParams = [](const std::string& target) {
        std::filesystem::create_directories(target);
        std::ofstream(target + "/" + core::kParamsFileName) << "old";
        std::ofstream(target + "/notes.txt") << "kept";
    };
    const std::vector<WriteCase> rows = {
        {"missing target", [](const std::string&) {}, {{"rig.json", "{}"}}, false, true},
        {"replaces files", oldParams, {}, false, true},
        {"last file blocked", [&](const std::string& t) { oldParams(t), makeDir(t + "/" + alphaName); }, {}, false, false},
        {"no parent", [](const std::string&) {}, {}, false, false},
        {"bad extra name", oldParams, {{"sub/rig.json", "{}"}}, false, false},
        {"extra shadows a mesh", oldParams, {{core::meshFileName('x', 0, 0), "{}"}}, false, false},
        {"short mesh", oldParams, {}, true, false},
    };
    for (const WriteCase& row : rows) {
        entry_test::TempCalibrationDir parent;
        const std::string target = parent.path() + (std::string(row.name) == "no parent" ? "none/calib" : "calib");
        row.prepare(target);
        const auto before = snapshot(target);
        auto rowMeshes = calib.meshes;
        if (row.shortMesh) rowMeshes[1][0].y.pop_back();
        std::string error;
        const bool written =
            core::writeCalibrationDir(target, calib.layout, rowMeshes, calib.alphas, row.extras, &error);
        ASSERT_EQ(written, row.written) << row.name << ": " << error;
        EXPECT_EQ(written, error.empty()) << row.name;
        EXPECT_EQ(snapshot(parent.path()).size(), std::filesystem::exists(target) ? 1u : 0u) << row.name;  // no staging left
        const auto after = snapshot(target);
        if (!written) {
            EXPECT_EQ(after, before) << row.name;
            continue;
        }
        const size_t files =
            1 + 2 * (calib.meshes[0].size() + calib.meshes[1].size()) + calib.alphas.size() + row.extras.size();
        EXPECT_EQ(after.size(), before.size() - before.count(core::kParamsFileName) + files) << row.name;
        for (const core::NamedFile& extra : row.extras) EXPECT_EQ(after.at(extra.name), extra.bytes);
        EXPECT_EQ(after.at(alphaName), std::string(calib.alphas[0].bytes.begin(), calib.alphas[0].bytes.end()));
        EXPECT_EQ(after.at(core::kParamsFileName), core::paramsFileText(calib.layout)) << row.name;
        const std::string meshBytes = after.at(core::meshFileName('y', 1, 1));
        EXPECT_EQ(meshBytes.size(), calib.meshes[1][1].y.size() * sizeof(float));
        EXPECT_EQ(memcmp(meshBytes.data(), calib.meshes[1][1].y.data(), meshBytes.size()), 0);
    }
}

}  // namespace
