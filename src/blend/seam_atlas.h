// The blend of the plane paths: every blended seam of a frame shares one set of targets per
// pyramid level, so that each Gaussian level is one render pass for all seams and both sides,
// each collapse level one more, and the finest level goes into the output's planes in the same
// passes as the non-overlap blocks. Pass counts then depend on the levels, not on the seams.
//
// Per level l the seams are cells on shelves (left to right, a new shelf where the texture limit
// would be passed). The Gaussian atlas holds two rows of shelves, side A above side B; the result
// and alpha atlases one. Every read clamps to its own rectangle, as an edge-clamped texture of
// the rectangle's size would, so no filter ever reaches a neighbour.
#ifndef ZQGFX_AVS_SEAM_ATLAS_H
#define ZQGFX_AVS_SEAM_ATLAS_H

#include <string>
#include <vector>

#include "gl/common_resource.h"
#include "gl/frame_counters.h"
#include "gl/gl_owners.h"

namespace zqgfx_gpu_avs {

struct AtlasRect {
    int x = 0, y = 0, w = 0, h = 0;
};

// What the atlas needs of one blended seam.
struct SeamShape {
    int camera;      // the seam joins this camera and the next
    int levels;      // pyramid levels, at least 1
    int sideWidth[2];   // level 0 of side A (camera's last overlap block) and side B, in pixels
    int sideHeight[2];
    int width;       // the pyramid's base size: level l >= 1 is width / 2^l x height / 2^l,
    int height;      // and so is every alpha level
};

// Where every rectangle of every level lies (CPU only).
class SeamAtlasLayout {
public:
    enum Side { sideA = 0, sideB = 1 };

    // False, with the reason in *why, when a level does not fit `maxSize` pixels per side.
    bool plan(const std::vector<SeamShape>& seams, int maxSize, std::string* why);

    int seamCount() const { return static_cast<int>(seams_.size()); }
    const SeamShape& seam(int s) const { return seams_[s]; }
    int levels() const { return static_cast<int>(levelSize_.size()); }
    // Size of level l's cell grid; the Gaussian atlas of that level is twice as high.
    int gridWidth(int level) const { return levelSize_[level].w; }
    int gridHeight(int level) const { return levelSize_[level].h; }
    // Seam s's side in the Gaussian atlas, its result and its alpha in theirs.
    AtlasRect sideRect(int s, Side side, int level) const;
    AtlasRect cellRect(int s, int level) const;
    // The level the exposure is measured on: coarse enough to average noise and detail away,
    // held by every seam.
    int measuredLevel() const;

private:
    std::vector<SeamShape> seams_;
    std::vector<AtlasRect> levelSize_;            // w, h of each level's grid
    std::vector<std::vector<AtlasRect>> cells_;   // [level][seam]: origin and cell size
};

class SeamAtlas {
public:
    // Textures, framebuffers, programs and pass geometry for `layout`; false (nothing kept) when
    // any of them cannot be made. `floatAlpha`: the maps' levels are 32-bit floats, else bytes;
    // the atlas holds both as bytes.
    bool create(const SeamAtlasLayout& layout, bool floatAlpha);
    void release();

    const SeamAtlasLayout& layout() const { return layout_; }
    // Seam index of the seam that starts at `camera`, -1 for none.
    int seamOfCamera(int camera) const;
    // Level 0 of the Gaussian atlas: the remap draws both sides of every seam into it.
    GLuint finestFramebuffer() const { return levels_.empty() ? 0 : levels_[0].gaussFbo.get(); }
    // Gaussian level `level` of both sides of every seam; 0 when there is no such level.
    GLuint gaussFramebuffer(int level) const
    {
        return level >= 0 && level < static_cast<int>(levels_.size()) ? levels_[level].gaussFbo.get() : 0;
    }

    // Alpha level `level` of seam s, w x h elements from `pixels` (rows as GL unpacks them).
    bool uploadAlpha(int s, int level, int w, int h, const void* pixels);

    // The Gaussian pyramids, levels 1 and up: one pass a level. 0 or -1.
    int reduce(FrameCounters& counters);
    // The blended Laplacian pyramid from the coarsest level up to level 1: one pass a level.
    int collapse(FrameCounters& counters);
    // Level 0 of every seam into `plane` (bound by the caller), converted to YUV, each seam scaled
    // into its window: the columns [startx, startx + width) and rows [0, height) of the output.
    struct Window {
        int startx, width, height;
    };
    int blendIntoPlane(const OutputPlane& plane, const std::vector<Window>& windows, FrameCounters& counters);

private:
    struct Level {
        GlTexture gauss, result, alpha;
        GlFramebuffer gaussFbo, resultFbo;
    };
    // A run of quads of the pass geometry, drawn with one program.
    struct Run {
        GLuint program;
        int first, vertices;
        long long pixels;
    };
    enum Program { reduceProgram, lowestProgram, collapseProgram, lumaProgram, chromaProgram,
                   lowestLumaProgram, lowestChromaProgram, programCount };

    bool createLevel(int l);
    bool createPrograms();
    bool createGeometry();
    void bindLevelInputs(int level) const;
    Program outputProgram(int s, const OutputPlane& plane) const;

    SeamAtlasLayout layout_;
    std::vector<Level> levels_;
    GlProgram programs_[programCount];
    GLint packedColumns_[programCount] = {};  // the output programs' uniform
    GlBuffer vertices_;
    GlVertexArray vertexArray_;
    bool floatAlpha_ = false;
    std::vector<std::vector<Run>> reduceRuns_;     // [level]
    std::vector<std::vector<Run>> collapseRuns_;   // [level]
    std::vector<int> outputFirst_;                 // [seam]: its full-viewport quad
};

}  // namespace zqgfx_gpu_avs

#endif  // ZQGFX_AVS_SEAM_ATLAS_H
