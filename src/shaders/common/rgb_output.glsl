// RGB output through writePlane, for programs shared with the planes.
out vec4 FragColor;
void writePlane(vec3 yuv) { FragColor = vec4(yuvToRgb601Full(yuv), 1.0); }
