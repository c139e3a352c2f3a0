// NV12 images handed to the library: a DRM dumb buffer from the library's own allocator where a
// DRM device exists, anonymous shared memory (memfd) otherwise. Either way a descriptor and a
// CPU mapping.
#ifndef ZQAVS_FRAME_BUFFERS_H
#define ZQAVS_FRAME_BUFFERS_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace zqavs {

class FrameBuffer {
public:
    FrameBuffer() = default;
    ~FrameBuffer();
    FrameBuffer(const FrameBuffer&) = delete;
    FrameBuffer& operator=(const FrameBuffer&) = delete;
    FrameBuffer(FrameBuffer&& other) noexcept;

    // An NV12 image of width x height with the library's layout (stride = width rounded up to
    // 16, chroma right after luma).
    bool allocate(int width, int height, std::string* error);
    int fd() const { return fd_; }
    uint8_t* data() const { return static_cast<uint8_t*>(addr_); }
    size_t size() const { return size_; }
    const char* kind() const { return drm_ ? "DRM dumb buffer" : "memfd"; }

private:
    void release();
    int fd_ = -1;
    void* addr_ = nullptr;
    size_t size_ = 0;
    bool drm_ = false;
};

bool drmDeviceAvailable();

}  // namespace zqavs

#endif  // ZQAVS_FRAME_BUFFERS_H
