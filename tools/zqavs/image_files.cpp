#include <stb_image.h>
#include <stb_image_write.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "tool_common.h"

namespace zqavs {

namespace {

bool isRawNv12(const std::string& path)
{
    return endsWith(path, ".nv12") || endsWith(path, ".yuv");
}

}  // namespace

bool endsWith(const std::string& text, const std::string& suffix)
{
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string pathLine(const char* path)
{
    const std::string name = path ? path : "none";
    const char* meaning = name == "target"     ? "YUV images imported from the dma-bufs, no CPU copy"
                          : name == "planes"   ? "luma and chroma planes imported from the dma-bufs, no CPU copy"
                          : name == "portable" ? "camera images uploaded and the panorama read back by the CPU"
                                               : "not running";
    return "path: " + name + " (" + meaning + ")";
}

void printGains(const std::vector<float>& gains)
{
    for (size_t camera = 0; camera * 3 + 2 < gains.size(); ++camera)
        printf("camera %zu gains: R %.3f  G %.3f  B %.3f\n", camera, gains[camera * 3], gains[camera * 3 + 1],
               gains[camera * 3 + 2]);
}

bool readImage(const std::string& path, std::vector<unsigned char>& rgb, int* width, int* height)
{
    int channels = 0;
    unsigned char* pixels = stbi_load(path.c_str(), width, height, &channels, 3);
    if (!pixels) return false;
    rgb.assign(pixels, pixels + static_cast<size_t>(*width) * *height * 3);
    stbi_image_free(pixels);
    return true;
}

bool loadCameraImage(const std::string& path, int width, int height, zqavs_synth::Nv12Image* out, std::string* error)
{
    if (!isRawNv12(path)) {
        zqavs_synth::RgbImage rgb;
        if (!readImage(path, rgb.rgb, &rgb.width, &rgb.height)) {
            *error = path + ": cannot read as PNG or JPEG";
            return false;
        }
        if (rgb.width != width || rgb.height != height) {
            *error = path + ": " + std::to_string(rgb.width) + "x" + std::to_string(rgb.height) +
                     ", expected " + std::to_string(width) + "x" + std::to_string(height);
            return false;
        }
        *out = zqavs_synth::rgbToNv12(rgb);
        return true;
    }
    std::ifstream in(path, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const int stride = zqavs_synth::nv12Stride(width);
    const size_t tight = static_cast<size_t>(width) * height * 3 / 2;
    if (!in.good() && bytes.empty()) {
        *error = path + ": cannot read";
        return false;
    }
    out->width = width;
    out->height = height;
    out->stride = stride;
    if (bytes.size() == zqavs_synth::nv12Bytes(width, height)) {
        out->data = std::move(bytes);
        return true;
    }
    if (bytes.size() != tight) {
        *error = path + ": " + std::to_string(bytes.size()) + " bytes, an NV12 image of " + std::to_string(width) + "x" +
                 std::to_string(height) + " has " + std::to_string(zqavs_synth::nv12Bytes(width, height)) +
                 " (stride " + std::to_string(stride) + ") or " + std::to_string(tight) + " (tightly packed)";
        return false;
    }
    out->data.assign(zqavs_synth::nv12Bytes(width, height), 0);
    const int rows = height + height / 2;  // luma rows, then chroma rows
    for (int r = 0; r < rows; ++r)
        memcpy(&out->data[static_cast<size_t>(r) * stride], &bytes[static_cast<size_t>(r) * width], width);
    return true;
}

bool writePng(const std::string& path, const unsigned char* rgb, int width, int height)
{
    return stbi_write_png(path.c_str(), width, height, 3, rgb, width * 3) != 0;
}

}  // namespace zqavs

#include <unistd.h>

#include <cstdio>

namespace zqavs {

Progress::Progress(const char* what) : what_(what), tty_(isatty(STDOUT_FILENO) == 1) {}

void Progress::update(int done, int total)
{
    if (!tty_) return;
    printf("\r%s %d/%d", what_, done, total);
    fflush(stdout);
    shown_ = true;
}

void Progress::clear()
{
    if (shown_) printf("\r\033[K");
    shown_ = false;
}

Progress::~Progress()
{
    clear();
}

}  // namespace zqavs
