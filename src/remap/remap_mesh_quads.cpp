// One quad per block, the mesh interpolated per pixel (see remap_mesh_quads.h).
#include "remap/remap_mesh_quads.h"

#include <vector>

#include "shaders/avs_shader_texts.h"
#include "gl/packed_columns.h"

namespace zqgfx_gpu_avs {

namespace {

// The mesh texture's unit (fixed in the shader text); the camera's planes use units 0 and 1.
constexpr int kMeshUnit = 2;
constexpr GLsizei kQuadVertices = 4;

// A gain matrix without cross terms: one gain for all channels.
bool diagonal(const std::array<GLfloat, 9>& m)
{
    return m[1] == 0 && m[2] == 0 && m[3] == 0 && m[5] == 0 && m[6] == 0 && m[7] == 0;
}

}  // namespace

bool MeshQuadRemap::create(bool filtered)
{
    release();
    filtered_ = filtered;
    for (int p = 0; p < programCount; ++p) {
        if (!build(programs_[p], gMeshFragmentShaders[filtered ? 1 : 0][p])) {
            AVS_LOGE("mesh remap program %d does not build", p);
            release();
            return false;
        }
    }
    // A strip over the viewport: corner in clip space, then the block's own coordinates.
    const GLfloat strip[] = {-1, -1, 0, 0, 1, -1, 1, 0, -1, 1, 0, 1, 1, 1, 1, 1};
    GLuint buffer = 0;
    glGenBuffers(1, &buffer);
    vertices_.reset(buffer);
    glBindBuffer(GL_ARRAY_BUFFER, buffer);
    glBufferData(GL_ARRAY_BUFFER, sizeof(strip), strip, GL_STATIC_DRAW);
    glBindBuffer(GL_ARRAY_BUFFER, 0);
    const int sizes[] = {2, 2};
    quad_ = makeVertexArray(buffer, sizes, 2);
    if (!quad_) release();
    return ready();
}

bool MeshQuadRemap::build(QuadProgram& made, const char* fragmentText)
{
    made.program = makeProgram(gMeshQuadVertexShader, fragmentText);
    if (!made.program) return false;
    made.packedColumns = glGetUniformLocation(made.program.get(), "packedColumns");
    made.yuvGain = glGetUniformLocation(made.program.get(), "yuvGain");
    return true;
}

bool MeshQuadRemap::createGainPrograms()
{
    const int f = filtered_ ? 1 : 0;
    for (int kind = 0; kind < 2; ++kind) {
        for (int p = 0; p < (kind == 0 ? programCount : rgbProgram); ++p) {
            QuadProgram& program = gainPrograms_[kind][p];
            if (program.program) continue;
            if (!build(program, kind == 0 ? gMeshGainFragmentShaders[f][p] : gMeshScalarGainFragmentShaders[f][p])) {
                AVS_LOGE("mesh remap program %d with exposure compensation does not build", p);
                return false;
            }
        }
    }
    return true;
}

void MeshQuadRemap::release()
{
    for (auto& kind : gainPrograms_)
        for (QuadProgram& program : kind) program = QuadProgram{};
    meshes_.clear();
    quad_.reset();
    vertices_.reset();
    for (QuadProgram& program : programs_) program = QuadProgram{};
}

bool MeshQuadRemap::storeMesh(int index, const float* meshx, const float* meshy, int mesh_w, int mesh_h, int src_w,
                              int src_h)
{
    meshes_.erase(index);
    if (meshx == nullptr || meshy == nullptr || mesh_w < 1 || mesh_h < 1 || src_w <= 0 || src_h <= 0) return false;
    // The same normalisation as the strips' texture coordinates: the sample at the pixel's centre.
    std::vector<GLfloat> nodes(static_cast<size_t>(mesh_w) * static_cast<size_t>(mesh_h) * 2);
    for (size_t i = 0; i < nodes.size() / 2; ++i) {
        nodes[2 * i] = static_cast<GLfloat>((static_cast<double>(meshx[i]) + 0.5) / src_w);
        nodes[2 * i + 1] = static_cast<GLfloat>((static_cast<double>(meshy[i]) + 0.5) / src_h);
    }
    Mesh mesh;
    mesh.texture = makeTexture(GL_RG32F, mesh_w, mesh_h, filtered_);
    if (!mesh.texture) return false;
    glBindTexture(GL_TEXTURE_2D, mesh.texture.get());
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, mesh_w, mesh_h, GL_RG, GL_FLOAT, nodes.data());
    glBindTexture(GL_TEXTURE_2D, 0);
    if (!checkGlError("glTexSubImage2D")) return false;
    mesh.width = mesh_w;
    mesh.height = mesh_h;
    meshes_[index] = std::move(mesh);
    return true;
}

bool MeshQuadRemap::draw(Program program, int index, GLuint framebuffer, int pack, int x, int y, int w, int h,
                         FrameCounters& counters, const std::array<GLfloat, 9>* yuvGain)
{
    const auto found = meshes_.find(index);
    if (found == meshes_.end()) {
        AVS_LOGE("no mesh texture for index=%d", index);
        return false;
    }
    if (found->second.width < 2 || found->second.height < 2) return true;
    // A diagonal matrix spares the luma and chroma programs the other plane's samples.
    const int kind = yuvGain != nullptr && program != rgbProgram && diagonal(*yuvGain) ? 1 : 0;
    const QuadProgram& used =
        yuvGain != nullptr && gainPrograms_[kind][program].program ? gainPrograms_[kind][program] : programs_[program];
    glUseProgram(used.program.get());
    if (&used != &programs_[program]) glUniformMatrix3fv(used.yuvGain, 1, GL_FALSE, yuvGain->data());
    glActiveTexture(GL_TEXTURE0 + kMeshUnit);
    glBindTexture(GL_TEXTURE_2D, found->second.texture.get());
    glActiveTexture(GL_TEXTURE0);
    glBindVertexArray(quad_.get());
    drawPackedColumns(framebuffer, pack, x, y, w, h, used.packedColumns, GL_TRIANGLE_STRIP, kQuadVertices, counters,
                      [] { glDrawArrays(GL_TRIANGLE_STRIP, 0, kQuadVertices); });
    glBindVertexArray(0);
    return checkGlError("glDrawArrays");
}

}  // namespace zqgfx_gpu_avs
