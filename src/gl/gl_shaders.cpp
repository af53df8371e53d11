// gl_shaders.cpp - GLSL ES 1.00 texts of the pipeline's five programs.
#include "gl/gl_context.h"

// Every program shares this vertex stage: the quad's position through the projection, the
// texture coordinate passed on unchanged.
const char* const kGlVertexShader =
    "precision highp float;\n"
    "attribute vec4 position;\n"
    "attribute vec2 inputTextureCoordinate;\n"
    "uniform mat4 projection;\n"
    "varying vec2 textureCoordinate;\n"
    "void main() {\n"
    "  gl_Position = projection * position;\n"
    "  textureCoordinate = inputTextureCoordinate.xy;\n"
    "}\n";

// Full-range YCbCr to RGB. The chroma texture is luminance-alpha with V first and U second in
// each pair, so V arrives in .r and U in .a.
const char* const kGlFragmentNV21toRGB =
    "precision highp float;\n"
    "varying vec2 textureCoordinate;\n"
    "uniform sampler2D inputYTexture;\n"
    "uniform sampler2D inputUVTexture;\n"
    "void main() {\n"
    "  float y = texture2D(inputYTexture, textureCoordinate).r;\n"
    "  vec4 uv = texture2D(inputUVTexture, textureCoordinate);\n"
    "  float u = uv.a - 0.5;\n"
    "  float v = uv.r - 0.5;\n"
    "  float r = y + 1.40200 * v;\n"
    "  float g = y - 0.34414 * u - 0.71414 * v;\n"
    "  float b = y + 1.77200 * u;\n"
    "  gl_FragColor = vec4(r, g, b, 1.0);\n"
    "}\n";

const char* const kGlFragmentScalerBypass =
    "precision highp float;\n"
    "varying vec2 textureCoordinate;\n"
    "uniform sampler2D inputImageTexture;\n"
    "void main() {\n"
    "  gl_FragColor = texture2D(inputImageTexture, textureCoordinate);\n"
    "}\n";

// Nine taps at half-texel steps: with linear filtering each odd tap averages two texels. The
// weights sum to 0.9990465 and are deliberately not renormalised.
const char* const kGlFragmentGaussX =
    "precision highp float;\n"
    "varying vec2 textureCoordinate;\n"
    "uniform sampler2D inputImageTexture;\n"
    "uniform float fInWidth;\n"
    "void main() {\n"
    "  vec2 texel = vec2(1.0 / fInWidth, 0.0);\n"
    "  vec2 tc = textureCoordinate;\n"
    "  vec4 sum = texture2D(inputImageTexture, tc) * 0.2992067;\n"
    "  sum += (texture2D(inputImageTexture, tc - 0.5 * texel) + texture2D(inputImageTexture, tc + 0.5 * texel))"
    " * 0.2258531;\n"
    "  sum += (texture2D(inputImageTexture, tc - 1.0 * texel) + texture2D(inputImageTexture, tc + 1.0 * texel))"
    " * 0.0971382;\n"
    "  sum += (texture2D(inputImageTexture, tc - 1.5 * texel) + texture2D(inputImageTexture, tc + 1.5 * texel))"
    " * 0.0238047;\n"
    "  sum += (texture2D(inputImageTexture, tc - 2.0 * texel) + texture2D(inputImageTexture, tc + 2.0 * texel))"
    " * 0.0033239;\n"
    "  gl_FragColor = sum;\n"
    "}\n";

const char* const kGlFragmentGaussY =
    "precision highp float;\n"
    "varying vec2 textureCoordinate;\n"
    "uniform sampler2D inputImageTexture;\n"
    "uniform float fInHeight;\n"
    "void main() {\n"
    "  vec2 texel = vec2(0.0, 1.0 / fInHeight);\n"
    "  vec2 tc = textureCoordinate;\n"
    "  vec4 sum = texture2D(inputImageTexture, tc) * 0.2992067;\n"
    "  sum += (texture2D(inputImageTexture, tc - 0.5 * texel) + texture2D(inputImageTexture, tc + 0.5 * texel))"
    " * 0.2258531;\n"
    "  sum += (texture2D(inputImageTexture, tc - 1.0 * texel) + texture2D(inputImageTexture, tc + 1.0 * texel))"
    " * 0.0971382;\n"
    "  sum += (texture2D(inputImageTexture, tc - 1.5 * texel) + texture2D(inputImageTexture, tc + 1.5 * texel))"
    " * 0.0238047;\n"
    "  sum += (texture2D(inputImageTexture, tc - 2.0 * texel) + texture2D(inputImageTexture, tc + 2.0 * texel))"
    " * 0.0033239;\n"
    "  gl_FragColor = sum;\n"
    "}\n";

// 3 x 3 taps at whole-texel steps; the weights sum to 1.
const char* const kGlFragmentGaussMask =
    "precision highp float;\n"
    "varying vec2 textureCoordinate;\n"
    "uniform sampler2D inputImageTexture;\n"
    "uniform float fInWidth;\n"
    "uniform float fInHeight;\n"
    "void main() {\n"
    "  vec2 dx = vec2(1.0 / fInWidth, 0.0);\n"
    "  vec2 dy = vec2(0.0, 1.0 / fInHeight);\n"
    "  vec2 tc = textureCoordinate;\n"
    "  vec4 sum = texture2D(inputImageTexture, tc) * 0.408076;\n"
    "  sum += (texture2D(inputImageTexture, tc - dx) + texture2D(inputImageTexture, tc + dx)"
    " + texture2D(inputImageTexture, tc - dy) + texture2D(inputImageTexture, tc + dy)) * 0.1209855;\n"
    "  sum += (texture2D(inputImageTexture, tc - dx - dy) + texture2D(inputImageTexture, tc + dx - dy)"
    " + texture2D(inputImageTexture, tc - dx + dy) + texture2D(inputImageTexture, tc + dx + dy)) * 0.0269955;\n"
    "  gl_FragColor = sum;\n"
    "}\n";
