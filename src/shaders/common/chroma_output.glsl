// Chroma output: the half-size RG8 target.
out vec4 FragColor;
#include "common/chroma_write.glsl"
