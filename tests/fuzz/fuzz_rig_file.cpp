// The rig file of `zqavs calib`: any text is read into a rig or refused with a message, and an
// accepted rig written back reads as a rig again.
#include <string>

#include "rig.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    zqavs_calib::Rig rig;
    std::string error;
    // Relative intrinsics paths resolve under a directory that does not exist.
    if (!zqavs_calib::parseRig(std::string(reinterpret_cast<const char*>(data), size), "/nonexistent", "rig.json",
                               &rig, &error)) {
        if (error.empty()) __builtin_trap();
        return 0;
    }
    zqavs_calib::Rig again;
    if (!zqavs_calib::parseRig(zqavs_calib::rigToJson(rig), "", "again.json", &again, &error)) __builtin_trap();
    return 0;
}
