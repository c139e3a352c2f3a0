// Luma output: the R8 target.
out vec4 FragColor;
#include "common/luma_write.glsl"
