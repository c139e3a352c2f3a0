// The programs that write the output come in two: one for the R8 luma target, one for the
// half-size RG8 chroma target, whose pixel centres fall on the centres of 2 x 2 luma blocks.
void writePlane(vec3 yuv) { FragColor = vec4(yuv.x, 0.0, 0.0, 1.0); }
