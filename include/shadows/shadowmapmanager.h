#pragma once

#include "gl/export.h"
#include "shadows/shadowmaplight.h"
#include "shadows/shadowmaprenderdata.h"

#include <QPair>
#include <QVariant>
#include <QVector3D>

class QMatrix4x4;

namespace Brevane::Kvo {

class GLSLMacroProcessor;
class ShaderProgram;

/// Turns lights into layers of shadow maps, for the passes that draw the maps, and hands the result to
/// programs that shade with them.
class KVO_GL_EXPORT ShadowMapManager
{
public:
    /// What is to throw shadows.
    using Light = ShadowMapLight;
    /// What comes of it.
    using RenderData = ShadowMapRenderData;
    /// Of a layer.
    using Transform = ShadowMapRenderData::Transform;
    /// Of a light.
    using ProjectorInfo = ShadowMapRenderData::ProjectorInfo;

    /// Fills \a data with the layers that the lights need: layers in the order of the lights, without gaps.
    ///
    /// \a lights is a list of ShadowMapLight values or pointers, or one of them. \a projection (camera to
    /// clip space), \a camera (world to camera space) and \a bounds (minimum and maximum corner of the
    /// scene in world space) may each be null:
    /// - Directional lights cut the view up to their distance into parts. Each part is framed by its
    ///   bounding sphere, whose size does not change while the camera moves and turns, in steps of 1/64 of
    ///   the frame: whole texels for maps whose size is a multiple of 64, so that edges do not swim. A
    ///   frame that would be larger than the scene is the scene's own box. In depth they take in what of the
    ///   scene's box lies in front of and behind the frame along the light, so with every caster that can throw
    ///   a shadow into it, or without bounds twice the widest frame towards the light. Without a camera every
    ///   cascade frames the scene.
    /// - Spot and point lights do not depend on the camera. Their frames are a little wider than the cone
    ///   and the sides of the cube, so that filters find texels at the edges.
    /// - Where the scene's box is needed and there is none, a box of 20 units around the origin stands in,
    ///   which is said once per record through qWarning.
    ///
    /// Lights that cannot be used are left out: no layers and no light. Lights that need more layers than
    /// textures of the current context can have, or than RenderData::mostLayers, get no layers, and shine without
    /// a shadow. Either is said in a message that names the light and the fault. All matrices are finite.
    ///
    /// True when the maps need drawing on account of the lights: matrices, the number of layers, or what
    /// belongs to which light differ from before. Colours do not count, and casters are not looked at. While
    /// the numbers of lights and layers stay, and no fault turns up, nothing is allocated.
    ///
    /// Splits: Zhang et al., "Parallel-split shadow maps for large-scale virtual environments", 2006.
    static bool processLights(QVariant lights, RenderData &data, const QMatrix4x4 *projection, const QMatrix4x4 *camera,
                              const QPair<QVector3D, QVector3D> *bounds);

    /// How programs turn moments into visibility.
    struct Sampling
    {
        /// Smallest variance assumed, in squared depth of the map: larger hides more noise on lit surfaces
        /// and softens more.
        float minimumVariance = 1e-6f;
        /// Visibility below this counts as none, and the rest is stretched: from 0 to 1, larger takes away
        /// more of the light that bleeds in where shadows overlap. Bounded by 0 and 0.99.
        float lightBleeding = 0.2f;
    };

    /// Sets the sizes of the arrays in ShadowMap.glslc for programs that use this processor; 16 layers and
    /// 8 lights otherwise. A program of OpenGL 3.2 has room for about 50 layers.
    static void setup(GLSLMacroProcessor *processor, int mostLayers, int mostLights);
    /// Gives \a program, which is bound and has "ShadowMap.glslc" in a stage, the matrices, lights and maps
    /// of a record, and keeps the texture bound until unbindRecord. Lights that are off are black. Reports once
    /// for each program when the record has more layers than it has room for, those cast no shadow, or more
    /// lights, those do not shine. False, with no light for the program, when there is no record or no texture
    /// in it.
    static bool bindRecord(ShaderProgram *program, const RenderData *data, const Sampling &sampling);
    /// The same with the default sampling.
    static bool bindRecord(ShaderProgram *program, const RenderData *data);
    /// Takes the texture back; call it when bindRecord was true, once the program has drawn.
    static void unbindRecord(const RenderData *data);
};

} // namespace Brevane::Kvo
