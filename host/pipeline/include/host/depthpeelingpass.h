#pragma once

#include "host/shadowshaderpass.h"

namespace Brevane::Kvo {

class GPUModel;

/// Draws surfaces that let light through, each pixel's in the order of their depths, with a shader of the host's: what
/// SurfacePass and a ShadowShaderPass are for solid ones. Layer by layer, the nearest first: each is drawn without
/// what the layers before it had, shaded, and put under them (Everitt, Interactive Order-Independent Transparency,
/// 2001). Surfaces of the same depth count one by one, in the order in which they are drawn.
///
/// | # | Input                           | Type       | Range  | Meaning                 |
/// |---|---------------------------------|------------|--------|-------------------------|
/// | 0 | Kvo_QRect_Viewport              | QRect      | pixels | size of the targets; none: that of Picture |
/// | 1 | Kvo_QMatrix4x4_ProjectionMatrix | QMatrix4x4 |        | camera to clip space    |
/// | 2 | Kvo_QMatrix4x4_CameraMatrix     | QMatrix4x4 |        | world to camera space   |
/// | 3 | Kvo_KvoGPUModel*_Geometry       | GPUModel*  |        | of it, what GPUModel::Opacity::Mixed names is drawn |
/// | 4 | Kvo_KvoTexture*_SolidDepth      | texture    |        | depths of what is solid, which hides what is behind; none: nothing does |
/// | 5 | Kvo_KvoTexture*_Picture         | texture    |        | shaded solid surfaces in linear light, opacity in alpha; none: nothing |
/// | 6 | Kvo_int_Layers                  | int        | 0 to 256 | how many layers at most, the nearest ones; 0: all, until none is left |
///
/// | # | Output                   | Format                 | Meaning |
/// |---|--------------------------|------------------------|---------|
/// | 0 | Kvo_KvoTexture*_Frame    | pool format 7 (GL_RGBA16F) | the layers over the picture: colour, and in alpha the opacity of all; the picture itself where the model has nothing that lets light through |
/// | 1 | Kvo_KvoTexture*_Surfaces | pool format 7 (GL_RGBA16F) | the layers alone, their colours multiplied with what they cover; empty where there are none |
///
/// The shader is as ShadowShaderPass has it, with the inputs that the host adds. Beside those it has what SurfacePass
/// would write for the layer: u_BaseColor, u_Surface, u_Emission, u_Normal and u_Depth. It writes o_Frame, colour and
/// opacity, for each pixel that the layer has. A vertex shader of the host's draws at the depth of the usual one.
///
/// With Layers at 0, a pixel with more than 256 layers gets the nearest; where a limit leaves layers out, that is said
/// once for each. While the host has a query of samples running, layers cannot be counted: then 16 are drawn, or what
/// Layers says, which is said too.
///
/// Without a context, or where the driver has no room for the size, the outputs are empty.
///
/// Leaves no state of GL changed, and takes no notice of the host's. Needs OpenGL 3.2.
class KVO_PIPELINE_EXPORT DepthPeelingPass : public ShadowShaderPass
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
        InProjectionMatrix,
        InCameraMatrix,
        InGeometry,
        InSolidDepth,
        InPicture,
        InLayers,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutFrame,
        OutSurfaces,
    };

    DepthPeelingPass();
    DepthPeelingPass(const DepthPeelingPass &other);
    DepthPeelingPass &operator=(const DepthPeelingPass &other);
    ~DepthPeelingPass() override;

    void start(RenderCallbacks *callbacks) override;

private:
    struct Targets;

    void peel(GPUModel &model, Texture *picture, Texture *solid, const QSize &size);
    bool drawLayer(GPUModel &model, const Targets &targets, int layer, Texture *solid);
    void shadeLayer(const Targets &targets, int layer);
    void addLayer(const Targets &targets);
    void putOver(const Targets &targets, Texture *picture);
    Texture *sized(int input, const QSize &size);
    int layerLimit();
    void buildPrograms();

    Held<ShaderProgram> _surfaces; // draws a layer
    Held<ShaderProgram> _mark; // marks its pixels
    Held<ShaderProgram> _under; // puts it under the others
    Held<ShaderProgram> _over; // puts all over the picture
    int _saidLimit = 0; // that leaves layers out
};

} // namespace Brevane::Kvo
