// zqavs calib RIG.json -o DIR: the calibration directory of a real rig.
#include <cstdio>

#include "tool_common.h"

namespace zqavs {

int runCalib(const CalibOptions&)
{
    fprintf(stderr, "zqavs calib: not built yet\n");
    return kExitFailure;
}

}  // namespace zqavs
