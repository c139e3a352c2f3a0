// Remap engine: calibration meshes turned into triangle strips, and the cache of their vertex
// buffers, keyed by mesh index.
#include "remap/gl_nv12_remap.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

namespace zqgfx_gpu_avs {

namespace {

// Node positions and source coordinates of one mesh, computed in double and stored as float.
struct StripNodes {
    const float* mesh_x;
    const float* mesh_y;
    int step_x;
    int step_y;
    int width;
    int dst_width;
    int dst_height;
    int src_width;
    int src_height;

    double x(int c) const { return 2.0 * (static_cast<double>(step_x) * c / dst_width) - 1.0; }
    double y(int r) const { return 2.0 * (static_cast<double>(step_y) * r / dst_height) - 1.0; }

    // x of the first vertex of an odd row: the quotient is taken in integers, so it only lands on
    // x = 1 when the mesh spans the destination exactly [kept:K15].
    double oddRowTurnX() const
    {
        // A zero-width block has no quotient; the integer division would trap.
        if (dst_width == 0) return x(width - 1);
        return 2.0 * ((step_x * (width - 1)) / dst_width) - 1.0;
    }
};

class StripWriter {
public:
    StripWriter(const StripNodes& nodes, GLfloat* vertexes, GLfloat* texVertexes)
        : nodes_(nodes), vertexes_(vertexes), texVertexes_(texVertexes)
    {
    }

    void node(int c, int r) { emit(nodes_.x(c), c, r); }
    void oddRowTurn(int r) { emit(nodes_.oddRowTurnX(), nodes_.width - 1, r); }

private:
    void emit(double x, int c, int r)
    {
        const int at = r * nodes_.width + c;
        *vertexes_++ = static_cast<GLfloat>(x);
        *vertexes_++ = static_cast<GLfloat>(nodes_.y(r));
        *texVertexes_++ = static_cast<GLfloat>((nodes_.mesh_x[at] + 0.5) / nodes_.src_width);
        *texVertexes_++ = static_cast<GLfloat>((nodes_.mesh_y[at] + 0.5) / nodes_.src_height);
    }

    const StripNodes& nodes_;
    GLfloat* vertexes_;
    GLfloat* texVertexes_;
};

// One vertex buffer holding `bytes` of `data`; the name stays 0 when the driver hands none out.
GLuint uploadVertexBuffer(ZQGL_Remap& engine, const GLfloat* data, GLsizeiptr bytes)
{
    GLuint name = 0;
    glGenBuffers(1, &name);
    glBindBuffer(GL_ARRAY_BUFFER, name);
    glBufferData(GL_ARRAY_BUFFER, bytes, data, GL_STATIC_DRAW);
    engine.checkEglError("glBufferData", EGL_TRUE);
    glBindBuffer(GL_ARRAY_BUFFER, 0);
    return name;
}

// Frees the CPU copies and deletes the buffers of every entry, then releases the storage.
void releaseCache(std::vector<RemapVboInfo>& cache)
{
    for (RemapVboInfo& entry : cache) {
        if (entry.mVertexes != nullptr) free(entry.mVertexes);
        if (entry.mVboId != 0) glDeleteBuffers(1, &entry.mVboId);
    }
    cache.clear();
    std::vector<RemapVboInfo>().swap(cache);
}

RemapVboInfo* findEntry(std::vector<RemapVboInfo>& cache, int index)
{
    for (RemapVboInfo& entry : cache)
        if (entry.mIndex == index) return &entry;
    return nullptr;
}

}  // namespace

void ZQGL_Remap::vertexesValuationStripNew(float* mesh_x, float* mesh_y, int step_x, int step_y, int mesh_width,
                                           int mesh_height, int offset, int dst_width, int dst_height,
                                           int src_width, int src_height, GLfloat* vertexes, GLfloat* texVertexes)
{
    AVS_LOGD("mesh_width=%d,mesh_height=%d,offset=%d\n", mesh_width, mesh_height, offset);
    const StripNodes nodes{mesh_x, mesh_y, step_x, step_y, mesh_width, dst_width, dst_height, src_width, src_height};
    StripWriter strip(nodes, vertexes + offset, texVertexes + offset);

    // The strip snakes through the rows of quads; each row's first vertex and the last two of the
    // row before form a zero-area triangle along the edge, which turns the strip.
    strip.node(0, 0);
    for (int r = 0; r + 1 < mesh_height; ++r) {
        if (r % 2 == 0) {
            strip.node(0, r + 1);
            for (int c = 1; c < mesh_width; ++c) {
                strip.node(c, r);
                strip.node(c, r + 1);
            }
        } else {
            strip.oddRowTurn(r + 1);
            for (int c = mesh_width - 2; c >= 0; --c) {
                strip.node(c, r);
                strip.node(c, r + 1);
            }
        }
    }
}

int ZQGL_Remap::create_remap_VBO_by_mesh(std::vector<std::vector<float*>> meshx,
                                         std::vector<std::vector<float*>> meshy)
{
    const PSR_INITPARAMS_T& layout = _remap_init_params;
    if (!layoutListsComplete(layout)) {
        AVS_LOGE("layout lists are shorter than their block counts; no mesh built");
        return -1;
    }
    for (int cam = 0; cam < layout.camera_num; ++cam) {
        const zqPSR_NONOVERLAP_BLOCK& plain = layout.nonoverlap_block[cam];
        const zqPSR_OVERLAP_BLOCK& overlap = layout.overlap_block[cam];
        const int blocks = plain.nonoverlap_num + overlap.overlap_num;
        // An eleventh block would take the next camera's first mesh index.
        if (blocks > kMaxBlocksPerCamera) {
            AVS_LOGE("camera %d has %d blocks, more than %d mesh indices", cam, blocks, kMaxBlocksPerCamera);
            return -1;
        }
        // The mesh tables come from the loader; a short table or a missing mesh is refused here
        // rather than read.
        const size_t have = cam < static_cast<int>(meshx.size()) && cam < static_cast<int>(meshy.size())
                                ? std::min(meshx[cam].size(), meshy[cam].size())
                                : 0;
        for (int p = 0; p < blocks; ++p) {
            float* mx = static_cast<size_t>(p) < have ? meshx[cam][p] : nullptr;
            float* my = static_cast<size_t>(p) < have ? meshy[cam][p] : nullptr;
            if (mx == nullptr || my == nullptr) {
                AVS_LOGE("camera %d block %d has no mesh", cam, p);
                return -1;
            }
            const bool isPlain = p < plain.nonoverlap_num;
            const int b = isPlain ? p : p - plain.nonoverlap_num;
            const int mesh_w = isPlain ? plain.mesh_width[b] : overlap.mesh_width[b];
            const int mesh_h = isPlain ? plain.mesh_height[b] : overlap.mesh_height[b];
            if (creatVbo(meshIndexOf(cam, p), mx, my, 0, mesh_w, mesh_h, layout.step_x, layout.step_y,
                         layout.src_width, layout.src_height) != 0)
                return -1;
        }
    }
    return 0;
}

int ZQGL_Remap::creatVbo(int index, float* meshx, float* meshy, int addr_offset, int mesh_w, int mesh_h, int step_x,
                         int step_y, int src_width, int src_height)
{
    // Below one node per axis the strip size goes negative and the generator would write past
    // the arrays; an offset is not supported in the arrays allocated here.
    if (mesh_w < 1 || mesh_h < 1 || meshx == nullptr || meshy == nullptr || addr_offset != 0) {
        AVS_LOGE("index=%d: no strip for mesh %dx%d meshx=%p meshy=%p offset=%d", index, mesh_w, mesh_h,
                 static_cast<void*>(meshx), static_cast<void*>(meshy), addr_offset);
        return -1;
    }
    const int dst_width = (mesh_w - 1) * step_x;
    const int dst_height = (mesh_h - 1) * step_y;
    const float vertex_size = static_cast<float>(stripVertexCount(mesh_w, mesh_h) * 2);
    const size_t bytes = static_cast<size_t>(vertex_size * 4);

    GLfloat* vertexes = static_cast<GLfloat*>(malloc(bytes));
    GLfloat* texVertexes = static_cast<GLfloat*>(malloc(bytes));
    if (vertexes == nullptr || texVertexes == nullptr) {
        AVS_LOGE("no memory for the %zu-byte strips of index=%d", bytes, index);
        free(vertexes);
        free(texVertexes);
        return -1;
    }
    vertexesValuationStripNew(meshx, meshy, step_x, step_y, mesh_w, mesh_h, addr_offset, dst_width, dst_height,
                              src_width, src_height, vertexes, texVertexes);

    // A buffer made before a failure stays with the driver, uncached. The CPU copies are
    // released here: nothing else could ever reach them.
    const GLuint vertexesVBO = uploadVertexBuffer(*this, vertexes, static_cast<GLsizeiptr>(bytes));
    GLuint texVertexesVBO = 0;
    if (vertexesVBO != 0) texVertexesVBO = uploadVertexBuffer(*this, texVertexes, static_cast<GLsizeiptr>(bytes));
    if (vertexesVBO == 0 || texVertexesVBO == 0) {
        AVS_LOGE("create vbo%d failed!\n", index);
        free(vertexes);
        free(texVertexes);
        return -1;
    }
    AVS_LOGD("create vbo success: index=%d vertexesVBO=%d texVertexesVBO=%d\n", index, vertexesVBO, texVertexesVBO);

    vertexVboCache.emplace_back(index, step_x, step_y, mesh_w, mesh_h, vertexes, vertexesVBO);
    texVertexVboCache.emplace_back(index, step_x, step_y, mesh_w, mesh_h, texVertexes, texVertexesVBO);
    if (meshQuads.ready() && !meshQuads.storeMesh(index, meshx, meshy, mesh_w, mesh_h, src_width, src_height)) {
        AVS_LOGE("no mesh texture for index=%d (%dx%d)", index, mesh_w, mesh_h);
        return -1;
    }
    return 0;
}

RemapVboInfo* ZQGL_Remap::getVertexVboInfoByIndex(int index)
{
    return findEntry(vertexVboCache, index);
}

RemapVboInfo* ZQGL_Remap::getTexVertexVboInfoByIndex(int index)
{
    return findEntry(texVertexVboCache, index);
}

bool ZQGL_Remap::deleteSpecificVboFromCache(std::vector<RemapVboInfo>* vboCachePtr, int index)
{
    if (vboCachePtr != nullptr) {
        for (auto it = vboCachePtr->begin(); it != vboCachePtr->end(); ++it) {
            if (it->mIndex != index) continue;
            if (it->mVertexes != nullptr) free(it->mVertexes);
            if (it->mVboId != 0) glDeleteBuffers(1, &it->mVboId);
            vboCachePtr->erase(it);
            return true;
        }
    }
    AVS_LOGE("Error: index=%d, mesh do not exist!\n", index);
    return false;
}

void ZQGL_Remap::deleteCachedVbo()
{
    releaseCache(vertexVboCache);
    releaseCache(texVertexVboCache);
}

int ZQGL_Remap::glesRemapUpdateMesh(int index, int step_x, int step_y, int mesh_w, int mesh_h, void* meshx,
                                    void* meshy)
{
    if (index < 0 || mesh_w <= 0 || mesh_h <= 0 || meshx == nullptr || meshy == nullptr) {
        AVS_LOGE("Error: invalid mesh! index=%d w=%d h=%d meshx=%p meshy=%p\n", index, mesh_w, mesh_h, meshx, meshy);
        return -1;
    }
    // Both removals run; an entry removed from one cache stays removed.
    const bool vertexRemoved = deleteSpecificVboFromCache(&vertexVboCache, index);
    const bool texRemoved = deleteSpecificVboFromCache(&texVertexVboCache, index);
    if (!vertexRemoved || !texRemoved) {
        AVS_LOGE("Error: index=%d, mesh do not exist!\n", index);
        return -1;
    }
    return creatVbo(index, static_cast<float*>(meshx), static_cast<float*>(meshy), 0, mesh_w, mesh_h, step_x, step_y,
                    _remap_init_params.src_width, _remap_init_params.src_height) == 0
               ? 0
               : -1;
}

}  // namespace zqgfx_gpu_avs
