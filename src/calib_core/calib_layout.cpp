// File names, layout access and alpha sizes of a calibration directory.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <initializer_list>
#include <set>

#include "avs_calib_core.h"

namespace zqavs_calib_core {

namespace {

// How many blocks of a kind can be visited: the count, cut to what every value array holds.
size_t visitableCount(int count, std::initializer_list<const std::vector<int>*> arrays)
{
    size_t n = count > 0 ? static_cast<size_t>(count) : 0;
    for (const std::vector<int>* values : arrays) n = std::min(n, values->size());
    return n;
}

}  // namespace

std::string format(const char* fmt, ...)
{
    char text[512];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    return text;
}

PSR_INITPARAMS_T emptyLayout(const LayoutSizes& sizes)
{
    PSR_INITPARAMS_T layout;
    layout.camera_num = sizes.cameras;
    layout.image_stride = sizes.src_width;
    layout.output_image_stride = static_cast<uint32_t>((sizes.bld_width + 15) & ~15);
    layout.image_formate = PSR_TYPE_YUV420SP;
    layout.src_width = sizes.src_width;
    layout.src_height = sizes.src_height;
    layout.bld_width = sizes.bld_width;
    layout.bld_height = sizes.bld_height;
    layout.step_x = sizes.step_x;
    layout.step_y = sizes.step_y;
    layout.use_gain = 0;
    layout.gain_step_x = 32;
    layout.gain_step_y = 64;
    layout.useSync = 0;
    const size_t cameras = sizes.cameras > 0 ? static_cast<size_t>(sizes.cameras) : 0;
    layout.image_block_num.assign(cameras, 0);
    layout.nonoverlap_block.resize(cameras);
    layout.overlap_block.resize(cameras);
    return layout;
}

void appendNonoverlapBlock(PSR_NONOVERLAP_BLOCK* block, int startx, int width, const MeshGrid& grid)
{
    block->nonoverlap_num++;
    block->dst_startx.push_back(startx);
    block->dst_width.push_back(width);
    block->mesh_width.push_back(width / grid.step_x + 1);
    block->mesh_height.push_back(grid.height / grid.step_y + 1);
}

void appendOverlapBlock(PSR_OVERLAP_BLOCK* block, int startx, int width, int bands, const MeshGrid& grid)
{
    block->overlap_num++;
    block->band_num.push_back(bands);
    block->dst_startx.push_back(startx);
    block->dst_width.push_back(width);
    block->mesh_width.push_back(width / grid.step_x + 1);
    block->mesh_height.push_back(grid.height / grid.step_y + 1);
    block->alpha_width.push_back(width);
    block->alpha_height.push_back(grid.height);
}

std::string meshFileName(char axis, int camera, int block)
{
    return std::string("zq_ps_gpu_mesh") + axis + std::to_string(camera) + std::to_string(block) + ".bin";
}

std::string alphaFileName(int camera, int next)
{
    return "zq_ps_gpu_alpha" + std::to_string(camera) + std::to_string(next) + ".bin";
}

std::string findFileNameCollision(const PSR_INITPARAMS_T& layout)
{
    // A layout whose names clash cannot be written as files.
    std::set<std::string> meshNames;
    for (int c = 0; c < layout.camera_num; ++c) {
        for (int b = 0; b < layout.image_block_num[c]; ++b) {
            std::string name = meshFileName('x', c, b);
            if (!meshNames.insert(name).second) {
                return "mesh file " + name + " would hold two blocks (camera " + std::to_string(c) + " block " +
                       std::to_string(b) + " clashes with an earlier block)";
            }
        }
    }
    std::set<std::string> alphaNames;
    for (int c = 0; c < layout.camera_num; ++c) {
        std::string name = alphaFileName(c, (c + 1) % layout.camera_num);
        if (!alphaNames.insert(name).second) return "alpha file " + name + " would hold two seams";
    }
    return std::string();
}

std::vector<BlockView> cameraBlocks(const PSR_INITPARAMS_T& layout, int camera)
{
    const zqPSR_NONOVERLAP_BLOCK& n = layout.nonoverlap_block[camera];
    const zqPSR_OVERLAP_BLOCK& o = layout.overlap_block[camera];
    const size_t nonoverlap =
        visitableCount(n.nonoverlap_num, {&n.dst_startx, &n.dst_width, &n.mesh_width, &n.mesh_height});
    const size_t overlap = visitableCount(o.overlap_num, {&o.band_num, &o.dst_startx, &o.dst_width, &o.mesh_width,
                                                          &o.mesh_height, &o.alpha_width, &o.alpha_height});
    std::vector<BlockView> blocks;
    for (size_t b = 0; b < nonoverlap; ++b) {
        BlockView view;
        view.position = static_cast<int>(b);
        view.dst_startx = n.dst_startx[b], view.dst_width = n.dst_width[b];
        view.mesh_width = n.mesh_width[b], view.mesh_height = n.mesh_height[b];
        blocks.push_back(view);
    }
    for (size_t b = 0; b < overlap; ++b) {
        BlockView view;
        view.position = static_cast<int>(nonoverlap + b);
        view.overlap = true;
        view.dst_startx = o.dst_startx[b], view.dst_width = o.dst_width[b];
        view.mesh_width = o.mesh_width[b], view.mesh_height = o.mesh_height[b];
        view.band_num = o.band_num[b], view.alpha_width = o.alpha_width[b], view.alpha_height = o.alpha_height[b];
        blocks.push_back(view);
    }
    return blocks;
}

size_t alphaElementCount(int width, int height, int levels)
{
    const size_t w = width > 0 ? static_cast<size_t>(width) : 0;
    const size_t h = height > 0 ? static_cast<size_t>(height) : 0;
    size_t total = 0;
    // Past 31 levels every size has shifted down to nothing.
    for (int l = 0; l < levels && l < 31; ++l) total += (w >> l) * (h >> l);
    return total;
}

}  // namespace zqavs_calib_core
