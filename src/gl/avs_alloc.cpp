// DRM dumb buffers exported as dma-bufs and mapped for the CPU. Plain printf lines at every log
// level: these helpers sit below the library's log.
#include "gl/avs_alloc.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <xf86drm.h>

namespace {

bool createDumb(int device, int width, int height, int bpp, drm_mode_create_dumb* created)
{
    memset(created, 0, sizeof(*created));
    created->height = height;
    created->width = width;
    created->bpp = bpp;
    created->flags = 0;
    return drmIoctl(device, DRM_IOCTL_MODE_CREATE_DUMB, created) == 0;
}

// Deliberately without DRM_CLOEXEC or DRM_RDWR: the importers only read through the descriptor.
int exportDumb(int device, uint32_t handle, int* exported)
{
    drm_prime_handle prime;
    memset(&prime, 0, sizeof(prime));
    prime.handle = handle;
    prime.flags = 0;
    prime.fd = -1;
    const int ret = drmIoctl(device, DRM_IOCTL_PRIME_HANDLE_TO_FD, &prime);
    *exported = prime.fd;
    return ret;
}

bool mapOffsetOf(int device, uint32_t handle, uint64_t* offset)
{
    drm_mode_map_dumb map;
    memset(&map, 0, sizeof(map));
    map.handle = handle;
    if (drmIoctl(device, DRM_IOCTL_MODE_MAP_DUMB, &map) != 0) return false;
    *offset = map.offset;
    return true;
}

// Issued on the exported descriptor rather than the device, so it normally fails and says so
// [kept:K4].
void destroyDumbOnExported(int exportedFd, uint32_t handle)
{
    drm_mode_destroy_dumb destroy;
    memset(&destroy, 0, sizeof(destroy));
    destroy.handle = handle;
    const int ret = drmIoctl(exportedFd, DRM_IOCTL_MODE_DESTROY_DUMB, &destroy);
    if (ret != 0) printf("failed to destory dumb %d\n", ret);
}

}  // namespace

void* alloc_drm_buf(int* fd, int width, int height, int bpp)
{
    static const char* const kDevicePath = "/dev/dri/card0";
    if (fd == nullptr) {
        printf("alloc_drm_buf: no descriptor variable given\n");
        return nullptr;
    }
    const int device = open(kDevicePath, O_RDWR);
    if (device < 0) {
        printf("failed to open %s\n", kDevicePath);
        return nullptr;
    }
    // The device descriptor is left open on the two early failures below [kept:K5].
    drm_mode_create_dumb created;
    if (!createDumb(device, width, height, bpp, &created)) {
        printf("failed to create dumb buffer: %s\n", strerror(errno));
        return nullptr;
    }
    int exported = -1;
    const int ret = exportDumb(device, created.handle, &exported);
    if (ret != 0) {
        printf("handle_to_fd failed ret=%d,err=%s, handle=%x \n", ret, strerror(errno), created.handle);
        return nullptr;
    }
    *fd = exported;

    uint64_t offset = 0;
    if (!mapOffsetOf(device, created.handle, &offset)) {
        printf("failed to create map dumb: %s\n", strerror(errno));
        destroyDumbOnExported(*fd, created.handle);
        return nullptr;
    }
    void* mapping = mmap(nullptr, created.size, PROT_READ | PROT_WRITE, MAP_SHARED, device, offset);
    if (mapping == MAP_FAILED) {
        printf("failed to mmap buffer: %s\n", strerror(errno));
        destroyDumbOnExported(*fd, created.handle);
        return nullptr;
    }
    // The buffer lives on through the dma-buf descriptor and the mapping.
    close(device);
    return mapping;
}

int munmap_drm_buf(void* start, int* memfd, size_t length)
{
    if (munmap(start, length) != 0) {
        // Prints the address of the caller's descriptor variable [kept:K6].
        printf("munmap viraddr=%p memfd=%d size=%zu failed!\n", start,
               static_cast<int>(reinterpret_cast<intptr_t>(memfd)), length);
        return 1;
    }
    if (memfd != nullptr) {
        close(*memfd);
        *memfd = -1;
    }
    return 0;
}

int avs_alloc_buf(int* fd, void** virAddr, int width, int height, int bpp)
{
    // The test is on the argument, not on the address stored: a failed allocation returns 0 with
    // *virAddr null and callers test *virAddr. A null argument has nowhere to take the address,
    // so it is refused before allocating instead of written through.
    if (virAddr == nullptr) {
        printf("alloc_drm_buf w=%d h=%d bpp=%d failed!\n", width, height, bpp);
        return -1;
    }
    *virAddr = alloc_drm_buf(fd, width, height, bpp);
    return 0;
}

int avs_free_buf(int* fd, void* virAddr, size_t size)
{
    // Size goes to a %d field; a null fd reads as -1 [kept:K7].
    const int descriptor = fd != nullptr ? *fd : -1;
    if (virAddr == nullptr || descriptor < 0) {
        printf("Invalid params: virAddr=%p fd=%d size=%d!\n", virAddr, descriptor, static_cast<int>(size));
        return -1;
    }
    munmap_drm_buf(virAddr, fd, size);
    return 0;
}
