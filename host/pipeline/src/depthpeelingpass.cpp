#include "host/depthpeelingpass.h"

#include "core/liveobjects.h"
#include "gl/bindings.h"
#include "gl/contextscope.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/hoststate.h"
#include "gl/sampling.h"
#include "gl/shaderprogram.h"
#include "gl/texture.h"
#include "gl/texturemanager.h"
#include "model/gpumodel.h"
#include "pooledoutput.h"
#include "screenprogram.h"
#include "surfaceprogram.h"
#include "viewportsize.h"

#include <epoxy/gl.h>

#include <QMatrix4x4>
#include <QRect>

#include <algorithm>
#include <array>
#include <vector>

using namespace Qt::StringLiterals;

namespace Brevane::Kvo {

namespace {

constexpr int kMostLayers = 256;
constexpr int kUncountedLayers = 16;

// Where a layer has pixels its mark is in front of nothing; what is drawn for those pixels is in front of the mark.
constexpr double kMarked = 0.5;
constexpr double kInFront = 0.25;

const QString kScreenVertexShader = QStringLiteral(R"(#version 150

in vec3 va_Vertex;

void main()
{
  gl_Position = vec4(va_Vertex, 1.0);
}
)");

const QString kMarkShader = QStringLiteral(R"(#version 150

uniform sampler2D u_Depth;

out vec4 o_Frame;

void main()
{
  if(texelFetch(u_Depth, ivec2(gl_FragCoord.xy), 0).r >= 1.0)
    discard;
  o_Frame = vec4(0.0);
}
)");

// The blending multiplies with what the layers in front let through.
const QString kUnderShader = QStringLiteral(R"(#version 150

uniform sampler2D u_Layer;

out vec4 o_Frame;

void main()
{
  vec4 layer = texelFetch(u_Layer, ivec2(gl_FragCoord.xy), 0);
  float opacity = clamp(layer.a, 0.0, 1.0);
  o_Frame = vec4(layer.rgb * opacity, opacity);
}
)");

const QString kOverShader = QStringLiteral(R"(#version 150

uniform sampler2D u_Surfaces;
uniform sampler2D u_Picture;
uniform bool u_HasPicture;

out vec4 o_Frame;

void main()
{
  ivec2 texel = ivec2(gl_FragCoord.xy);
  vec4 surfaces = texelFetch(u_Surfaces, texel, 0);
  vec4 picture = u_HasPicture ? texelFetch(u_Picture, texel, 0) : vec4(0.0);
  float behind = (1.0 - surfaces.a) * clamp(picture.a, 0.0, 1.0);
  float opacity = surfaces.a + behind;
  o_Frame = surfaces.a > 0.0 ? vec4((surfaces.rgb + behind * picture.rgb) / opacity, opacity) : picture;
}
)");

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QMatrix4x4_ProjectionMatrix", .meaning = "camera to clip space", .kind = SlotKind::Matrix},
    {.name = "Kvo_QMatrix4x4_CameraMatrix", .meaning = "world to camera space", .kind = SlotKind::Matrix},
    {.name = "Kvo_KvoGPUModel*_Geometry",
     .meaning = "of it, what lets light through is drawn",
     .kind = SlotKind::Model},
    {.name = "Kvo_KvoTexture*_SolidDepth",
     .meaning = "depths of what is solid, which hides what is behind; none: nothing does",
     .kind = SlotKind::Texture},
    {.name = "Kvo_KvoTexture*_Picture",
     .meaning = "shaded solid surfaces in linear light, opacity in alpha; none: nothing",
     .kind = SlotKind::Texture},
    {.name = "Kvo_int_Layers",
     .meaning = "how many layers at most, the nearest ones; 0: all, until none is left",
     .kind = SlotKind::Count,
     .range = {.least = 0, .most = kMostLayers}},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Frame",
     .meaning = "the layers over the picture",
     .kind = SlotKind::Texture,
     .format = "pool format 7 (GL_RGBA16F)"},
    {.name = "Kvo_KvoTexture*_Surfaces",
     .meaning = "the layers alone, their colours multiplied with what they cover; empty where there are none",
     .kind = SlotKind::Texture,
     .format = "pool format 7 (GL_RGBA16F)"},
};

constexpr PassInfo kInfo = {"DepthPeelingPass", "draws surfaces that let light through in the order of their depths",
                            Reach::texels(0), kInputInfo, kOutputInfo};

constexpr QLatin1StringView kTexturePrefix("Kvo_KvoTexture*_");

const QStringList kOutputs{u"o_Frame"_s};

bool hasSize(Texture *texture, const QSize &size)
{
    const LevelInfo level = levelInfo(texture, GL_TEXTURE_2D);
    return QSize(level.width, level.height) == size;
}

// Of the kinds that count samples only one can run at a time.
bool hostCountsSamples()
{
    for (const GLenum target : {GL_SAMPLES_PASSED, GL_ANY_SAMPLES_PASSED, GL_ANY_SAMPLES_PASSED_CONSERVATIVE}) {
        if (target == GL_ANY_SAMPLES_PASSED && epoxy_gl_version() < 33)
            break;
        if (target == GL_ANY_SAMPLES_PASSED_CONSERVATIVE && epoxy_gl_version() < 43)
            break;
        GLint running = 0;
        glGetQueryiv(target, GL_CURRENT_QUERY, &running);
        if (running != 0)
            return true;
    }
    return false;
}

/// Whether samples pass between its begin and its end.
class SampleCount
{
public:
    SampleCount() { glGenQueries(1, &_query); }
    ~SampleCount() { glDeleteQueries(1, &_query); }
    SampleCount(const SampleCount &) = delete;
    SampleCount &operator=(const SampleCount &) = delete;

    bool isMade() const { return _query != 0; }
    void begin() { glBeginQuery(GL_SAMPLES_PASSED, _query); }
    void end() { glEndQuery(GL_SAMPLES_PASSED); }
    bool isAny() const
    {
        GLuint count = 0;
        glGetQueryObjectuiv(_query, GL_QUERY_RESULT, &count);
        return count > 0;
    }

private:
    GLuint _query = 0;
};

/// Binds textures for a program and takes them back, the last one first.
class BoundTextures
{
public:
    explicit BoundTextures(ShaderProgram *program) : _program(program) {}
    ~BoundTextures()
    {
        for (auto texture = _bound.rbegin(); texture != _bound.rend(); ++texture)
            (*texture)->unbind();
    }
    BoundTextures(const BoundTextures &) = delete;
    BoundTextures &operator=(const BoundTextures &) = delete;

    void add(const QString &sampler, Texture *texture)
    {
        if (!texture || !_program->hasUniform(sampler) || !texture->bind())
            return;
        _bound.push_back(texture);
        _program->setUniform(sampler, texture->unit());
    }

private:
    ShaderProgram *_program;
    std::vector<Texture *> _bound;
};

} // namespace

/// Textures of the pool for its life.
struct DepthPeelingPass::Targets
{
    explicit Targets(const QSize &size)
    {
        for (std::size_t i = 0; i < kSurfaceTargets.size(); ++i)
            surface[i] = take(i == SurfaceId ? TextureFormat::TwoChannel32 : kSurfaceTargets[i].format, size);
        otherDepth = take(TextureFormat::Depth32, size);
        otherId = take(TextureFormat::TwoChannel32, size);
        mark = take(TextureFormat::Depth16, size);
        shaded = take(TextureFormat::Frame, size);
        sum = take(TextureFormat::Frame, size);
        frame = take(TextureFormat::Frame, size);
        empty = take(TextureFormat::Color8, {1, 1});
        hasRoom = std::all_of(taken.begin(), taken.end() - 1, [size](Texture *t) { return hasSize(t, size); });
    }
    ~Targets()
    {
        for (Texture *texture : taken)
            TextureManager::Instance().releaseTempTextureRef(texture, 1);
    }
    Q_DISABLE_COPY(Targets)

    Texture *take(TextureFormat format, const QSize &size)
    {
        taken.push_back(TextureManager::Instance().tempTexture(format, size.width(), size.height()));
        return taken.back();
    }
    // Depths and ids of two layers take turns.
    Texture *depth(int layer) const { return layer % 2 ? otherDepth : surface[SurfaceDepth]; }
    Texture *id(int layer) const { return layer % 2 ? otherId : surface[SurfaceId]; }

    enum { SurfaceDepth = 4, SurfaceId = 5 };
    std::vector<Texture *> taken;
    std::array<Texture *, kSurfaceTargets.size()> surface{};
    Texture *otherDepth = nullptr;
    Texture *otherId = nullptr;
    Texture *mark = nullptr;
    Texture *shaded = nullptr;
    Texture *sum = nullptr;
    Texture *frame = nullptr;
    Texture *empty = nullptr;
    bool hasRoom = false;
};

DepthPeelingPass::DepthPeelingPass()
{
    addInput(u"Kvo_QMatrix4x4_ProjectionMatrix"_s, QVariant(), InProjectionMatrix);
    addInput(u"Kvo_QMatrix4x4_CameraMatrix"_s, QVariant(), InCameraMatrix);
    addInput(u"Kvo_KvoGPUModel*_Geometry"_s, QVariant(), InGeometry);
    addInput(u"Kvo_KvoTexture*_SolidDepth"_s, QVariant(), InSolidDepth);
    addInput(u"Kvo_KvoTexture*_Picture"_s, QVariant(), InPicture);
    addInput(u"Kvo_int_Layers"_s, 0, InLayers);
    addOutput(u"Kvo_KvoTexture*_Frame"_s, OutFrame);
    addOutput(u"Kvo_KvoTexture*_Surfaces"_s, OutSurfaces);
    describe(kInfo);
    setName(u"DepthPeelingPass"_s);
}

DepthPeelingPass::DepthPeelingPass(const DepthPeelingPass &other) = default;
DepthPeelingPass &DepthPeelingPass::operator=(const DepthPeelingPass &other) = default;
DepthPeelingPass::~DepthPeelingPass() = default;

void DepthPeelingPass::start(RenderCallbacks *)
{
    const ContextScope scope;
    if (!scope)
        return;
    for (PassSlot &output : _outputs)
        output.value = QVariant();
    // Before the inputs, which may be textures of the pool, are given back.
    Texture *picture = textureFromVariant(_inputs[InPicture].value);
    QSize size = sizeInSlot(*this, InViewport);
    if (!_inputs[InViewport].value.isValid() && picture) {
        const LevelInfo level = levelInfo(picture, GL_TEXTURE_2D);
        size = {level.width, level.height};
    }
    auto *model = qvariant_cast<GPUModel *>(_inputs[InGeometry].value);
    if (liveKindOf(model) != LiveKind::Model || model->isDrawEmpty(0, 0, GPUModel::Opacity::Mixed)) {
        if (picture) {
            _outputs[OutFrame].value = textureToVariant(picture);
            TextureManager::Instance().addTempTextureRef(picture, _numOutputUsers[OutFrame]);
        }
    } else if (!size.isEmpty() && hasRoomFor(*this, InViewport, size)) {
        peel(*model, sized(InPicture, size), sized(InSolidDepth, size), size);
    }
    for (const PassSlot &input : std::as_const(_inputs)) {
        if (Texture *texture = textureFromVariant(input.value))
            TextureManager::Instance().releaseTempTextureRef(texture, 1);
    }
}

// A texture of an input that is as large as the targets.
Texture *DepthPeelingPass::sized(int input, const QSize &size)
{
    Texture *texture = textureFromVariant(_inputs[input].value);
    if (!texture)
        return nullptr;
    if (!hasSize(texture, size)) {
        reportInput(input, u"is not %1 x %2 pixels and is left out"_s.arg(size.width()).arg(size.height()));
        return nullptr;
    }
    acceptInput(input);
    return texture;
}

int DepthPeelingPass::layerLimit()
{
    const int wanted = _inputs[InLayers].value.toInt();
    const int limit = std::clamp(wanted, 0, kMostLayers);
    if (limit == wanted)
        acceptInput(InLayers);
    else
        reportInput(InLayers, u"%1 is not from 0 to %2; %3 is used"_s.arg(wanted).arg(kMostLayers).arg(limit));
    return limit;
}

void DepthPeelingPass::buildPrograms()
{
    if (ShaderProgram *const known = _surfaces)
        known->refresh();
    else
        _surfaces = surfaceProgram(_name, SurfacePart::Layer);
    if (!_program)
        _program = screenProgram(_name, kOutputs, _vertexShaderSource, _fragmentShaderSource);
    if (!_mark)
        _mark = screenProgram(_name, kOutputs, kScreenVertexShader, kMarkShader);
    if (!_under)
        _under = screenProgram(_name, kOutputs, kScreenVertexShader, kUnderShader);
    if (!_over)
        _over = screenProgram(_name, kOutputs, kScreenVertexShader, kOverShader);
}

void DepthPeelingPass::peel(GPUModel &model, Texture *picture, Texture *solid, const QSize &size)
{
    // It binds with plain GL, of which a pipeline that the pass runs in knows nothing.
    const BindingScope bindings;
    BindingScope::stopTracking();
    const DefaultState state{StatePiece::BlendFunction};
    Targets targets(size);
    if (!targets.hasRoom)
        return;
    // Before the program, which is built for the maps that there are.
    model.surfaceData(0);
    buildPrograms();
    if (!_fbo) {
        _fbo = new FramebufferObject;
        _fbo->setLabel(_name);
    }
    const AutoBinder fbo(_fbo);
    constexpr float kNothing[4] = {};
    for (Texture *cleared : {targets.sum, targets.empty}) {
        _fbo->attach(cleared, GL_COLOR_ATTACHMENT0, 0);
        _fbo->setDrawBuffers();
        glClearBufferfv(GL_COLOR, 0, kNothing);
    }
    _fbo->detachAll();
    glViewport(0, 0, size.width(), size.height());

    const int limit = layerLimit();
    SampleCount samples;
    const bool isCounted = samples.isMade() && !hostCountsSamples();
    const int most = limit > 0 ? limit : isCounted ? kMostLayers : kUncountedLayers;
    if (!isCounted && _saidLimit != most) {
        _saidLimit = most;
        reportInput(InLayers,
                    u"cannot tell how many there are while the host counts samples; %1 are drawn"_s.arg(most));
    }
    bool isLeft = true;
    for (int layer = 0; layer <= most && isLeft; ++layer) {
        // One more than are shaded tells whether the limit leaves any out.
        if (layer == most && (_saidLimit == most || !isCounted))
            break;
        if (isCounted)
            samples.begin();
        isLeft = drawLayer(model, targets, layer, solid);
        if (isCounted) {
            samples.end();
            isLeft = isLeft && samples.isAny();
        }
        if (isLeft && layer < most) {
            shadeLayer(targets, layer);
            addLayer(targets);
        } else if (isLeft) {
            _saidLimit = most;
            reportInput(InLayers,
                        u"%1 leaves out the layers behind them; 0 draws up to %2"_s.arg(most).arg(kMostLayers));
        }
    }

    putOver(targets, picture);
    _fbo->detachAll();
    handOut(_outputs[OutFrame], targets.frame, _numOutputUsers[OutFrame]);
    handOut(_outputs[OutSurfaces], targets.sum, _numOutputUsers[OutSurfaces]);
    // Handing out gave back the references that the targets have.
    std::erase_if(targets.taken, [&](Texture *texture) { return texture == targets.frame || texture == targets.sum; });
}

bool DepthPeelingPass::drawLayer(GPUModel &model, const Targets &targets, int layer, Texture *solid)
{
    for (std::size_t i = 0; i < kSurfaceTargets.size(); ++i) {
        Texture *target = i == Targets::SurfaceDepth ? targets.depth(layer)
                          : i == Targets::SurfaceId  ? targets.id(layer)
                                                     : targets.surface[i];
        _fbo->attach(target, kSurfaceTargets[i].attachment, 0);
    }
    _fbo->setDrawBuffers();
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    glEnable(GL_DEPTH_TEST);
    bool isDrawn = false;
    {
        const AutoBinder program(_surfaces);
        const auto camera = qvariant_cast<QMatrix4x4>(_inputs[InCameraMatrix].value);
        _surfaces->setUniform(u"u_ProjectionMatrix"_s, _inputs[InProjectionMatrix].value);
        _surfaces->setUniform(u"u_CameraMatrix"_s, camera);
        _surfaces->setUniform(u"u_NormalMatrix"_s, camera.inverted().transposed());
        _surfaces->setUniform(u"u_HasBefore"_s, layer > 0);
        _surfaces->setUniform(u"u_HasSolid"_s, solid != nullptr);
        BoundTextures textures(_surfaces);
        textures.add(u"u_BeforeDepth"_s, layer > 0 ? targets.depth(layer - 1) : targets.empty);
        textures.add(u"u_BeforeId"_s, layer > 0 ? targets.id(layer - 1) : targets.empty);
        textures.add(u"u_SolidDepth"_s, solid ? solid : targets.empty);
        isDrawn = model.draw(_surfaces, 0, 0, CounterClockwiseWinding, false, GPUModel::Opacity::Mixed);
    }
    glDisable(GL_DEPTH_TEST);
    _fbo->detachAll();
    return isDrawn;
}

void DepthPeelingPass::shadeLayer(const Targets &targets, int layer)
{
    _fbo->attach(targets.shaded, GL_COLOR_ATTACHMENT0, 0);
    _fbo->attach(targets.mark, GL_DEPTH_ATTACHMENT, 0);
    _fbo->setDrawBuffers();
    constexpr float kUnmarked = 0.0f;
    glClearBufferfv(GL_DEPTH, 0, &kUnmarked);
    glEnable(GL_DEPTH_TEST);
    {
        glDepthFunc(GL_ALWAYS);
        glDepthRange(kMarked, kMarked);
        const AutoBinder program(_mark);
        BoundTextures textures(_mark);
        textures.add(u"u_Depth"_s, targets.depth(layer));
        drawScreenQuad(_mark);
    }
    glDepthMask(GL_FALSE);
    glDepthFunc(GL_LEQUAL);
    glDepthRange(kInFront, kInFront);
    {
        const AutoBinder program(_program);
        BoundTextures textures(_program);
        for (int i = InLayers + 1; i < numInputs(); ++i) {
            if (const QString name = inputName(i); name.startsWith(kTexturePrefix)) {
                Texture *texture = textureFromVariant(_inputs[i].value);
                textures.add(u"u_"_s + name.sliced(kTexturePrefix.size()), texture ? texture : targets.empty);
            }
        }
        textures.add(u"u_BaseColor"_s, targets.surface[0]);
        textures.add(u"u_Surface"_s, targets.surface[1]);
        textures.add(u"u_Emission"_s, targets.surface[2]);
        textures.add(u"u_Normal"_s, targets.surface[3]);
        textures.add(u"u_Depth"_s, targets.depth(layer));
        setUniforms();
        drawScreenQuad(_program);
        releaseRecord();
    }
    _fbo->detachAll();
}

void DepthPeelingPass::addLayer(const Targets &targets)
{
    _fbo->attach(targets.sum, GL_COLOR_ATTACHMENT0, 0);
    _fbo->attach(targets.mark, GL_DEPTH_ATTACHMENT, 0);
    _fbo->setDrawBuffers();
    glEnable(GL_BLEND);
    glBlendFunc(GL_ONE_MINUS_DST_ALPHA, GL_ONE);
    {
        const AutoBinder program(_under);
        BoundTextures textures(_under);
        textures.add(u"u_Layer"_s, targets.shaded);
        drawScreenQuad(_under);
    }
    glDisable(GL_BLEND);
    glDisable(GL_DEPTH_TEST);
    glDepthRange(0.0, 1.0);
    glDepthFunc(GL_LESS);
    glDepthMask(GL_TRUE);
    _fbo->detachAll();
}

void DepthPeelingPass::putOver(const Targets &targets, Texture *picture)
{
    _fbo->attach(targets.frame, GL_COLOR_ATTACHMENT0, 0);
    _fbo->setDrawBuffers();
    const AutoBinder program(_over);
    _over->setUniform(u"u_HasPicture"_s, picture != nullptr);
    BoundTextures textures(_over);
    textures.add(u"u_Surfaces"_s, targets.sum);
    textures.add(u"u_Picture"_s, picture ? picture : targets.empty);
    drawScreenQuad(_over);
}

} // namespace Brevane::Kvo
