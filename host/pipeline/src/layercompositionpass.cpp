#include "host/layercompositionpass.h"

#include "core/slotinfo.h"
#include "gl/shaderprogram.h"
#include "gl/texture.h"

namespace Brevane::Kvo {

namespace {

const QString kFragmentShader = QStringLiteral(R"(#version 150

uniform sampler2D u_Layers;
uniform sampler2D u_Backdrop;
uniform bool u_HasLayers;

in vec2 vo_TexCoord;

out vec4 o_Frame;

void main()
{
  vec4 layers = u_HasLayers ? texture(u_Layers, vo_TexCoord) : vec4(0.0, 0.0, 0.0, 1.0);
  o_Frame = vec4(layers.rgb + layers.a * texture(u_Backdrop, vo_TexCoord).rgb, 1.0);
}
)");

// The viewport is described above this class.
constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_KvoTexture*_Layers",
     .meaning = "colour, and in alpha the light that still comes through; none: all of it",
     .kind = SlotKind::Texture},
    {.name = "Kvo_KvoTexture*_Backdrop", .meaning = "what lies behind; none: black", .kind = SlotKind::Texture},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Frame",
     .meaning = "layers + alpha * backdrop, opaque",
     .kind = SlotKind::Texture,
     .format = "pool format 3"},
};

constexpr PassInfo kInfo = {"LayerCompositionPass", "puts shaded fragment lists over any picture", Reach::texels(0),
                            kInputInfo, kOutputInfo};

} // namespace

LayerCompositionPass::LayerCompositionPass()
{
    addInput(QStringLiteral("Kvo_KvoTexture*_Layers"), QVariant(), InLayers);
    addInput(QStringLiteral("Kvo_KvoTexture*_Backdrop"), QVariant(), InBackdrop);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Frame"), OutFrame);
    describe(kInfo);
    setFragmentShaderSource(kFragmentShader);
    setName(QStringLiteral("LayerCompositionPass"));
}

void LayerCompositionPass::setUniforms()
{
    ShaderRenderPass::setUniforms();
    _program->setUniform(QStringLiteral("u_HasLayers"), textureFromVariant(_inputs[InLayers].value) != nullptr);
}

} // namespace Brevane::Kvo
