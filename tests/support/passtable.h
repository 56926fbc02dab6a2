#pragma once

#include <gl/drawbuffers.h>
#include <gl/framebufferobject.h>
#include <gl/texture.h>
#include <model/gpumodel.h>

#include <QColor>
#include <QMatrix4x4>
#include <QMetaType>
#include <QRect>
#include <QSize>
#include <QVariant>
#include <QVector2D>
#include <QVector3D>

#include <vector>

namespace Brevane::Kvo::Test {

/// In which form setInput stores textures for a pass.
enum class Reads { Nothing, Typed, Object, Either };

/// What an output holds after a start with nothing but a viewport.
enum class Unconnected {
    Invalid, ///< Nothing.
    NoTexture, ///< Null, in whatever form.
    Texture, ///< A texture in object form.
    BareTexture, ///< The same, without any content.
    TypedTexture, ///< A texture in typed form.
    Object, ///< An object that is no texture.
    Null, ///< A null object.
    Value, ///< A plain value of the slot's type.
};

struct InputRow
{
    const char *name;
    QMetaType type; ///< Of the values that the slot is for.
    QVariant defaultValue = QVariant();
};

struct OutputRow
{
    const char *name;
    QMetaType type;
    Unconnected unconnected = Unconnected::Texture;
};

struct PassRow
{
    const char *className;
    Reads reads = Reads::Nothing;
    std::vector<InputRow> inputs;
    std::vector<OutputRow> outputs;
    bool needsContext = false; ///< For its constructor.
    bool assertsModel = false; ///< Reports a missing model through qCritical, and carries on.
    bool startsLate = false; ///< Hands out nothing in the first frame: its program needs a light to build.
};

/// The interface of every pass class, as hosts and pipeline files rely on it.
inline const std::vector<PassRow> &passTable()
{
    using U = Unconnected;
    const QMetaType texture = QMetaType::fromType<Texture *>();
    const QMetaType model = QMetaType::fromType<GPUModel *>();
    const QMetaType geometry = QMetaType::fromType<DrawBuffers *>();
    const QMetaType framebuffer = QMetaType::fromType<FramebufferObject *>();
    const QMetaType rect(QMetaType::QRect);
    const QMetaType matrix(QMetaType::QMatrix4x4);
    const QMetaType color(QMetaType::QColor);
    const QMetaType vector2(QMetaType::QVector2D);
    const QMetaType vector3(QMetaType::QVector3D);
    const QMetaType size(QMetaType::QSize);
    const QMetaType list(QMetaType::QVariantList);
    const QMetaType string(QMetaType::QString);
    const QMetaType real(QMetaType::Float);
    const QMetaType integer(QMetaType::Int);
    const QMetaType boolean(QMetaType::Bool);
    const QMetaType any(QMetaType::QVariant);

    const InputRow viewport{"Kvo_QRect_Viewport", rect};
    const InputRow projection{"Kvo_QMatrix4x4_ProjectionMatrix", matrix};
    const InputRow camera{"Kvo_QMatrix4x4_CameraMatrix", matrix};
    const InputRow modelIn{"Kvo_KvoGPUModel*_Geometry", model};
    const InputRow instanceData{"Kvo_QList_InstanceData", list};
    const InputRow lights{"Kvo_QList_KvoShadowMapManagerLight*_Lights", list};
    const InputRow boundsMin{"Kvo_QVector3D_SceneBoundsMin", vector3};
    const InputRow boundsMax{"Kvo_QVector3D_SceneBoundsMax", vector3};
    const OutputRow frame{"Kvo_KvoTexture*_Frame", texture};
    const OutputRow noFrame{"Kvo_KvoTexture*_Frame", texture, U::Invalid};
    const OutputRow passedOn{"Kvo_KvoTexture*_Output", texture, U::NoTexture};
    const auto in = [&](const char *name) { return InputRow{name, texture}; };
    const auto number = [&](const char *name, const QVariant &value = QVariant()) {
        return InputRow{name, real, value};
    };

    static const std::vector<PassRow> table = {
        // Frame and geometry
        {"GradientRenderPass",
         Reads::Nothing,
         {viewport,
          {"Kvo_QColor_ColorTop", color, QColor(64, 64, 64, 255)},
          {"Kvo_QColor_ColorBottom", color, QColor(153, 153, 153, 255)}},
         {frame}},
        {"ModelRenderPass",
         Reads::Nothing,
         {viewport, projection, camera, modelIn},
         {{"Kvo_KvoTexture*_Diffuse", texture},
          {"Kvo_KvoTexture*_Specular", texture},
          {"Kvo_KvoTexture*_Normal", texture},
          {"Kvo_KvoTexture*_Depth", texture},
          {"Kvo_KvoTexture*_Id", texture}}},
        {"GBufferRenderPass",
         Reads::Nothing,
         {viewport, projection, camera, {"Kvo_KvoDrawBuffers*_Geometry", geometry}},
         {{"Kvo_KvoTexture*_Normal", texture},
          {"Kvo_KvoTexture*_TexCoord", texture},
          {"Kvo_KvoTexture*_Depth", texture},
          {"Kvo_KvoTexture*_Id", texture}}},
        {"ModelDeferredPass",
         Reads::Object,
         {viewport, projection, camera, in("Kvo_KvoTexture*_Diffuse"), in("Kvo_KvoTexture*_Specular"),
          in("Kvo_KvoTexture*_Normal"), in("Kvo_KvoTexture*_Depth")},
         {frame}},
        {"ForwardRenderPass",
         Reads::Nothing,
         {viewport, projection, camera, modelIn},
         {frame, {"Kvo_KvoTexture*_Id", texture}}},
        {"PrimitiveBuilderRenderPass", Reads::Nothing, {}, {{"Kvo_KvoDrawBuffers*_Geometry", geometry, U::Null}}},

        // Deferred lighting and screen space
        {"DeferredRenderPass",
         Reads::Object,
         {viewport, projection, camera, in("Kvo_KvoTexture*_Normal"), in("Kvo_KvoTexture*_TexCoord"),
          in("Kvo_KvoTexture*_Depth")},
         {frame}},
        {"CameraSpaceZBufferRenderPass", Reads::Typed, {viewport, in("Kvo_KvoTexture*_Depth"), projection}, {frame}},
        {"ScalableAmbientObscuranceRenderPass",
         Reads::Either,
         {viewport, projection, camera, number("Kvo_float_NearPlane"), number("Kvo_float_FarPlane"),
          in("Kvo_KvoTexture*_Depth"), number("Kvo_float_SAORadius", 0.08f), number("Kvo_float_SAOBias", 0.03f),
          number("Kvo_float_SAOIntensity", 1.0f), in("Kvo_KvoTexture*_CameraSpacePosition"),
          in("Kvo_KvoTexture*_Normal"), number("Kvo_float_SaoNumSamples", 11.0f),
          number("Kvo_float_SaoNumLogMaxOffset", 3.0f), number("Kvo_float_SaoNumSpiralTurns", 3.0f),
          number("Kvo_float_ResolutionDivider", 1.0f)},
         {frame}},
        {"LuminanceAverageRenderPass",
         Reads::Object,
         {viewport, in("Kvo_KvoTexture*_Texture")},
         {frame, {"Kvo_float_averageLuminance", real, U::Value}}},

        // Transparency
        {"VisibilityBufferRenderPass",
         Reads::Nothing,
         {viewport, projection, camera, modelIn},
         {{"Kvo_KvoTexture*_HeadPointers", texture},
          {"Kvo_KvoTexture*_NodeBuffer", texture},
          {"Kvo_int_NodeBufferWidth", integer, U::Value},
          {"Kvo_KvoTexture*_Depth", texture, U::Invalid}}},
        {"VisibilitySortRenderPass",
         Reads::Object,
         {viewport,
          in("Kvo_KvoTexture*_HeadPointers"),
          in("Kvo_KvoTexture*_NodeBuffer"),
          {"Kvo_int_NodeBufferWidth", integer}},
         {{"Kvo_KvoTexture*_HeadPointers", texture, U::Invalid},
          {"Kvo_KvoTexture*_NodeBuffer", texture, U::Invalid},
          {"Kvo_int_NodeBufferWidth", integer, U::Invalid}}},
        {"VisibilityDeferredRenderPass",
         Reads::Object,
         {viewport,
          projection,
          camera,
          in("Kvo_KvoTexture*_HeadPointers"),
          in("Kvo_KvoTexture*_NodeBuffer"),
          {"Kvo_int_NodeBufferWidth", integer},
          modelIn},
         {frame}},
        {"TransparencyRenderPass",
         Reads::Nothing,
         {viewport, projection, camera, modelIn, in("Kvo_KvoTexture*_Texture")},
         {frame, {"Kvo_KvoTexture*_Depth", texture}}},

        // Shadows
        {"ShadowMapRenderPass",
         Reads::Nothing,
         {modelIn,
          instanceData,
          lights,
          projection,
          camera,
          boundsMin,
          boundsMax,
          {"Kvo_int_FilterType", integer, 1},
          {"Kvo_QSize_MapSize", size, QSize(512, 512)}},
         {{"Kvo_QVariant_ShadowMapData", any, U::Object}},
         false,
         true},
        {"ShadowMapRenderPass2",
         Reads::Nothing,
         {modelIn,
          instanceData,
          lights,
          {"Kvo_bool_Dirty", boolean},
          projection,
          camera,
          boundsMin,
          boundsMax,
          {"Kvo_int_FilterType", integer, 3},
          {"Kvo_QSize_MapSize", size, QSize(512, 512)}},
         {{"Kvo_QVariant_ShadowMapData", any, U::Object}},
         true,
         true,
         true},

        // Antialiasing
        {"CameraJitterPass",
         Reads::Nothing,
         {viewport, projection, camera, {"Kvo_bool_Dirty", boolean, true}, {"Kvo_int_JitterMode", integer, 2}},
         {{"Kvo_QMatrix4x4_ProjectionMatrix", matrix, U::Value}, {"Kvo_int_JitterIndex", integer, U::Value}}},
        {"TemporalAARenderPass",
         Reads::Typed,
         {viewport,
          in("Kvo_KvoTexture*_Frame"),
          projection,
          camera,
          {"Kvo_bool_Dirty", boolean, true},
          number("Kvo_Float_ViewportScale", 1.0f),
          {"Kvo_Bool_ViewportScale_Enable", boolean, true}},
         {{"Kvo_KvoTexture*_Frame", texture, U::NoTexture}}},
        {"FastApproximateAntiAliasingRenderPass",
         Reads::Object,
         {viewport, in("Kvo_KvoTexture*_Frame"), number("Kvo_float_SubPixelQuality"),
          number("Kvo_float_RcpFrameQuality"), number("Kvo_float_EdgeThresholdQuality"),
          number("Kvo_float_EdgeThresholdMinQuality")},
         {noFrame}},
        {"SMAARenderPass",
         Reads::Object,
         {viewport,
          in("Kvo_KvoTexture*_Frame"),
          {"Kvo_int_Mode", integer, 1},
          {"Kvo_bool_SupportTransparency", boolean, false},
          in("Kvo_KvoTexture*_Predicate"),
          in("Kvo_KvoTexture*_Depth"),
          camera,
          projection,
          {"Kvo_int_JitterIndex", integer}},
         {noFrame}},

        // Filters and composition
        {"BlurBaseRenderPass", Reads::Nothing, {}, {}},
        {"GaussianBlurRenderPass",
         Reads::Typed,
         {viewport,
          in("Kvo_KvoTexture*_Input"),
          number("Kvo_float_BlurRadius"),
          number("Kvo_float_ResolutionDivider", 1.0f),
          in("Kvo_KvoTexture*_Stencil"),
          {"Kvo_int_StencilMaterial", integer, -1}},
         {passedOn}},
        {"BlurAndCombineRenderPass",
         Reads::Typed,
         {viewport, in("Kvo_KvoTexture*_NormalFrame"), number("Kvo_float_BlurRadius"),
          number("Kvo_float_GlowThreshold"), number("Kvo_float_GlowAmount"), in("Kvo_KvoTexture*_BlurFrame")},
         {passedOn}},
        {"StencilBlurAndBlendRenderPass",
         Reads::Typed,
         {viewport, in("Kvo_KvoTexture*_NormalFrame"), number("Kvo_float_BlurRadius"), in("Kvo_KvoTexture*_BlurFrame")},
         {passedOn}},
        {"DepthOfFieldRenderPass",
         Reads::Object,
         {viewport,
          in("Kvo_KvoTexture*_Frame"),
          in("Kvo_KvoTexture*_Depth"),
          number("Kvo_float_FocalDepth"),
          number("Kvo_float_FocalLength"),
          number("Kvo_float_FStop"),
          {"Kvo_bool_AutoFocus", boolean},
          {"Kvo_QVector2D_Focus", vector2}},
         {noFrame}},
        {"BlendRenderPass",
         Reads::Either,
         {viewport,
          in("Kvo_KvoTexture*_FrameA"),
          in("Kvo_KvoTexture*_FrameB"),
          {"Int_BlendMode", integer},
          number("brightness")},
         {frame}},
        {"WireframeRenderPass",
         Reads::Object,
         {viewport, in("Kvo_KvoTexture*_Id"), {"Kvo_QColor_WireColor", color}},
         {noFrame}},
        {"TextureToScreenRenderPass",
         Reads::Object,
         {viewport,
          in("Kvo_KvoTexture*_Texture"),
          {"Kvo_Bool_EnableSuperSampling", boolean},
          {"Kvo_QRect_ViewportOut", rect},
          in("Kvo_KvoTexture*_TextureOut"),
          {"Kvo_Bool_LinearFilter", boolean},
          {"Kvo_QVariant_Rects", any},
          {"Kvo_KvoFramebuffer*_FramebufferOut", framebuffer}},
         {}},

        // Backdrops, loaders, programmable pass
        {"SkyboxRenderPass",
         Reads::Typed,
         {viewport, projection, camera, in("Kvo_KvoTexture*_Cubemap"), in("Kvo_KvoTexture*_LatLongMap"),
          in("Kvo_KvoTexture*_Background"), in("Kvo_KvoTexture*_Frame"), in("Kvo_KvoTexture*_Depth")},
         {frame}},
        {"BackgroundImageRenderPass",
         Reads::Typed,
         {viewport,
          in("Kvo_KvoTexture*_Frame"),
          in("Kvo_KvoTexture*_Depth"),
          {"Kvo_string_FadeImageUrl1", string},
          {"Kvo_string_FadeImageUrl2", string},
          number("Kvo_float_FadeRatio"),
          number("Kvo_float_FadeRatio2"),
          in("Kvo_KvoTexture*_Normal"),
          {"Kvo_int_FloorMaterialId", integer, -1},
          number("Kvo_float_FadeRatioFloor")},
         {frame}},
        {"TextureLoaderRenderPass",
         Reads::Nothing,
         {{"Kvo_QString_TexturePath", string}},
         {{"Kvo_KvoTexture*_Texture", texture, U::BareTexture}}},
        {"CubemapLoaderRenderPass",
         Reads::Nothing,
         {{"Kvo_QString_CubemapPathPosX", string},
          {"Kvo_QString_CubemapPathNegX", string},
          {"Kvo_QString_CubemapPathPosY", string},
          {"Kvo_QString_CubemapPathNegY", string},
          {"Kvo_QString_CubemapPathPosZ", string},
          {"Kvo_QString_CubemapPathNegZ", string}},
         {{"Kvo_KvoTexture*_Cubemap", texture, U::TypedTexture}}},
        {"ShaderRenderPass", Reads::Either, {viewport}, {}},
    };
    return table;
}

} // namespace Brevane::Kvo::Test
