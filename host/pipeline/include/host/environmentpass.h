#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "host/environment.h"
#include "host/export.h"

namespace Brevane::Kvo {

class Texture;

/// Light from all around for shaders: an image file, or an environment that is computed. All is made in the first
/// frame and when the source changes; a frame after that costs nothing but the values of the outputs.
///
/// | # | Input                 | Type    | Meaning                                                                     |
/// |---|-----------------------|---------|-----------------------------------------------------------------------------|
/// | 0 | Kvo_QString_Source    | QString | a name of environmentNames, or a latitude-longitude image file; "studio"     |
/// | 1 | Kvo_float_Rotation    | float   | degrees by which it is turned about the axis +y; 0                          |
/// | 2 | Kvo_float_Intensity   | float   | factor on all light; 1                                                      |
///
/// | # | Output                          | Type       | Meaning                                                          |
/// |---|---------------------------------|------------|------------------------------------------------------------------|
/// | 0 | Kvo_KvoTexture*_Radiance        | texture    | GL_RGBA16F: the picture, as a latitude-longitude map             |
/// | 1 | Kvo_KvoTexture*_Specular        | texture    | GL_RGBA16F, 512 by 896: Environment::specular                    |
/// | 2 | Kvo_KvoTexture*_Table           | texture    | GL_RGBA16F, 32 by 32: specularTable                                |
/// | 3 | Kvo_QMatrix4x4_Rotation         | QMatrix4x4 | from the world to the directions of the two maps                 |
/// | 4 | Kvo_QMatrix4x4_IrradianceRed    | QMatrix4x4 | with a normal n of the world as (n, 1): n * M * n is the irradiance by pi |
/// | 5 | Kvo_QMatrix4x4_IrradianceGreen  | QMatrix4x4 | likewise                                                         |
/// | 6 | Kvo_QMatrix4x4_IrradianceBlue   | QMatrix4x4 | likewise                                                         |
/// | 7 | Kvo_float_Intensity             | float      | factor on what the maps hold; it is in the matrices and the light |
/// | 8 | Kvo_QList_Lights                | list       | the key light, as shadow passes take it                          |
///
/// See Environment for what the maps hold. Files are read by what setImageReader was given; a file that cannot be
/// read is told once, with its name and the reason, and the studio takes its place. A number that is not finite counts
/// as the default, an intensity below 0 as 0.
///
/// The textures are the pass's own. Of one that the driver has no room for, which is said, a single texel stands in,
/// and the next frame makes it anew. Needs OpenGL 3.2. Leaves no state of GL changed.
class KVO_PIPELINE_EXPORT EnvironmentPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int { InSource, InRotation, InIntensity };
    /// Indices of the outputs.
    enum Output : int {
        OutRadiance,
        OutSpecular,
        OutTable,
        OutRotation,
        OutIrradianceRed,
        OutIrradianceGreen,
        OutIrradianceBlue,
        OutIntensity,
        OutLights,
    };

    /// Reads an image file, or gives null and the reason.
    using ImageReader = QImage (*)(const QString &path, QString *error);
    /// Who reads image files, for all passes from their next change of source on. At first Qt's plugins do; KvoScene
    /// puts readImage of KvoImages here, which also knows Radiance pictures and OpenEXR.
    static void setImageReader(ImageReader reader);

    EnvironmentPass();
    /// Holds the same textures as its source.
    EnvironmentPass(const EnvironmentPass &other);
    EnvironmentPass &operator=(const EnvironmentPass &other);
    ~EnvironmentPass() override;

    void start(RenderCallbacks *callbacks) override;

private:
    Environment _load(const QString &source);
    void _upload(const Environment &environment);
    float _finite(int index);

    Held<Texture> _radiance;
    Held<Texture> _specular;
    Held<Texture> _table;
    QString _source;
    std::array<QVector3D, 9> _irradiance{};
    ShadowMapLight _key;
};

} // namespace Brevane::Kvo
