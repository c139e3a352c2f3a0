// zqavs calib: a calibration directory from a rig file, and camera models from chessboard photos.
#include <algorithm>

#include "tool_common.h"

namespace zqavs {

void addCalibCommand(CLI::App& app, CalibOptions& options, IntrinsicsOptions& intrinsics, ToolResult& result)
{
    CLI::App* cmd = app.add_subcommand("calib", "Calibrate a real rig: rig file -> calibration directory");
    cmd->add_option("RIG", options.rig, "rig file (JSON): panorama and camera models")->check(CLI::ExistingFile);
    cmd->add_option("--refine", options.refineImages,
                    "recover the cameras' rotations from one image each (PNG/JPEG or raw NV12), in the rig's order")
        ->check(CLI::ExistingFile);
    CLI::Option* seams =
        cmd->add_option("--seams", options.seamImages,
                        "choose each seam's path where the cameras agree, from one image per camera taken at one "
                        "instant (PNG/JPEG or raw NV12), in the rig's order; without images, those of --refine")
            ->expected(0, CLI::detail::expected_max_vector_size)
            ->check(CLI::ExistingFile);
    cmd->add_option("--seam-finder", options.seamFinder,
                    "with --seams: gc (graph cut on colour and gradient), dp (dynamic programming) or straight "
                    "(keep the ramp across the window, only measure)")
        ->check(CLI::IsMember({"gc", "dp", "straight"}))
        ->capture_default_str();
    cmd->add_option("--seam-width", options.seamWidth,
                    "blend window per seam for this run, in panorama columns, where the overlap allows (default: "
                    "the rig file's seam_width)")
        ->check(CLI::PositiveNumber);
    cmd->add_option("-o,--out", options.out, "calibration directory to write (created when missing)");
    cmd->add_option("--overlay", options.overlay, "also draw the layout (cameras, blocks, seams and their paths) as a PNG");
    cmd->callback([cmd, seams, &options, &result] {
        if (cmd->got_subcommand("intrinsics")) return;
        if (options.rig.empty() || options.out.empty())
            throw CLI::ValidationError("calib", "needs RIG and -o DIR (or the intrinsics subcommand)");
        options.seams = seams->count() > 0;
        // Given without images, CLI11 stores one empty value.
        options.seamImages.erase(std::remove(options.seamImages.begin(), options.seamImages.end(), std::string()),
                                 options.seamImages.end());
        if (options.seams && options.seamImages.empty() && options.refineImages.empty())
            throw CLI::ValidationError("--seams", "needs one image per camera, or those of --refine");
        result.code = runCalib(options);
    });

    CLI::App* intr = cmd->add_subcommand("intrinsics", "Camera model from chessboard photos");
    intr->add_option("IMAGES", intrinsics.images, "chessboard photos (PNG/JPEG) of one camera")
        ->required()
        ->check(CLI::ExistingFile);
    intr->add_option("--board", intrinsics.board, "inner corners of the board, COLSxROWS (e.g. 9x6)")->required();
    intr->add_option("--square", intrinsics.square, "side of one square in metres")
        ->required()
        ->check(CLI::PositiveNumber);
    intr->add_flag("--fisheye", intrinsics.fisheye, "use OpenCV's fisheye model instead of the pinhole one");
    intr->add_option("-o,--out", intrinsics.out, "OpenCV calibration file to write (.yml or .xml)")->required();
    intr->callback([&intrinsics, &result] { result.code = runCalibIntrinsics(intrinsics); });
}

}  // namespace zqavs
