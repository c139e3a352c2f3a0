// One Laplacian level: the _n1 textures are half size, so sampling them bilinearly at the same
// normalised coordinate is the pyramid's expand step.
uniform sampler2D texGaussA_n0;
uniform sampler2D texGaussB_n0;
uniform sampler2D texGaussA_n1;
uniform sampler2D texGaussB_n1;
uniform sampler2D texResult_n1;
uniform sampler2D texAlpha;
in vec2 outTexCoords;
out vec4 FragColor;
