// zqavs calib intrinsics: a camera model from chessboard photos.
#include <cstdio>

#include "tool_common.h"

namespace zqavs {

int runCalibIntrinsics(const IntrinsicsOptions&)
{
    fprintf(stderr, "zqavs calib intrinsics: not built yet\n");
    return kExitFailure;
}

}  // namespace zqavs
