#include "frame_buffers.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "gl/avs_alloc.h"

namespace zqavs {

bool drmDeviceAvailable()
{
    return access("/dev/dri/card0", R_OK | W_OK) == 0;
}

FrameBuffer::~FrameBuffer()
{
    release();
}

FrameBuffer::FrameBuffer(FrameBuffer&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), addr_(std::exchange(other.addr_, nullptr)),
      size_(std::exchange(other.size_, 0)), drm_(other.drm_)
{
}

bool FrameBuffer::allocate(int width, int height, std::string* error)
{
    release();
    const int stride = (width + 15) & ~15;
    size_ = static_cast<size_t>(stride) * height * 3 / 2;
    if (drmDeviceAvailable()) {
        // One byte per pixel, 1.5 rows per image row: the mapping is at least size_ bytes.
        void* addr = nullptr;
        avs_alloc_buf(&fd_, &addr, stride, (height * 3 + 1) / 2, 8);
        if (addr) {
            addr_ = addr;
            drm_ = true;
            return true;
        }
        fd_ = -1;  // fall back to shared memory
    }
    fd_ = memfd_create("zqavs-nv12", MFD_CLOEXEC);
    if (fd_ < 0 || ftruncate(fd_, static_cast<off_t>(size_)) != 0) {
        *error = std::string("cannot create shared memory: ") + strerror(errno);
        release();
        return false;
    }
    addr_ = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
    if (addr_ == MAP_FAILED) {
        addr_ = nullptr;
        *error = std::string("cannot map shared memory: ") + strerror(errno);
        release();
        return false;
    }
    drm_ = false;
    return true;
}

void FrameBuffer::release()
{
    if (drm_ && addr_) {
        avs_free_buf(&fd_, addr_, size_);
    } else {
        if (addr_) munmap(addr_, size_);
        if (fd_ >= 0) close(fd_);
    }
    fd_ = -1;
    addr_ = nullptr;
    size_ = 0;
    drm_ = false;
}

}  // namespace zqavs
