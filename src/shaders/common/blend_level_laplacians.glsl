// The two Laplacians of a level, each weighted by its side of the alpha map.
    float alpha = texture(texAlpha, outTexCoords).r;
    vec4 laplacA = (texture(texGaussA_n0, outTexCoords) - texture(texGaussA_n1, outTexCoords)) * alpha;
    vec4 laplacB = (texture(texGaussB_n0, outTexCoords) - texture(texGaussB_n1, outTexCoords)) * (1.0 - alpha);
