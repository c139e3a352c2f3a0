#include <stb_image.h>
#include <stb_image_write.h>

#include "tool_common.h"

namespace zqavs {

bool readImage(const std::string& path, std::vector<unsigned char>& rgb, int* width, int* height)
{
    int channels = 0;
    unsigned char* pixels = stbi_load(path.c_str(), width, height, &channels, 3);
    if (!pixels) return false;
    rgb.assign(pixels, pixels + static_cast<size_t>(*width) * *height * 3);
    stbi_image_free(pixels);
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
