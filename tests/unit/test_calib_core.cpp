// The calibration core: what its parameter-file reader reports line by line, and its writer's
// all-or-nothing promise.
#include <sys/stat.h>

#include <cstring>
#include <functional>
#include <map>
#include <sstream>

#include "avs_calib_core.h"
#include "calibration_dir.h"

namespace core = zqavs_calib_core;

namespace {

const std::string kGlobal = "src_width 640\nsrc_height 480\nbld_width 2048\nbld_height 480\nstep_x 16\nstep_y 8\n";
const std::string kCamera0 = "camera_0: 1\nnonoverlap_num 1\noverlap_num 0\nx 10\nx 20\nx 3\nx 4\n";

// "LINE E|W message" for every diagnostic of `text`.
std::vector<std::string> diagnose(const std::string& text)
{
    std::vector<std::string> found;
    std::istringstream in(text);
    PSR_INITPARAMS_T layout;
    core::readParams(in, &layout, [&](const core::ParamsDiagnostic& d) {
        found.push_back(std::to_string(d.line) + (d.severity == d.Error ? " E " : " W ") + d.message);
    });
    return found;
}

TEST(CalibCore, ReaderReportsEveryLineThatDoesNotMeanWhatItSeems)
{
    // Each expected entry is the start of one diagnostic, in order.
    const std::vector<std::pair<std::string, std::vector<std::string>>> rows = {
        {kGlobal + kCamera0, {}},
        {kGlobal + "camera_0: 1\n# 1\no 0\nx 10\nx 20\nx 3\nx 4\n",
         {"8 E comment line inside camera_0: is read as the value of 'nonoverlap_num'"}},
        {"src_width  640\n" + kGlobal.substr(kGlobal.find('\n') + 1) + kCamera0,
         {"1 W 'src_width' has no number after a single blank"}},
        {kGlobal + "camera_1: 0\na 1\na 2\na 3\na 4\na 5\n",
         {"7 E 'camera_1:' where 'camera_0:' was expected", "7 W a second global section"}},
        {kGlobal + "camera_0: 1\nn 1\no 0\nx 10\n",
         {"10 E the file ends inside camera_0:", "10 E the file ends inside camera_0:",
          "10 E the file ends inside camera_0:"}},
        {kGlobal + kCamera0 + "camera_1: 0", {"14 W the last line has no line break"}},
        {kGlobal + "camera_0: 0\nn 0\no -1\n", {"7 E camera_0: block counts 0 + -1 are not plausible"}},
    };
    for (const auto& row : rows) {
        const std::vector<std::string> found = diagnose(row.first);
        ASSERT_EQ(found.size(), row.second.size()) << row.first << testing::PrintToString(found);
        for (size_t i = 0; i < found.size(); ++i) EXPECT_EQ(found[i].rfind(row.second[i], 0), 0u) << found[i];
    }
}

// Name -> content of every entry of a directory ("<dir>" for directories); empty when missing.
std::map<std::string, std::string> snapshot(const std::string& dir)
{
    std::map<std::string, std::string> entries;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(dir, ignored)) {
        std::ifstream in(entry.path(), std::ios::binary);
        std::stringstream bytes;
        if (!entry.is_directory()) bytes << in.rdbuf();
        entries[entry.path().filename()] = entry.is_directory() ? "<dir>" : bytes.str();
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
    const PSR_INITPARAMS_T layout = entry_test::ringLayout(2, 1, 1);
    std::vector<std::vector<core::BlockMesh>> meshes(2);
    for (int c = 0; c < 2; ++c)
        for (int p = 0; p < 2; ++p) {
            const int n = entry_test::meshNodes(layout, c, p);
            meshes[c].push_back({0, 0, entry_test::meshValues('x', c, p, n), entry_test::meshValues('y', c, p, n)});
        }
    core::AlphaMap alpha;
    alpha.bytes.assign(100, 7);
    const std::vector<core::AlphaMap> alphas = {alpha};
    const std::string alphaName = core::alphaFileName(0, 0);
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
        auto rowMeshes = meshes;
        if (row.shortMesh) rowMeshes[1][0].y.pop_back();
        std::string error;
        const bool written = core::writeCalibrationDir(target, layout, rowMeshes, alphas, row.extras, &error);
        ASSERT_EQ(written, row.written) << row.name << ": " << error;
        EXPECT_EQ(written, error.empty()) << row.name;
        EXPECT_EQ(snapshot(parent.path()).size(), std::filesystem::exists(target) ? 1u : 0u) << row.name;  // no staging left
        const auto after = snapshot(target);
        if (!written) {
            EXPECT_EQ(after, before) << row.name;
            continue;
        }
        const size_t files = 1 + 2 * (meshes[0].size() + meshes[1].size()) + alphas.size() + row.extras.size();
        EXPECT_EQ(after.size(), before.size() - before.count(core::kParamsFileName) + files) << row.name;
        for (const core::NamedFile& extra : row.extras) EXPECT_EQ(after.at(extra.name), extra.bytes);
        EXPECT_EQ(after.at(alphaName), std::string(100, 7));
        // What was written reads back as the same layout.
        PSR_INITPARAMS_T read;
        std::istringstream in(after.at(core::kParamsFileName));
        core::readParams(in, &read);
        read.camera_num = layout.camera_num;
        EXPECT_EQ(core::paramsFileText(read), core::paramsFileText(layout)) << row.name;
        const std::string meshBytes = after.at(core::meshFileName('y', 1, 1));
        EXPECT_EQ(meshBytes.size(), meshes[1][1].y.size() * sizeof(float));
        EXPECT_EQ(memcmp(meshBytes.data(), meshes[1][1].y.data(), meshBytes.size()), 0);
    }
}

}  // namespace
