// DRM dumb buffers exported as dma-bufs and mapped for the CPU ("/dev/dri/card0").
#ifndef ZQGFX_AVS_ALLOC_H
#define ZQGFX_AVS_ALLOC_H

#include <cstddef>

void* alloc_drm_buf(int* fd, int width, int height, int bpp);
int munmap_drm_buf(void* start, int* memfd, size_t length);
int avs_alloc_buf(int* fd, void** virAddr, int width, int height, int bpp);
int avs_free_buf(int* fd, void* virAddr, size_t size);

#endif  // ZQGFX_AVS_ALLOC_H
