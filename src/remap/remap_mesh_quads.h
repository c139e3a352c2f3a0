// The plane paths' remap: one quad per block, its mesh held in a texture and interpolated per
// pixel, bilinear in the four nodes around it. A rasteriser then pays per pixel, not per mesh
// triangle, and a denser mesh costs texture memory only.
#ifndef ZQGFX_AVS_REMAP_MESH_QUADS_H
#define ZQGFX_AVS_REMAP_MESH_QUADS_H

#include <array>
#include <map>

#include "gl/common_resource.h"
#include "gl/frame_counters.h"
#include "gl/gl_owners.h"

namespace zqgfx_gpu_avs {

class MeshQuadRemap {
public:
    enum Program { lumaProgram, chromaProgram, rgbProgram, programCount };

    // Programs and the quad; false (nothing kept) when they cannot be made. `filtered`: the driver
    // filters float textures (GL_OES_texture_float_linear), so one fetch interpolates the mesh.
    bool create(bool filtered);
    void release();
    bool ready() const { return static_cast<bool>(quad_); }

    // The mesh of block `index` (mesh_w x mesh_h nodes of source pixels) as normalised source
    // positions, replacing any earlier one. False when the texture cannot be made.
    bool storeMesh(int index, const float* meshx, const float* meshy, int mesh_w, int mesh_h, int src_w, int src_h);
    bool hasMesh(int index) const { return meshes_.count(index) != 0; }

    // Draws block `index` with `program` into the pixels (x, y, w, h) of the bound `framebuffer`,
    // whose texels hold `pack` pixels of a row (the luma and chroma programs write 4 and 2, the
    // RGB one 1); the camera's textures are bound by the caller. A mesh of fewer than 2 x 2 nodes
    // covers nothing and draws nothing. False on a GL error.
    // `yuvGain`: the camera's exposure compensation (see yuvGainMatrix), or null for none.
    bool draw(Program program, int index, GLuint framebuffer, int pack, int x, int y, int w, int h,
              FrameCounters& counters, const std::array<GLfloat, 9>* yuvGain = nullptr);
    // The programs that apply a gain matrix, made on first call; false when they cannot be made.
    bool createGainPrograms();

private:
    struct Mesh {
        GlTexture texture;
        int width = 0, height = 0;
    };
    // A program and its uniforms' locations.
    struct QuadProgram {
        GlProgram program;
        GLint packedColumns = -1;
        GLint yuvGain = -1;
    };
    bool build(QuadProgram& made, const char* fragmentText);

    QuadProgram programs_[programCount];
    // [0]: any gain matrix; [1]: luma and chroma for a diagonal one.
    QuadProgram gainPrograms_[2][programCount];
    GlBuffer vertices_;
    GlVertexArray quad_;
    std::map<int, Mesh> meshes_;
    bool filtered_ = false;
};

}  // namespace zqgfx_gpu_avs

#endif  // ZQGFX_AVS_REMAP_MESH_QUADS_H
