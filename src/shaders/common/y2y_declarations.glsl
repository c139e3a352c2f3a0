// The opening of the remap texts that sample the camera image through the Y2Y sampler.
#version 310 es 
#extension GL_OES_EGL_image_external : require
#extension GL_EXT_YUV_target : require
precision highp float;
uniform __samplerExternal2DY2YEXT outTexture;
