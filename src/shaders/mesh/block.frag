// A block's program: SAMPLING reads the camera at a source position, MESH_SOURCE gives the
// positions, MAIN writes a packed plane's texel (or an RGB pixel).
#version 310 es 
precision highp float;
#include "@SAMPLING@"
#include "common/packed_columns_fragment.glsl"
#include "@MESH_SOURCE@"
#include "@MAIN@"
