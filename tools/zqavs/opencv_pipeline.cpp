#include "opencv_pipeline.h"

#include <opencv2/imgproc.hpp>
#include <opencv2/stitching/detail/blenders.hpp>

namespace zqavs {
namespace {

// Source positions of the panorama columns [first, last) for one plane that is `scale` times
// smaller than the luma plane; sample centres of a subsampled plane sit between luma pixels.
void buildMaps(const zqavs_synth::RigGeometry& geo, int camera, int first, int last, int scale, cv::Mat* map1,
               cv::Mat* map2)
{
    const int width = (last - first) / scale;
    const int height = geo.bld_height / scale;
    const double offset = (scale - 1) / 2.0;
    cv::Mat mapX(height, width, CV_32FC1, cv::Scalar(-1)), mapY(height, width, CV_32FC1, cv::Scalar(-1));
    for (int row = 0; row < height; ++row) {
        for (int col = 0; col < width; ++col) {
            double sx = 0, sy = 0;
            if (!zqavs_synth::panoramaToCamera(geo, camera, first + col * scale + offset, row * scale + offset, &sx,
                                               &sy))
                continue;
            mapX.at<float>(row, col) = static_cast<float>((sx - offset) / scale);
            mapY.at<float>(row, col) = static_cast<float>((sy - offset) / scale);
        }
    }
    cv::convertMaps(mapX, mapY, *map1, *map2, CV_16SC2);
}

cv::Mat lumaOf(const zqavs_synth::Nv12Image& image)
{
    return cv::Mat(image.height, image.width, CV_8UC1, const_cast<uint8_t*>(image.data.data()), image.stride);
}

cv::Mat chromaOf(const zqavs_synth::Nv12Image& image)
{
    uint8_t* chroma = const_cast<uint8_t*>(image.data.data()) + static_cast<size_t>(image.stride) * image.height;
    return cv::Mat(image.height / 2, image.width / 2, CV_8UC2, chroma, image.stride);
}

// Level 0 of a seam's alpha map as an 8-bit weight of side A.
cv::Mat weightOf(const zqavs_synth::AlphaMap& alpha)
{
    cv::Mat weight(alpha.height, alpha.width, CV_8UC1);
    if (alpha.type == zqavs_synth::AlphaType::U8) {
        std::copy_n(alpha.bytes.data(), weight.total(), weight.data);
    } else {
        cv::Mat(alpha.height, alpha.width, CV_32FC1, const_cast<uint8_t*>(alpha.bytes.data()))
            .convertTo(weight, CV_8U, 255.0);
    }
    return weight;
}

}  // namespace

OpenCvPipeline::OpenCvPipeline(const zqavs_synth::Calibration& calib) : calib_(calib), maps_(calib.rig.cameras)
{
    for (int c = 0; c < calib.rig.cameras; ++c) {
        CameraMaps& maps = maps_[c];
        zqavs_synth::cameraColumnRange(calib.layout, c, &maps.first, &maps.last);
        buildMaps(calib.geometry, c, maps.first, maps.last, 1, &maps.lumaMap1, &maps.lumaMap2);
        buildMaps(calib.geometry, c, maps.first, maps.last, 2, &maps.chromaMap1, &maps.chromaMap2);
    }
}

void OpenCvPipeline::remapCamera(int camera, const zqavs_synth::Nv12Image& image)
{
    CameraMaps& maps = maps_[camera];
    cv::remap(lumaOf(image), maps.luma, maps.lumaMap1, maps.lumaMap2, cv::INTER_LINEAR, cv::BORDER_REPLICATE);
    cv::remap(chromaOf(image), maps.chroma, maps.chromaMap1, maps.chromaMap2, cv::INTER_LINEAR,
              cv::BORDER_REPLICATE);
}

// Columns [startx, startx + width) of a camera's remapped planes as one YUV 4:4:4 image, the
// three-channel form the blender takes.
cv::Mat OpenCvPipeline::yuvStrip(int camera, int startx, int width) const
{
    const CameraMaps& maps = maps_[camera];
    const int x = startx - maps.first;
    cv::Mat chroma;
    cv::resize(maps.chroma(cv::Rect(x / 2, 0, width / 2, maps.chroma.rows)), chroma, cv::Size(width, maps.luma.rows),
               0, 0, cv::INTER_LINEAR);
    cv::Mat planes[3] = {maps.luma(cv::Rect(x, 0, width, maps.luma.rows)), cv::Mat(), cv::Mat()};
    cv::Mat split[2];
    cv::split(chroma, split);
    planes[1] = split[0];
    planes[2] = split[1];
    cv::Mat yuv;
    cv::merge(planes, 3, yuv);
    return yuv;
}

void OpenCvPipeline::blendSeam(const zqavs_synth::Seam& seam, int levels, const zqavs_synth::AlphaMap& alpha,
                               cv::Mat& luma, cv::Mat& chroma)
{
    const cv::Mat weightA = weightOf(alpha);
    const cv::Mat weightB = 255 - weightA;
    cv::detail::MultiBandBlender blender(false, levels - 1);
    blender.prepare(cv::Rect(0, 0, seam.width, luma.rows));
    blender.feed(yuvStrip(seam.left_camera, seam.startx, seam.width), weightA, cv::Point(0, 0));
    blender.feed(yuvStrip(seam.right_camera, seam.startx, seam.width), weightB, cv::Point(0, 0));
    cv::Mat blended, mask, yuv;
    blender.blend(blended, mask);
    blended.convertTo(yuv, CV_8UC3);
    cv::Mat planes[3];
    cv::split(yuv, planes);
    planes[0].copyTo(luma(cv::Rect(seam.startx, 0, seam.width, luma.rows)));
    cv::Mat cbcr, half;
    cv::merge(&planes[1], 2, cbcr);
    cv::resize(cbcr, half, cv::Size(seam.width / 2, chroma.rows), 0, 0, cv::INTER_AREA);
    half.copyTo(chroma(cv::Rect(seam.startx / 2, 0, seam.width / 2, chroma.rows)));
}

void OpenCvPipeline::stitch(const std::vector<zqavs_synth::Nv12Image>& cameras, zqavs_synth::Nv12Image& output)
{
    cv::Mat luma = lumaOf(output), chroma = chromaOf(output);
    for (int c = 0; c < calib_.rig.cameras; ++c) {
        remapCamera(c, cameras[c]);
        const PSR_NONOVERLAP_BLOCK& blocks = calib_.layout.nonoverlap_block[c];
        for (int b = 0; b < blocks.nonoverlap_num; ++b) {
            const int x = blocks.dst_startx[b], width = blocks.dst_width[b], own = x - maps_[c].first;
            maps_[c].luma(cv::Rect(own, 0, width, luma.rows)).copyTo(luma(cv::Rect(x, 0, width, luma.rows)));
            maps_[c].chroma(cv::Rect(own / 2, 0, width / 2, chroma.rows))
                .copyTo(chroma(cv::Rect(x / 2, 0, width / 2, chroma.rows)));
        }
    }
    for (size_t s = 0; s < calib_.seams.size(); ++s)
        blendSeam(calib_.seams[s], calib_.rig.band_num + 1, calib_.alphas[s], luma, chroma);
}

}  // namespace zqavs
