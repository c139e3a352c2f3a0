// Chroma, two CbCr pairs a texel.
out vec4 FragColor;
void main()
{
    FragColor = vec4(@SAMPLE@(sourceCoords(pixelLocal(-0.5))), @SAMPLE@(sourceCoords(pixelLocal(0.5))));
}
