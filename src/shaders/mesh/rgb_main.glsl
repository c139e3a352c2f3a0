// RGB, one pixel a fragment, for the seam atlas that the blend reads.
out vec4 FragColor;
void main()
{
    FragColor = vec4(yuvToRgb601Full(@SAMPLE@(sourceCoords(vLocal))), 1.0);
}
