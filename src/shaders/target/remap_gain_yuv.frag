// remap_yuv.frag with exposure compensation.
#include "common/y2y_gain_head.glsl"
    FragColor = vec4(yuv, 1.0);
}
