// The chroma half of luma_write.glsl.
void writePlane(vec3 yuv) { FragColor = vec4(yuv.yz, 0.0, 1.0); }
