// The DRM dumb-buffer allocator: its failure paths and the free pair on any mappable descriptor
// (no machine of the project has a DRM device to allocate from).
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "gl/avs_alloc.h"
#include "unit/engine_log_support.h"

namespace {

using engine_test::stdoutOf;

const size_t kSize = 4096;

bool deviceExists() { return access("/dev/dri/card0", F_OK) == 0; }
bool descriptorOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }
bool mapped(void* address) { return msync(address, kSize, MS_ASYNC) == 0; }

std::string line(const char* format, const void* pointer, long value)
{
    char text[160];
    snprintf(text, sizeof text, format, pointer, value, kSize);
    return text;
}

// A shared mapping of a memfd, standing in for an exported dumb buffer.
struct MemfdMapping {
    MemfdMapping() { EXPECT_EQ(ftruncate(fd, kSize), 0); }
    ~MemfdMapping()
    {
        if (mapped(address)) munmap(address, kSize);
        if (descriptorOpen(fd)) close(fd);
    }
    int fd = memfd_create("avs_alloc_test", 0);
    void* address = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
};

TEST(AvsAlloc, NullArgumentsAreRefused)
{
    int fd = -1;
    EXPECT_EQ(stdoutOf([&] { EXPECT_EQ(avs_alloc_buf(&fd, nullptr, 8, 4, 24), -1); }), "alloc_drm_buf w=8 h=4 bpp=24 failed!\n");
    stdoutOf([&] { EXPECT_EQ(alloc_drm_buf(nullptr, 8, 4, 24), nullptr); });

    MemfdMapping buffer;
    int negative = -1;
    const std::string out = stdoutOf([&] {
        EXPECT_EQ(avs_free_buf(&negative, buffer.address, kSize), -1);
        EXPECT_EQ(avs_free_buf(&buffer.fd, nullptr, kSize), -1);
        EXPECT_EQ(avs_free_buf(nullptr, buffer.address, kSize), -1);
    });
    const char* invalid = "Invalid params: virAddr=%p fd=%ld size=%zu!\n";
    EXPECT_EQ(out, line(invalid, buffer.address, -1) + line(invalid, nullptr, buffer.fd) + line(invalid, buffer.address, -1));
    EXPECT_TRUE(mapped(buffer.address) && descriptorOpen(buffer.fd));

    if (deviceExists()) return;  // the open below cannot be made to fail
    int fd7 = -7;
    void* address = &fd7;
    EXPECT_EQ(stdoutOf([&] { EXPECT_EQ(alloc_drm_buf(&fd7, 64, 64, 32), nullptr); }), "failed to open /dev/dri/card0\n");
    // The failure test is made on the argument, so a failed allocation returns 0 and a null address.
    stdoutOf([&] { EXPECT_EQ(avs_alloc_buf(&fd7, &address, 64, 64, 32), 0); });
    EXPECT_TRUE(address == nullptr && fd7 == -7);
}

TEST(AvsAlloc, FreeUnmapsClosesAndResetsTheDescriptorButNotAfterAFailedUnmap)
{
    MemfdMapping freed;
    const int original = freed.fd;
    EXPECT_EQ(avs_free_buf(&freed.fd, freed.address, kSize), 0);
    EXPECT_TRUE(freed.fd == -1 && !descriptorOpen(original) && !mapped(freed.address));

    MemfdMapping buffer;
    int fd = buffer.fd;
    void* misaligned = static_cast<char*>(buffer.address) + 1;
    const std::string out = stdoutOf([&] {
        EXPECT_EQ(munmap_drm_buf(misaligned, &fd, kSize), 1);
        EXPECT_EQ(avs_free_buf(&fd, misaligned, kSize), 0);  // the unmap result is not passed on
    });
    // The descriptor field shows the address of the caller's variable.
    const std::string failed = line("munmap viraddr=%p memfd=%ld size=%zu failed!\n", misaligned,
                                    static_cast<int>(reinterpret_cast<intptr_t>(&fd)));
    EXPECT_EQ(out, failed + failed);
    EXPECT_TRUE(fd == buffer.fd && descriptorOpen(fd));
}

}  // namespace
