// The plane paths' blend: the shared pyramid atlases of all seams and their passes.
#include "blend/seam_atlas.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "shaders/avs_shader_texts.h"
#include "blend/gles_multiband_blend.h"
#include "gl/packed_columns.h"

namespace zqgfx_gpu_avs {

namespace {

// Float weights rounded to the bytes a U8 map of the same weights holds (0 to 255 for 0 to 1,
// rows padded to 4 bytes as GL unpacks them). The pyramid levels are 8-bit: a weight finer than a
// byte moves a blended value by under half a code yet flips its rounding, and such one-code flips
// add up from level to level (kept as floats, a float map's panorama came out 2 luma codes from its
// U8 twin's on arm64's llvmpipe).
std::vector<uint8_t> alphaBytesOfFloats(const void* floats, int w, int h)
{
    const size_t stride = (static_cast<size_t>(w) + 3) & ~size_t{3};
    std::vector<uint8_t> bytes(stride * static_cast<size_t>(h), 0);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            float weight;  // the caller's floats need not be aligned
            memcpy(&weight, static_cast<const uint8_t*>(floats) + (static_cast<size_t>(y) * w + x) * sizeof weight,
                   sizeof weight);
            // Out-of-range weights clamp; NaN weighs nothing.
            bytes[y * stride + x] =
                weight > 0.0f ? static_cast<uint8_t>(std::lround(std::min(weight, 1.0f) * 255.0)) : 0;
        }
    return bytes;
}

int atLeastOne(int size)
{
    return std::max(size, 1);
}

// Floats of one vertex: corner (2), local coordinates (2), six rectangles (4 each).
constexpr int kRectsPerVertex = 6;
constexpr int kVertexFloats = 4 + 4 * kRectsPerVertex;
constexpr int kQuadVertices = 6;

// The rectangles a quad reads; unused ones stay empty.
struct QuadReads {
    AtlasRect rect[kRectsPerVertex];
};

// Appends two triangles covering `target` of a `w` x `h` framebuffer (the whole viewport when
// `target` is null), each vertex with the quad's reads.
void appendQuad(std::vector<GLfloat>& out, const AtlasRect* target, int w, int h, const QuadReads& reads)
{
    float x0 = -1.0f, y0 = -1.0f, x1 = 1.0f, y1 = 1.0f;
    if (target != nullptr) {
        x0 = 2.0f * static_cast<float>(target->x) / static_cast<float>(w) - 1.0f;
        x1 = 2.0f * static_cast<float>(target->x + target->w) / static_cast<float>(w) - 1.0f;
        y0 = 2.0f * static_cast<float>(target->y) / static_cast<float>(h) - 1.0f;
        y1 = 2.0f * static_cast<float>(target->y + target->h) / static_cast<float>(h) - 1.0f;
    }
    const float corners[kQuadVertices][2] = {{0, 0}, {1, 0}, {0, 1}, {0, 1}, {1, 0}, {1, 1}};
    for (const auto& c : corners) {
        out.push_back(c[0] != 0 ? x1 : x0);
        out.push_back(c[1] != 0 ? y1 : y0);
        out.push_back(c[0]);
        out.push_back(c[1]);
        for (const AtlasRect& r : reads.rect) {
            out.push_back(static_cast<float>(r.x));
            out.push_back(static_cast<float>(r.y));
            out.push_back(static_cast<float>(r.w));
            out.push_back(static_cast<float>(r.h));
        }
    }
}

long long areaOf(const AtlasRect& r)
{
    return static_cast<long long>(r.w) * r.h;
}

void drawRun(GLuint framebuffer, GLuint program, int first, int vertices, long long pixels, FrameCounters& counters)
{
    glUseProgram(program);
    glDrawArrays(GL_TRIANGLES, first, vertices);
    counters.draw(framebuffer, GL_TRIANGLES, vertices, pixels);
}

}  // namespace

// ---- layout ----------------------------------------------------------------------------------

bool SeamAtlasLayout::plan(const std::vector<SeamShape>& seams, int maxSize, std::string* why)
{
    seams_ = seams;
    int levelCount = 0;
    for (const SeamShape& s : seams) levelCount = std::max(levelCount, s.levels);
    levelSize_.assign(static_cast<size_t>(levelCount), AtlasRect{});
    cells_.assign(static_cast<size_t>(levelCount), std::vector<AtlasRect>(seams.size()));
    for (int l = 0; l < levelCount; ++l) {
        int x = 0, y = 0, shelf = 0, width = 0;
        for (size_t s = 0; s < seams.size(); ++s) {
            const SeamShape& seam = seams[s];
            if (seam.levels <= l) continue;
            int w = pyramidLevelSize(seam.width, l), h = pyramidLevelSize(seam.height, l);
            if (l == 0) {
                w = std::max({w, seam.sideWidth[0], seam.sideWidth[1]});
                h = std::max({h, seam.sideHeight[0], seam.sideHeight[1]});
            }
            w = atLeastOne(w);
            h = atLeastOne(h);
            if (x > 0 && x + w > maxSize) {  // a new shelf
                y += shelf;
                x = shelf = 0;
            }
            cells_[l][s] = AtlasRect{x, y, w, h};
            x += w;
            shelf = std::max(shelf, h);
            width = std::max(width, x);
        }
        levelSize_[l] = AtlasRect{0, 0, width, y + shelf};
        if (width > maxSize || 2 * (y + shelf) > maxSize) {
            if (why != nullptr)
                *why = "pyramid level " + std::to_string(l) + " of the seams needs " + std::to_string(width) + "x" +
                       std::to_string(2 * (y + shelf)) + " pixels, the texture limit is " + std::to_string(maxSize);
            return false;
        }
    }
    return true;
}

AtlasRect SeamAtlasLayout::sideRect(int s, Side side, int level) const
{
    const SeamShape& seam = seams_[s];
    const AtlasRect& cell = cells_[level][s];
    const int w = level == 0 ? seam.sideWidth[side] : pyramidLevelSize(seam.width, level);
    const int h = level == 0 ? seam.sideHeight[side] : pyramidLevelSize(seam.height, level);
    return {cell.x, cell.y + (side == sideB ? gridHeight(level) : 0), atLeastOne(w), atLeastOne(h)};
}

AtlasRect SeamAtlasLayout::cellRect(int s, int level) const
{
    const SeamShape& seam = seams_[s];
    const AtlasRect& cell = cells_[level][s];
    return {cell.x, cell.y, atLeastOne(pyramidLevelSize(seam.width, level)),
            atLeastOne(pyramidLevelSize(seam.height, level))};
}

// ---- GL objects ------------------------------------------------------------------------------

bool SeamAtlas::create(const SeamAtlasLayout& layout, bool floatAlpha)
{
    release();
    layout_ = layout;
    floatAlpha_ = floatAlpha;
    levels_.resize(static_cast<size_t>(layout_.levels()));
    for (int l = 0; l < layout_.levels(); ++l) {
        if (!createLevel(l)) {
            AVS_LOGE("seam atlas level %d (%dx%d) cannot be made", l, layout_.gridWidth(l), layout_.gridHeight(l));
            release();
            return false;
        }
    }
    if (!createPrograms() || !createGeometry()) {
        release();
        return false;
    }
    return true;
}

int SeamAtlasLayout::measuredLevel() const
{
    constexpr int kCoarsest = 3;  // 8 x 8 pixels of the overlap per sample
    int level = kCoarsest;
    for (const SeamShape& seam : seams_) level = std::min(level, seam.levels - 1);
    return std::max(level, 0);
}

bool SeamAtlas::createLevel(int l)
{
    Level& level = levels_[static_cast<size_t>(l)];
    const int w = layout_.gridWidth(l), h = layout_.gridHeight(l);
    level.gauss = makeTexture(GL_RGBA8, w, 2 * h, true);
    level.alpha = makeTexture(GL_R8, w, h, false);
    if (!level.gauss || !level.alpha) return false;
    level.gaussFbo = makeFramebuffer(level.gauss.get());
    if (!level.gaussFbo) return false;
    if (l == 0) return true;  // level 0's result goes straight into the output
    level.result = makeTexture(GL_RGBA8, w, h, true);
    if (!level.result) return false;
    level.resultFbo = makeFramebuffer(level.result.get());
    return static_cast<bool>(level.resultFbo);
}

bool SeamAtlas::createPrograms()
{
    for (int p = 0; p < programCount; ++p) {
        // The output planes' programs draw packed texels.
        const bool output = p >= lumaProgram;
        programs_[p] = makeProgram(output ? gSeamAtlasOutputVertexShader : gSeamAtlasVertexShader,
                                   gSeamAtlasFragmentShaders[p]);
        if (!programs_[p]) {
            AVS_LOGE("seam atlas program %d does not build", p);
            return false;
        }
        if (output) packedColumns_[p] = glGetUniformLocation(programs_[p].get(), "packedColumns");
    }
    return true;
}

// Every pass's quads, made once: the layout does not change until the blend is set up again.
bool SeamAtlas::createGeometry()
{
    const SeamAtlasLayout& L = layout_;
    std::vector<GLfloat> data;
    auto vertexCount = [&] { return static_cast<int>(data.size() / kVertexFloats); };
    using Side = SeamAtlasLayout::Side;

    reduceRuns_.assign(static_cast<size_t>(L.levels()), {});
    collapseRuns_.assign(static_cast<size_t>(L.levels()), {});
    for (int l = 1; l < L.levels(); ++l) {
        Run run{programs_[reduceProgram].get(), vertexCount(), 0, 0};
        for (int s = 0; s < L.seamCount(); ++s) {
            if (L.seam(s).levels <= l) continue;
            for (Side side : {SeamAtlasLayout::sideA, SeamAtlasLayout::sideB}) {
                QuadReads reads{};
                reads.rect[0] = L.sideRect(s, side, l - 1);
                const AtlasRect target = L.sideRect(s, side, l);
                appendQuad(data, &target, L.gridWidth(l), 2 * L.gridHeight(l), reads);
                run.pixels += areaOf(target);
            }
        }
        run.vertices = vertexCount() - run.first;
        reduceRuns_[l].push_back(run);
    }

    // The reads of seam s's level l; the coarser level's only where there is one.
    auto levelReads = [&](int s, int l) {
        QuadReads reads{};
        reads.rect[0] = L.sideRect(s, SeamAtlasLayout::sideA, l);
        reads.rect[1] = L.sideRect(s, SeamAtlasLayout::sideB, l);
        if (l + 1 < L.seam(s).levels) {
            reads.rect[2] = L.sideRect(s, SeamAtlasLayout::sideA, l + 1);
            reads.rect[3] = L.sideRect(s, SeamAtlasLayout::sideB, l + 1);
            reads.rect[4] = L.cellRect(s, l + 1);
        }
        reads.rect[5] = L.cellRect(s, l);
        return reads;
    };
    for (int l = L.levels() - 1; l >= 1; --l) {
        for (bool lowest : {true, false}) {
            Run run{programs_[lowest ? lowestProgram : collapseProgram].get(), vertexCount(), 0, 0};
            for (int s = 0; s < L.seamCount(); ++s) {
                if (L.seam(s).levels <= l || (L.seam(s).levels - 1 == l) != lowest) continue;
                const AtlasRect target = L.cellRect(s, l);
                appendQuad(data, &target, L.gridWidth(l), L.gridHeight(l), levelReads(s, l));
                run.pixels += areaOf(target);
            }
            run.vertices = vertexCount() - run.first;
            if (run.vertices > 0) collapseRuns_[l].push_back(run);
        }
    }
    outputFirst_.clear();
    for (int s = 0; s < L.seamCount(); ++s) {
        outputFirst_.push_back(vertexCount());
        appendQuad(data, nullptr, 1, 1, levelReads(s, 0));
    }

    GLuint buffer = 0;
    glGenBuffers(1, &buffer);
    vertices_.reset(buffer);
    glBindBuffer(GL_ARRAY_BUFFER, buffer);
    glBufferData(GL_ARRAY_BUFFER, static_cast<GLsizeiptr>(data.size() * sizeof(GLfloat)), data.data(),
                 GL_STATIC_DRAW);
    glBindBuffer(GL_ARRAY_BUFFER, 0);
    if (!checkGlError("glBufferData")) return false;
    const int sizes[] = {2, 2, 4, 4, 4, 4, 4, 4};
    vertexArray_ = makeVertexArray(buffer, sizes, 8);
    return static_cast<bool>(vertexArray_);
}

void SeamAtlas::release()
{
    levels_.clear();
    for (GlProgram& program : programs_) program.reset();
    vertexArray_.reset();
    vertices_.reset();
    reduceRuns_.clear();
    collapseRuns_.clear();
    outputFirst_.clear();
}

int SeamAtlas::seamOfCamera(int camera) const
{
    for (int s = 0; s < layout_.seamCount(); ++s)
        if (layout_.seam(s).camera == camera) return s;
    return -1;
}

bool SeamAtlas::uploadAlpha(int s, int level, int w, int h, const void* pixels)
{
    if (s < 0 || s >= layout_.seamCount() || level < 0 || level >= static_cast<int>(levels_.size())) return false;
    const AtlasRect cell = layout_.cellRect(s, level);
    if (w > cell.w || h > cell.h) {
        AVS_LOGE("alpha level %d of seam %d (%dx%d) exceeds its atlas cell", level, s, w, h);
        return false;
    }
    std::vector<uint8_t> bytes;
    if (floatAlpha_) {
        bytes = alphaBytesOfFloats(pixels, w, h);
        pixels = bytes.data();
    }
    glBindTexture(GL_TEXTURE_2D, levels_[static_cast<size_t>(level)].alpha.get());
    glTexSubImage2D(GL_TEXTURE_2D, 0, cell.x, cell.y, w, h, GL_RED, GL_UNSIGNED_BYTE, pixels);
    const bool uploaded = checkGlError("glTexSubImage2D");
    glBindTexture(GL_TEXTURE_2D, 0);
    return uploaded;
}

// ---- passes ----------------------------------------------------------------------------------

// Units 0 to 3: the level's Gaussian atlas, the next coarser one, the coarser result, the alpha.
void SeamAtlas::bindLevelInputs(int level) const
{
    const size_t l = static_cast<size_t>(level);
    const bool coarser = l + 1 < levels_.size();
    const GLuint textures[] = {levels_[l].gauss.get(), coarser ? levels_[l + 1].gauss.get() : 0,
                               coarser ? levels_[l + 1].result.get() : 0, levels_[l].alpha.get()};
    for (int unit = 0; unit < 4; ++unit) {
        glActiveTexture(static_cast<GLenum>(GL_TEXTURE0 + unit));
        glBindTexture(GL_TEXTURE_2D, textures[unit]);
    }
    glActiveTexture(GL_TEXTURE0);
}

int SeamAtlas::reduce(FrameCounters& counters)
{
    glBindVertexArray(vertexArray_.get());
    for (size_t l = 1; l < levels_.size(); ++l) {
        const GLuint fbo = levels_[l].gaussFbo.get();
        glBindFramebuffer(GL_FRAMEBUFFER, fbo);
        glViewport(0, 0, layout_.gridWidth(static_cast<int>(l)), 2 * layout_.gridHeight(static_cast<int>(l)));
        glActiveTexture(GL_TEXTURE0);
        glBindTexture(GL_TEXTURE_2D, levels_[l - 1].gauss.get());
        for (const Run& run : reduceRuns_[l]) drawRun(fbo, run.program, run.first, run.vertices, run.pixels, counters);
    }
    glBindVertexArray(0);
    return checkGlError("glDrawArrays") ? 0 : -1;
}

int SeamAtlas::collapse(FrameCounters& counters)
{
    glBindVertexArray(vertexArray_.get());
    for (int l = static_cast<int>(levels_.size()) - 1; l >= 1; --l) {
        const GLuint fbo = levels_[static_cast<size_t>(l)].resultFbo.get();
        glBindFramebuffer(GL_FRAMEBUFFER, fbo);
        glViewport(0, 0, layout_.gridWidth(l), layout_.gridHeight(l));
        bindLevelInputs(l);
        for (const Run& run : collapseRuns_[static_cast<size_t>(l)])
            drawRun(fbo, run.program, run.first, run.vertices, run.pixels, counters);
    }
    glBindVertexArray(0);
    return checkGlError("glDrawArrays") ? 0 : -1;
}

SeamAtlas::Program SeamAtlas::outputProgram(int s, const OutputPlane& plane) const
{
    const bool chroma = plane.plane == 1;
    if (layout_.seam(s).levels == 1) return chroma ? lowestChromaProgram : lowestLumaProgram;
    return chroma ? chromaProgram : lumaProgram;
}

int SeamAtlas::blendIntoPlane(const OutputPlane& plane, const std::vector<Window>& windows, FrameCounters& counters)
{
    if (levels_.empty()) return 0;
    glBindVertexArray(vertexArray_.get());
    bindLevelInputs(0);
    for (int s = 0; s < layout_.seamCount(); ++s) {
        const int camera = layout_.seam(s).camera;
        if (camera < 0 || camera >= static_cast<int>(windows.size())) continue;
        const Window& window = windows[static_cast<size_t>(camera)];
        const PlaneRect r = onPlane(plane, window.startx, 0, window.width, window.height);
        const Program program = outputProgram(s, plane);
        glUseProgram(programs_[program].get());
        drawPackedColumns(plane.fbo, plane.pack, r.x, r.y, r.w, r.h, packedColumns_[program], GL_TRIANGLES,
                          kQuadVertices, counters, [&] {
                              glDrawArrays(GL_TRIANGLES, outputFirst_[static_cast<size_t>(s)], kQuadVertices);
                          });
    }
    glBindVertexArray(0);
    return checkGlError("glDrawArrays") ? 0 : -1;
}

}  // namespace zqgfx_gpu_avs
