// BT.601 full range (JFIF) on normalised values, chroma centred on 128/255: the arithmetic of the
// yuv_2_rgb / rgb_2_yuv built-ins with itu_601_full_range. Every text that converts includes this
// one definition.
const float kChromaOffset = 128.0 / 255.0;
vec3 rgbToYuv601Full(vec3 rgb)
{
    return vec3(dot(rgb, vec3(0.299, 0.587, 0.114)),
                dot(rgb, vec3(-0.168736, -0.331264, 0.5)) + kChromaOffset,
                dot(rgb, vec3(0.5, -0.418688, -0.081312)) + kChromaOffset);
}
vec3 yuvToRgb601Full(vec3 yuv)
{
    float cb = yuv.y - kChromaOffset;
    float cr = yuv.z - kChromaOffset;
    return vec3(yuv.x + 1.402 * cr, yuv.x - 0.344136 * cb - 0.714136 * cr, yuv.x + 1.772 * cb);
}
