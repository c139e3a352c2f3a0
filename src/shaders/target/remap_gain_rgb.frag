// remap_rgb.frag with exposure compensation.
#include "common/y2y_gain_head.glsl"
    FragColor = vec4(yuv_2_rgb(yuv, itu_601_full_range), 1.0);
}
