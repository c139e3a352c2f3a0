// Calibration files, raw images, memfd buffers and the buffer-mode records.
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "zqavs_synth.h"

namespace zqavs_synth {

namespace {

std::string joinPath(const std::string& dir, const std::string& name)
{
    if (dir.empty() || dir.back() == '/') return dir + name;
    return dir + "/" + name;
}

bool writeFile(const std::string& path, const void* data, size_t size, std::string* error)
{
    FILE* file = std::fopen(path.c_str(), "wb");
    bool ok = file && (size == 0 || std::fwrite(data, 1, size, file) == size);
    if (file && std::fclose(file) != 0) ok = false;
    if (!ok && error) *error = "cannot write " + path + ": " + std::strerror(errno);
    return ok;
}

bool makeDirectory(const std::string& dir, std::string* error)
{
    if (dir.empty() || ::mkdir(dir.c_str(), 0755) == 0 || errno == EEXIST) return true;
    if (error) *error = "cannot create " + dir + ": " + std::strerror(errno);
    return false;
}

}  // namespace

bool writeCalibration(const Calibration& calib, const std::string& dir, std::string* error)
{
    return zqavs_calib_core::writeCalibrationDir(dir, calib.layout, calib.meshes, calib.alphas, {}, error);
}

bool writeCameraImages(const std::vector<Nv12Image>& cameras, const std::string& dir, std::string* error)
{
    if (!makeDirectory(dir, error)) return false;
    for (size_t i = 0; i < cameras.size(); ++i) {
        const std::string name = "camera" + std::to_string(i) + ".nv12";
        if (!writeFile(joinPath(dir, name), cameras[i].data.data(), cameras[i].data.size(), error)) return false;
    }
    return true;
}

bool writeRawRgb(const RgbImage& image, const std::string& path, std::string* error)
{
    return writeFile(path, image.rgb.data(), image.rgb.size(), error);
}

// ---- SharedBuffer ---------------------------------------------------------------------------

SharedBuffer::~SharedBuffer()
{
    release();
}

SharedBuffer::SharedBuffer(SharedBuffer&& other) noexcept
    : fd_(other.fd_), addr_(other.addr_), size_(other.size_)
{
    other.fd_ = -1;
    other.addr_ = nullptr;
    other.size_ = 0;
}

SharedBuffer& SharedBuffer::operator=(SharedBuffer&& other) noexcept
{
    if (this != &other) {
        release();
        fd_ = other.fd_;
        addr_ = other.addr_;
        size_ = other.size_;
        other.fd_ = -1;
        other.addr_ = nullptr;
        other.size_ = 0;
    }
    return *this;
}

void SharedBuffer::release()
{
    if (addr_) ::munmap(addr_, size_);
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    addr_ = nullptr;
    size_ = 0;
}

bool SharedBuffer::allocate(size_t bytes, const char* name, std::string* error)
{
    release();
    if (bytes == 0) {
        if (error) *error = "cannot allocate an empty shared buffer";
        return false;
    }
    int fd = ::memfd_create(name, MFD_CLOEXEC);
    if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
        if (error) *error = std::string("memfd ") + name + ": " + std::strerror(errno);
        if (fd >= 0) ::close(fd);
        return false;
    }
    void* addr = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (addr == MAP_FAILED) {
        if (error) *error = std::string("mmap ") + name + ": " + std::strerror(errno);
        ::close(fd);
        return false;
    }
    fd_ = fd;
    addr_ = addr;
    size_ = bytes;
    return true;
}

bool allocateNv12(int width, int height, SharedBuffer* out, std::string* error)
{
    return out->allocate(nv12Bytes(width, height), "zqavs-nv12", error);
}

bool allocateNv12(const Nv12Image& image, SharedBuffer* out, std::string* error)
{
    if (!allocateNv12(image.width, image.height, out, error)) return false;
    std::memcpy(out->data(), image.data.data(), std::min(image.data.size(), out->size()));
    return true;
}

Nv12View nv12View(const SharedBuffer& buffer, int width, int height)
{
    return {buffer.data(), width, height, nv12Stride(width)};
}

// ---- contexts and buffer mode ---------------------------------------------------------------

ZQGFX_AVS_CONTEXT_T makeContext(const RigConfig& rig, bool useSync)
{
    ZQGFX_AVS_CONTEXT_T context;
    std::memset(&context, 0, sizeof context);
    context.apiVersion = 1;
    context.numView = static_cast<uint32_t>(rig.cameras);
    context.inputBufferWidth = static_cast<uint32_t>(nv12Stride(rig.src_width));
    context.inputBufferHeight = static_cast<uint32_t>(rig.src_height);
    context.outputBufferWidth = static_cast<uint32_t>(nv12Stride(rig.bld_width));
    context.outputBufferHeight = static_cast<uint32_t>(rig.bld_height);
    context.useFd = 1;
    context.useSync = useSync ? 1 : 0;
    context.avsAlphaType = rig.alpha_type == AlphaType::U8 ? FUSE_GPU_ALPHA_U8 : FUSE_GPU_ALPHA_FLOAT;
    return context;
}

bool BufferModeCalibration::build(const Calibration& calib, bool useSync, std::string* error)
{
    init_params = calib.layout;
    init_params.useSync = useSync ? 1 : 0;
    alpha_type = calib.rig.alpha_type;
    mesh_storage_.clear();
    meshes.clear();
    alpha_buffers.clear();
    alpha_records.clear();
    // Reserve first: the pointer arrays below point into these vectors.
    size_t blocks = 0;
    for (const auto& camera : calib.meshes) blocks += camera.size();
    mesh_storage_.reserve(2 * blocks);
    meshes.reserve(blocks);
    for (const auto& camera : calib.meshes) {
        for (const BlockMesh& mesh : camera) {
            mesh_storage_.push_back(mesh.x);
            mesh_storage_.push_back(mesh.y);
            PSR_REMAP_MESH record;
            record.meshIndex = static_cast<int>(meshes.size());
            record.meshxStep_ = calib.rig.step_x;
            record.meshyStep_ = calib.rig.step_y;
            record.meshWidth_ = mesh.width;
            record.meshHeight_ = mesh.height;
            record.meshxBufAddr_ = mesh_storage_[mesh_storage_.size() - 2].data();
            record.meshxFd_ = -1;
            record.meshyBufAddr_ = mesh_storage_.back().data();
            record.meshyFd_ = -1;
            meshes.push_back(record);
        }
    }
    alpha_buffers.resize(calib.alphas.size());
    for (size_t i = 0; i < calib.alphas.size(); ++i) {
        const AlphaMap& alpha = calib.alphas[i];
        if (!alpha_buffers[i].allocate(alpha.bytes.size(), "zqavs-alpha", error)) return false;
        std::memcpy(alpha_buffers[i].data(), alpha.bytes.data(), alpha.bytes.size());
        PSR_DRM_BUF_MSG_T record;
        record.vir_addr = alpha_buffers[i].data();
        record.mem_fd = alpha_buffers[i].fd();
        record.mem_offset = 0;
        record.mem_size = static_cast<int64_t>(alpha.bytes.size());
        alpha_records.push_back(record);
    }
    mesh_pointers.assign(meshes.size(), nullptr);
    for (size_t i = 0; i < meshes.size(); ++i) mesh_pointers[i] = &meshes[i];
    alpha_pointers.assign(alpha_records.size(), nullptr);
    for (size_t i = 0; i < alpha_records.size(); ++i) alpha_pointers[i] = &alpha_records[i];
    return true;
}

void BufferModeCalibration::attach(ZQGFX_AVS_CONTEXT_T* context)
{
    context->useMeshBufAddress = 1;
    context->AVS_initParams = &init_params;
    context->avsRemapMeshArray = mesh_pointers.data();
    context->meshAlphaDrmBufMsgArray = alpha_pointers.data();
    context->avsAlphaType = alpha_type == AlphaType::U8 ? FUSE_GPU_ALPHA_U8 : FUSE_GPU_ALPHA_FLOAT;
    context->useSync = init_params.useSync;
}

}  // namespace zqavs_synth
