// Blend planning: which camera's seam is blended, from which overlap block, and why.
#include "avs_calib_core.h"

namespace zqavs_calib_core {

namespace {

int overlapCount(const PSR_INITPARAMS_T& layout, int camera)
{
    return layout.overlap_block[camera].overlap_num;
}

int overlapStart(const PSR_INITPARAMS_T& layout, int camera, int block)
{
    return layout.overlap_block[camera].dst_startx[block];
}

// The seam takes the strip of overlap block `block` of camera `source`.
void takeBlock(const PSR_INITPARAMS_T& layout, int source, int block, SeamPlan* plan)
{
    const zqPSR_OVERLAP_BLOCK& overlap = layout.overlap_block[source];
    plan->blended = true;
    plan->sourceCamera = source;
    plan->sourceBlock = block;
    plan->startx = overlap.dst_startx[block];
    plan->width = overlap.alpha_width[block];
    plan->height = overlap.alpha_height[block];
    plan->levels = overlap.band_num[block] + 1;  // one level more than the layout gives
}

// Two cameras pair their blocks by count alone, without comparing columns.
std::vector<SeamPlan> planTwoCameras(const PSR_INITPARAMS_T& layout)
{
    const int p = overlapCount(layout, 0), q = overlapCount(layout, 1);
    SeamPlan first, second;
    first.camera = 0, first.neighbour = 1, second.camera = 1, second.neighbour = 0;
    if (p == 1 && q == 1) {
        takeBlock(layout, 0, 0, &first);
        first.reason = "two cameras with one overlap block each: blended from camera 0's own block";
        second.reason = "two cameras with one overlap block each: only camera 0 is blended";
    } else if (p == 2 && q == 2) {
        takeBlock(layout, 1, 0, &first);
        takeBlock(layout, 1, 1, &second);
        first.reason = second.reason = "two cameras with two overlap blocks each: both seams blended";
    } else {
        first.reason = second.reason =
            format("two cameras with %d and %d overlap blocks: only 1 + 1 or 2 + 2 are blended", p, q);
    }
    return {first, second};
}

// One camera against its right-hand neighbour by start columns. Only the neighbour's first two
// blocks are looked at, its second one only when it has exactly two; the first match wins.
SeamPlan planRingCamera(const PSR_INITPARAMS_T& layout, int cameras, int c)
{
    SeamPlan plan;
    plan.camera = c;
    plan.neighbour = c + 1 < cameras ? c + 1 : 0;
    const int p = overlapCount(layout, c), q = overlapCount(layout, plan.neighbour);
    if (p <= 0 || q <= 0) {
        plan.reason = format("camera %d has %d overlap blocks and camera %d has %d: nothing to blend", c, p,
                             plan.neighbour, q);
        return plan;
    }
    if (p >= 3) {
        plan.reason = format("camera %d has %d overlap blocks: cameras with more than two are never blended", c, p);
        return plan;
    }
    const int candidates = q == 2 ? 2 : 1;
    for (int k = 0; k < candidates; ++k)
        for (int own = 0; own < p; ++own)
            if (overlapStart(layout, c, own) == overlapStart(layout, plan.neighbour, k)) {
                takeBlock(layout, plan.neighbour, k, &plan);
                plan.reason = format("its overlap block %d starts at column %d like overlap block %d of camera %d",
                                     own, overlapStart(layout, c, own), k, plan.neighbour);
                return plan;
            }
    plan.reason = format("no overlap block starts in the same column as %s of camera %d",
                         candidates == 2 ? "overlap blocks 0 or 1" : "overlap block 0", plan.neighbour);
    return plan;
}

}  // namespace

std::vector<SeamPlan> planSeams(const PSR_INITPARAMS_T& layout, int cameras)
{
    if (cameras == 2) return planTwoCameras(layout);
    std::vector<SeamPlan> plans;
    for (int c = 0; c < cameras; ++c) plans.push_back(planRingCamera(layout, cameras, c));
    return plans;
}

}  // namespace zqavs_calib_core
