// stitch_minimal: stitches raw NV12 camera images with a calibration directory.
//
//   stitch_minimal CALIB_DIR/ SRC_WxH PANO_WxH OUT.nv12 CAMERA0.nv12 [CAMERA1.nv12 ...]
//
// Camera images and the output are NV12 with a stride of the width rounded up to 16 and the
// chroma plane right after the luma plane. Buffers are memfds here; a camera application hands in
// its own dma-bufs the same way.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <zqgfx_gpu_avs.h>

namespace {

struct SharedImage {
    int fd = -1;
    unsigned char* data = nullptr;
    size_t size = 0;

    bool allocate(size_t bytes)
    {
        size = bytes;
        fd = memfd_create("nv12", MFD_CLOEXEC);
        if (fd < 0 || ftruncate(fd, static_cast<off_t>(bytes)) != 0) return false;
        void* addr = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        data = addr == MAP_FAILED ? nullptr : static_cast<unsigned char*>(addr);
        return data != nullptr;
    }
    ~SharedImage()
    {
        if (data) munmap(data, size);
        if (fd >= 0) close(fd);
    }
};

size_t nv12Bytes(int width, int height)
{
    return static_cast<size_t>((width + 15) & ~15) * height * 3 / 2;
}

bool readFile(const char* path, unsigned char* data, size_t size)
{
    FILE* file = fopen(path, "rb");
    const bool ok = file && fread(data, 1, size, file) == size;
    if (file) fclose(file);
    return ok;
}

}  // namespace

int main(int argc, char** argv)
{
    int srcW = 0, srcH = 0, panoW = 0, panoH = 0;
    if (argc < 6 || sscanf(argv[2], "%dx%d", &srcW, &srcH) != 2 || sscanf(argv[3], "%dx%d", &panoW, &panoH) != 2) {
        fprintf(stderr, "usage: %s CALIB_DIR/ SRC_WxH PANO_WxH OUT.nv12 CAMERA.nv12...\n", argv[0]);
        return 2;
    }
    const int cameras = argc - 5;
    std::vector<SharedImage> inputs(cameras);
    SharedImage output;
    std::vector<int> fds;
    for (int c = 0; c < cameras; ++c) {
        if (!inputs[c].allocate(nv12Bytes(srcW, srcH)) || !readFile(argv[5 + c], inputs[c].data, inputs[c].size)) {
            fprintf(stderr, "cannot load %s\n", argv[5 + c]);
            return 1;
        }
        fds.push_back(inputs[c].fd);
    }
    if (!output.allocate(nv12Bytes(panoW, panoH))) return 1;
    fds.push_back(output.fd);

    std::string dir = argv[1];
    if (dir.back() != '/') dir += '/';  // file names are appended to the path as they are
    ZQGFX_AVS_CONTEXT_T context{};
    context.numView = static_cast<uint32_t>(cameras);
    context.meshFilePath = &dir[0];
    context.inputBufferWidth = static_cast<uint32_t>((srcW + 15) & ~15);
    context.inputBufferHeight = static_cast<uint32_t>(srcH);
    context.outputBufferWidth = static_cast<uint32_t>((panoW + 15) & ~15);
    context.outputBufferHeight = static_cast<uint32_t>(panoH);
    context.useFd = 1;
    context.useSync = 1;
    context.avsAlphaType = FUSE_GPU_ALPHA_U8;
    context.inputFdArray = fds.data();

    if (ZQGFX_AVS_init(&context) != ZQGFX_AVS_SUCCESS) return 1;
    int status = 0;
    if (ZQGFX_AVS_AllProcess(&context) != ZQGFX_AVS_SUCCESS) status = 1;
    void* fence = status == 0 ? ZQGFX_AVS_create_sync() : nullptr;
    if (status == 0 && (!fence || ZQGFX_AVS_wait_sync(fence) != ZQGFX_AVS_SUCCESS)) status = 1;
    const std::string path = ZQGFX_AVS_get_path();  // "target" or "portable"
    ZQGFX_AVS_deinit(&context);
    if (status != 0) {
        fprintf(stderr, "stitching failed\n");
        return 1;
    }
    FILE* out = fopen(argv[4], "wb");
    if (!out || fwrite(output.data, 1, output.size, out) != output.size) {
        fprintf(stderr, "cannot write %s\n", argv[4]);
        if (out) fclose(out);
        return 1;
    }
    fclose(out);
    printf("stitched %d cameras into %s (%s path)\n", cameras, argv[4], path.c_str());
    return 0;
}
