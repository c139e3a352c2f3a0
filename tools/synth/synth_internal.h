// Pieces shared between the generator's source files.
#ifndef ZQAVS_SYNTH_INTERNAL_H
#define ZQAVS_SYNTH_INTERNAL_H

#include <string>

#include "zqavs_synth.h"

namespace zqavs_synth {

// An empty string when every camera of the layout can see its blocks.
std::string validateGeometry(const RigConfig& rig, const PSR_INITPARAMS_T& layout);

}  // namespace zqavs_synth

#endif  // ZQAVS_SYNTH_INTERNAL_H
