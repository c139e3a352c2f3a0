// File-mode init of a whole calibration directory cut from one input: a first byte choosing the
// alpha type, then the parameter file, the mesh files in mesh order and the alpha files, separated
// by kSeparator. A part reading "DIR" becomes a directory; files past the last part are missing.
// An init that succeeds runs a frame; the instance is ended either way.
#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "calibration_dir.h"
#include "instance_support.h"

namespace core = zqavs_calib_core;

namespace {

const std::string kSeparator = "\n--file--\n";
// Panoramas past this are refused by the harness: the library would only allocate them.
constexpr int kLargestSide = 8192;

std::vector<std::string> cut(const std::string& input)
{
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t at; (at = input.find(kSeparator, start)) != std::string::npos; start = at + kSeparator.size())
        parts.push_back(input.substr(start, at - start));
    parts.push_back(input.substr(start));
    return parts;
}

// The file names a layout makes the loaders open, in the order the parts fill them.
std::vector<std::string> fileNames(const PSR_INITPARAMS_T& layout)
{
    std::vector<std::string> names = {core::kParamsFileName};
    for (int c = 0; c < layout.camera_num; ++c)
        for (const core::BlockView& block : core::cameraBlocks(layout, c))
            for (char axis : {'x', 'y'}) names.push_back(core::meshFileName(axis, c, block.position));
    for (int c = 0; c < layout.camera_num; ++c) names.push_back(core::alphaFileName(c, (c + 1) % layout.camera_num));
    return names;
}

void writeDirectory(const entry_test::TempCalibrationDir& dir, const std::vector<std::string>& names,
                    const std::vector<std::string>& parts)
{
    for (const auto& entry : std::filesystem::directory_iterator(dir.path())) std::filesystem::remove_all(entry);
    for (size_t i = 0; i < names.size() && i < parts.size(); ++i) {
        if (parts[i] == "DIR")
            std::filesystem::create_directory(dir.path() + names[i]);
        else
            dir.write(names[i], parts[i].data(), parts[i].size());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) return 0;
    const std::vector<std::string> parts = cut(std::string(reinterpret_cast<const char*>(data) + 1, size - 1));
    std::istringstream params(parts[0]);
    PSR_INITPARAMS_T layout;
    layout.camera_num = static_cast<int>(core::readParams(params, &layout).cameraLines.size());
    if (std::max({layout.src_width, layout.src_height, layout.bld_width, layout.bld_height}) > kLargestSide) return 0;
    static const entry_test::TempCalibrationDir dir;
    writeDirectory(dir, fileNames(layout), parts);

    ZQGFX_AVS_CONTEXT_T context = entry_test::contextFor(layout, dir.path());
    context.inputBufferFormat = 0x3231564e;  // NV12
    context.avsAlphaType = data[0] & 1 ? FUSE_GPU_ALPHA_U8 : FUSE_GPU_ALPHA_FLOAT;
    entry_test::initFrameAndEnd(&context, layout.camera_num);
    return 0;
}
