#include "fd_buffer_pool.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <gst/allocators/allocators.h>
#include <xf86drm.h>

#include <atomic>

struct _ZqavsFdBufferPool {
    GstBufferPool parent;
    GstVideoInfo layout;
    GstAllocator* memfdAllocator;
    GstAllocator* dmabufAllocator;
};

G_DEFINE_TYPE(ZqavsFdBufferPool, zqavs_fd_buffer_pool, GST_TYPE_BUFFER_POOL)

namespace {

// A DRM dumb buffer of at least `bytes` exported as a dma-buf descriptor, or -1.
int allocateDumbBuffer(gsize bytes)
{
    const int card = open("/dev/dri/card0", O_RDWR | O_CLOEXEC);
    if (card < 0) return -1;
    // One byte per pixel and 4096-byte rows keep the request within every driver's limits.
    drm_mode_create_dumb create{};
    create.width = 4096;
    create.height = static_cast<uint32_t>((bytes + 4095) / 4096);
    create.bpp = 8;
    int prime = -1;
    if (drmIoctl(card, DRM_IOCTL_MODE_CREATE_DUMB, &create) == 0) {
        if (drmPrimeHandleToFD(card, create.handle, DRM_CLOEXEC | DRM_RDWR, &prime) != 0) prime = -1;
        // The exported descriptor keeps the buffer alive without the handle.
        drm_mode_destroy_dumb destroy{};
        destroy.handle = create.handle;
        drmIoctl(card, DRM_IOCTL_MODE_DESTROY_DUMB, &destroy);
    }
    close(card);
    return prime;
}

int allocateMemfd(gsize bytes)
{
    const int fd = memfd_create("zqavsstitch", MFD_CLOEXEC);
    if (fd < 0) return -1;
    if (ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

GstMemory* allocateFrameMemory(ZqavsFdBufferPool* pool, gsize bytes)
{
    const int dumb = allocateDumbBuffer(bytes);
    if (dumb >= 0) return gst_dmabuf_allocator_alloc(pool->dmabufAllocator, dumb, bytes);
    const int fd = allocateMemfd(bytes);
    if (fd < 0) return nullptr;
    return gst_fd_allocator_alloc(pool->memfdAllocator, fd, bytes, GST_FD_MEMORY_FLAG_KEEP_MAPPED);
}

gboolean setConfig(GstBufferPool* base, GstStructure* config)
{
    ZqavsFdBufferPool* pool = ZQAVS_FD_BUFFER_POOL(base);
    GstCaps* caps = nullptr;
    guint size = 0, min = 0, max = 0;
    GstVideoInfo info;
    if (!gst_buffer_pool_config_get_params(config, &caps, &size, &min, &max) || !caps ||
        !gst_video_info_from_caps(&info, caps) || GST_VIDEO_INFO_FORMAT(&info) != GST_VIDEO_FORMAT_NV12)
        return FALSE;
    pool->layout = zqavs_gst::libraryLayout(GST_VIDEO_INFO_WIDTH(&info), GST_VIDEO_INFO_HEIGHT(&info));
    gst_buffer_pool_config_set_params(config, caps, static_cast<guint>(GST_VIDEO_INFO_SIZE(&pool->layout)), min, max);
    return GST_BUFFER_POOL_CLASS(zqavs_fd_buffer_pool_parent_class)->set_config(base, config);
}

GstFlowReturn allocBuffer(GstBufferPool* base, GstBuffer** out, GstBufferPoolAcquireParams*)
{
    ZqavsFdBufferPool* pool = ZQAVS_FD_BUFFER_POOL(base);
    const GstVideoInfo& layout = pool->layout;
    GstMemory* memory = allocateFrameMemory(pool, GST_VIDEO_INFO_SIZE(&layout));
    if (!memory) return GST_FLOW_ERROR;
    GstBuffer* buffer = gst_buffer_new();
    gst_buffer_append_memory(buffer, memory);
    gst_buffer_add_video_meta_full(buffer, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_FORMAT_NV12,
                                   GST_VIDEO_INFO_WIDTH(&layout), GST_VIDEO_INFO_HEIGHT(&layout), 2,
                                   const_cast<gsize*>(layout.offset), const_cast<gint*>(layout.stride));
    *out = buffer;
    return GST_FLOW_OK;
}

const gchar** options(GstBufferPool*)
{
    static const gchar* names[] = {GST_BUFFER_POOL_OPTION_VIDEO_META, nullptr};
    return names;
}

void finalize(GObject* object)
{
    ZqavsFdBufferPool* pool = ZQAVS_FD_BUFFER_POOL(object);
    gst_object_unref(pool->memfdAllocator);
    gst_object_unref(pool->dmabufAllocator);
    G_OBJECT_CLASS(zqavs_fd_buffer_pool_parent_class)->finalize(object);
}

}  // namespace

static void zqavs_fd_buffer_pool_class_init(ZqavsFdBufferPoolClass* klass)
{
    G_OBJECT_CLASS(klass)->finalize = finalize;
    GstBufferPoolClass* pool = GST_BUFFER_POOL_CLASS(klass);
    pool->set_config = setConfig;
    pool->alloc_buffer = allocBuffer;
    pool->get_options = options;
}

static void zqavs_fd_buffer_pool_init(ZqavsFdBufferPool* pool)
{
    pool->memfdAllocator = gst_fd_allocator_new();
    pool->dmabufAllocator = gst_dmabuf_allocator_new();
}

GstBufferPool* zqavs_fd_buffer_pool_new(void)
{
    return GST_BUFFER_POOL(gst_object_ref_sink(g_object_new(ZQAVS_TYPE_FD_BUFFER_POOL, nullptr)));
}

namespace zqavs_gst {

GstVideoInfo libraryLayout(int width, int height)
{
    GstVideoInfo info;
    gst_video_info_set_format(&info, GST_VIDEO_FORMAT_NV12, static_cast<guint>(width), static_cast<guint>(height));
    const int stride = (width + 15) & ~15;
    info.stride[0] = info.stride[1] = stride;
    info.offset[0] = 0;
    info.offset[1] = static_cast<gsize>(stride) * height;
    info.size = static_cast<gsize>(stride) * height * 3 / 2;
    return info;
}

GstBufferPool* fixedFramePool(int width, int height, guint count)
{
    GstBufferPool* pool = zqavs_fd_buffer_pool_new();
    GstCaps* caps = gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "NV12", "width", G_TYPE_INT, width,
                                        "height", G_TYPE_INT, height, nullptr);
    GstStructure* config = gst_buffer_pool_get_config(pool);
    gst_buffer_pool_config_set_params(config, caps, 0, count, count);
    gst_buffer_pool_config_add_option(config, GST_BUFFER_POOL_OPTION_VIDEO_META);
    gst_caps_unref(caps);
    if (!gst_buffer_pool_set_config(pool, config) || !gst_buffer_pool_set_active(pool, TRUE)) gst_clear_object(&pool);
    return pool;
}

namespace {

// Marks the memories whose descriptor the library has been given.
GQuark handedOverQuark()
{
    static const GQuark quark = g_quark_from_static_string("zqavs-handed-over");
    return quark;
}

bool inLibraryLayout(GstBuffer* buffer, const GstVideoInfo& negotiated)
{
    GstMemory* memory = gst_buffer_peek_memory(buffer, 0);
    const GstVideoInfo wanted = libraryLayout(GST_VIDEO_INFO_WIDTH(&negotiated), GST_VIDEO_INFO_HEIGHT(&negotiated));
    const GstVideoMeta* meta = gst_buffer_get_video_meta(buffer);
    const gint* stride = meta ? meta->stride : negotiated.stride;
    const gsize* offset = meta ? meta->offset : negotiated.offset;
    for (int plane = 0; plane < 2; ++plane)
        if (stride[plane] != wanted.stride[plane] || offset[plane] != wanted.offset[plane]) return false;
    return memory->size >= GST_VIDEO_INFO_SIZE(&wanted);
}

}  // namespace

int DescriptorLedger::admit(GstBuffer* buffer, const GstVideoInfo& negotiated, bool dmabufOnly)
{
    if (gst_buffer_n_memory(buffer) != 1) return -1;
    GstMemory* memory = gst_buffer_peek_memory(buffer, 0);
    const bool readable = dmabufOnly ? gst_is_dmabuf_memory(memory) : gst_is_fd_memory(memory);
    // The library maps and imports whole descriptors from their first byte.
    if (!readable || memory->offset != 0 || !inLibraryLayout(buffer, negotiated)) return -1;
    const int fd = gst_fd_memory_get_fd(memory);
    GstMiniObject* object = GST_MINI_OBJECT_CAST(memory);
    if (GPOINTER_TO_UINT(gst_mini_object_get_qdata(object, handedOverQuark())) == id_) return fd;
    if (!handedOver_.insert(fd).second) return -1;
    gst_mini_object_set_qdata(object, handedOverQuark(), GUINT_TO_POINTER(id_), nullptr);
    return fd;
}

guint DescriptorLedger::nextId()
{
    static std::atomic<guint> last{0};
    return ++last;
}

int poolDescriptor(GstBuffer* buffer)
{
    return gst_fd_memory_get_fd(gst_buffer_peek_memory(buffer, 0));
}

}  // namespace zqavs_gst
