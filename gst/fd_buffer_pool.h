// A buffer pool of NV12 frames in the stitching library's layout (stride = width rounded up to
// 16, chroma right after luma), each one block of descriptor-backed memory with a video meta:
// DRM dumb buffers exported as dma-buf where a DRM device can make them, memfd otherwise.
#ifndef ZQAVS_GST_FD_BUFFER_POOL_H
#define ZQAVS_GST_FD_BUFFER_POOL_H

#include <gst/gst.h>
#include <gst/video/video.h>

#include <set>

G_BEGIN_DECLS

#define ZQAVS_TYPE_FD_BUFFER_POOL (zqavs_fd_buffer_pool_get_type())
G_DECLARE_FINAL_TYPE(ZqavsFdBufferPool, zqavs_fd_buffer_pool, ZQAVS, FD_BUFFER_POOL, GstBufferPool)

// A pool to configure with NV12 caps (the size given is replaced by the library layout's).
GstBufferPool* zqavs_fd_buffer_pool_new(void);

G_END_DECLS

namespace zqavs_gst {

// The library's layout of an NV12 frame.
GstVideoInfo libraryLayout(int width, int height);

// An active pool of exactly `count` NV12 frames of `width` x `height`, or nullptr.
GstBufferPool* fixedFramePool(int width, int height, guint count);

// Upstream descriptors handed to the library as they are. The library remembers descriptors by
// number, so a number must not come back on another memory (its first owner closed it and the
// system gave the number out again): such frames are copied instead.
class DescriptorLedger {
public:
    // The descriptor of `buffer` when the library can read it as it is (one descriptor-backed
    // memory, a dma-buf if `dmabufOnly`, from the descriptor's first byte, in the library's
    // layout, not a recycled number), else -1.
    int admit(GstBuffer* buffer, const GstVideoInfo& negotiated, bool dmabufOnly);

private:
    static guint nextId();

    guint id_ = nextId();  // the mark this ledger leaves on the memories it handed over
    std::set<int> handedOver_;
};

// The descriptor of a buffer from a ZqavsFdBufferPool.
int poolDescriptor(GstBuffer* buffer);

}  // namespace zqavs_gst

#endif  // ZQAVS_GST_FD_BUFFER_POOL_H
