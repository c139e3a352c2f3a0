// The stitcher a user would write with OpenCV instead of the library: cv::remap per camera and
// one detail::MultiBandBlender per seam, NV12 in and out. zqavs bench runs it beside the library.
#ifndef ZQAVS_OPENCV_PIPELINE_H
#define ZQAVS_OPENCV_PIPELINE_H

#include <opencv2/core.hpp>
#include <vector>

#include "zqavs_synth.h"

namespace zqavs {

class OpenCvPipeline {
public:
    // Dense remap tables for every camera's columns, built once as such a user would.
    explicit OpenCvPipeline(const zqavs_synth::Calibration& calib);
    // Stitches one frame into `output` (NV12 of the panorama size).
    void stitch(const std::vector<zqavs_synth::Nv12Image>& cameras, zqavs_synth::Nv12Image& output);

private:
    struct CameraMaps {
        int first = 0, last = 0;       // panorama columns [first, last)
        cv::Mat lumaMap1, lumaMap2;    // fixed-point maps for the luma plane
        cv::Mat chromaMap1, chromaMap2;
        cv::Mat luma, chroma;          // this camera's remapped columns
    };
    void remapCamera(int camera, const zqavs_synth::Nv12Image& image);
    void blendSeam(const zqavs_synth::Seam& seam, int levels, const zqavs_synth::AlphaMap& alpha, cv::Mat& luma,
                   cv::Mat& chroma);
    cv::Mat yuvStrip(int camera, int startx, int width) const;

    const zqavs_synth::Calibration& calib_;
    std::vector<CameraMaps> maps_;
};

}  // namespace zqavs

#endif  // ZQAVS_OPENCV_PIPELINE_H
