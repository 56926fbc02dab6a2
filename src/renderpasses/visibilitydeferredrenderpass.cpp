#include "renderpasses/visibilitydeferredrenderpass.h"

#include "core/hostcode.h"
#include "gl/bindings.h"
#include "gl/bufferobject.h"
#include "gl/drawbuffers.h"
#include "gl/fallenshort.h"
#include "gl/framebufferobject.h"
#include "gl/glinfo.h"
#include "gl/glslmacroprocessor.h"
#include "gl/guards.h"
#include "gl/opengldevicecontext.h"
#include "gl/shaderprogram.h"
#include "gl/storage.h"
#include "gl/texture.h"
#include "gl/texturemanager.h"
#include "gl/vertexarrayobject.h"
#include "model/gpumodel.h"
#include "model/instancedatacollection.h"
#include "passkit/fragmentlists.h"
#include "passkit/lighting.h"
#include "passkit/limits.h"
#include "passkit/programs.h"
#include "passkit/slots.h"
#include "passkit/statetable.h"
#include "passkit/targets.h"

#include <QMatrix4x4>

#include <epoxy/gl.h>

#include <algorithm>

#include <optional>

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("VisibilityDeferredRenderPass");

enum Input { kViewport, kProjectionMatrix, kCameraMatrix, kHeadPointers, kNodeBuffer, kNodeBufferWidth, kGeometry };
enum Output { kFrame };
enum BufferView { kVertices, kTexCoords, kNormals, kIndices };

constexpr TargetFormat kTarget{GL_RGBA, GL_BGRA, GL_UNSIGNED_BYTE, GL_NEAREST};

const QString kFragmentShaderHead = QStringLiteral(R"(#version 150
#include "VisibilityBuffer.glslh"
#include "TextureManager.glslh"
#instancedata "InstanceInfo"
#instancedata "OBJMaterial"

#define MOST_FRAGMENTS 65536

uniform mat4 u_NormalMatrix;

in vec2 vo_TexCoord;

out vec4 out_FragColor;

float alphaBlend(float frontAlpha, float backAlpha)
{
  return clamp(frontAlpha + (1.0 - frontAlpha) * backAlpha, 0.0, 1.0);
}
)");

// Alpha starts at 1 and is the transmittance so far, for blending front to back.
const QString kFragmentShaderMain = QStringLiteral(R"(
void main()
{
  vec4 output0 = vec4(0,0,0,1);
  uint pointer; // pixels without fragments are told by the stencil, before this program runs
  initializeVisibilityBufferQuery(vo_TexCoord,pointer);

  // A list that leads back into itself, as one read at a wrong width may, ends too: where it comes by the place
  // that was marked last. Marks get farther and farther apart, so one will lie in the circle, and be as far from
  // itself as the circle is long.
  uint mark = 0u;
  for(int fragments = 1; fragments <= MOST_FRAGMENTS && doesVisibilityBufferHaveFragment(pointer); ++fragments)
  {
    if(pointer == mark)
      break;
    if((fragments & (fragments - 1)) == 0)
      mark = pointer;
    vec4 Position;
    float Depth;
    vec3 Normal;
    vec2 TexCoord;
    getFragmentInfo(vo_TexCoord,pointer,Position,Depth,Normal,TexCoord);

    vec3 Kd = getKd() * managedTexture(getMap_Kd(),TexCoord).rgb;
    vec3 Ks = getKs() * managedTexture(getMap_Ks(),TexCoord).rgb;
    vec3 L = normalize(vec3(100, 100, 100));
    // The transposed inverse of camera times model matrix, from those of both.
    Normal = ( u_NormalMatrix * (getModelNormalMatrix() * vec4(Normal,1.0))).rgb;
    vec3 color = directionalLight(Kd, Ks, getNs(), Normal, L);
    float alpha = getD();

    output0.rgb = mix(output0.rgb,color.rgb,alpha);
    output0.a = alphaBlend(alpha,output0.a);
    output0.rgb = output0.a*alpha*color + output0.rgb;
    output0.a = (1-alpha)*output0.a;
    if(alpha>=1.0)
      break;
  }
  out_FragColor = output0;
}
)");

const ProgramRecipe &shadingProgram()
{
    static const ProgramRecipe recipe{
        QStringLiteral("VisibilityDeferredRenderPass"),
        {QStringLiteral("out_FragColor")},
        {{GL_VERTEX_SHADER, ShaderSource::Text, kScreenVertexShader},
         {GL_FRAGMENT_SHADER, ShaderSource::Text, kFragmentShaderHead + kDirectionalLight + kFragmentShaderMain},
         {GL_FRAGMENT_SHADER, ShaderSource::File, QStringLiteral("VisibilityBuffer.glslc")},
         {GL_FRAGMENT_SHADER, ShaderSource::File, QStringLiteral("TextureManager.glslc")},
         {GL_FRAGMENT_SHADER, ShaderSource::Plan, QStringLiteral("InstanceInfo")},
         {GL_FRAGMENT_SHADER, ShaderSource::Plan, QStringLiteral("OBJMaterial")}}};
    return recipe;
}

const QString kMarkingShader = QStringLiteral(R"(#version 150
#include "VisibilityBuffer.glslh"

in vec2 vo_TexCoord;

void main()
{
  uint pointer;
  initializeVisibilityBufferQuery(vo_TexCoord,pointer);
  if(!doesVisibilityBufferHaveFragment(pointer))
    discard;
}
)");

const ProgramRecipe &markingProgram()
{
    static const ProgramRecipe recipe{
        QStringLiteral("VisibilityDeferredRenderPass mark"),
        {},
        {{GL_VERTEX_SHADER, ShaderSource::Text, kScreenVertexShader},
         {GL_FRAGMENT_SHADER, ShaderSource::Text, kMarkingShader},
         {GL_FRAGMENT_SHADER, ShaderSource::File, QStringLiteral("VisibilityBuffer.glslc")},
         {GL_FRAGMENT_SHADER, ShaderSource::Plan, QStringLiteral("InstanceInfo")}}};
    return recipe;
}

bool hasThreeComponentViews()
{
    const QSharedPointer<OpenGLDeviceContext> context = OpenGLDeviceContext::current();
    return (context && context->version() >= 40) || hasGLExtension("ARB_texture_buffer_object_rgb32");
}

Texture *bufferView(const QSharedPointer<BufferObject> &buffer, unsigned int format)
{
    auto *view = new Texture(nullptr);
    view->setTarget(GL_TEXTURE_BUFFER);
    AutoBinder bound(view);
    if (!bound.isBound()) {
        noteFallenShort(view);
        return view;
    }
    settleActiveUnit();
    glTexBuffer(GL_TEXTURE_BUFFER, format, buffer->getBO());
    return view;
}

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport", .meaning = "size of the frame", .kind = SlotKind::Area, .unit = "pixels"},
    {.name = "Kvo_QMatrix4x4_ProjectionMatrix",
     .meaning = "camera to clip space, as the lists were recorded",
     .kind = SlotKind::Matrix},
    {.name = "Kvo_QMatrix4x4_CameraMatrix",
     .meaning = "world to camera space, as the lists were recorded",
     .kind = SlotKind::Matrix},
    {.name = "Kvo_KvoTexture*_HeadPointers",
     .meaning = "head pointers; none: the frame is only cleared",
     .kind = SlotKind::Texture},
    {.name = "Kvo_KvoTexture*_NodeBuffer",
     .meaning = "nodes; none: the frame is only cleared",
     .kind = SlotKind::Texture},
    {.name = "Kvo_int_NodeBufferWidth",
     .meaning = "texels in a row of the node buffer",
     .kind = SlotKind::Count,
     .unit = "texels",
     .range = {0, kWidestNodeBuffer, 1}},
    {.name = "Kvo_KvoGPUModel*_Geometry",
     .meaning = "the recorded model; none: the frame is only cleared",
     .kind = SlotKind::Model},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Frame",
     .meaning = "colour, and in alpha the transmittance behind the last fragment",
     .kind = SlotKind::Texture,
     .format = "GL_RGBA, 8 bits, nearest"},
};

constexpr PassInfo kInfo = {"VisibilityDeferredRenderPass",
                            "shades sorted fragment lists: the last step of exact transparency", Reach::texels(0),
                            kInputInfo, kOutputInfo};

} // namespace

VisibilityDeferredRenderPass::VisibilityDeferredRenderPass()
{
    setTextureForm(TextureForm::Object);
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), kViewport);
    addInput(QStringLiteral("Kvo_QMatrix4x4_ProjectionMatrix"), QVariant(), kProjectionMatrix);
    addInput(QStringLiteral("Kvo_QMatrix4x4_CameraMatrix"), QVariant(), kCameraMatrix);
    addInput(QStringLiteral("Kvo_KvoTexture*_HeadPointers"), QVariant(), kHeadPointers);
    addInput(QStringLiteral("Kvo_KvoTexture*_NodeBuffer"), QVariant(), kNodeBuffer);
    addInput(QStringLiteral("Kvo_int_NodeBufferWidth"), QVariant(), kNodeBufferWidth);
    addInput(QStringLiteral("Kvo_KvoGPUModel*_Geometry"), QVariant(), kGeometry);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Frame"), kFrame);
    describe(kInfo);
}

VisibilityDeferredRenderPass::VisibilityDeferredRenderPass(const VisibilityDeferredRenderPass &other) = default;
VisibilityDeferredRenderPass &VisibilityDeferredRenderPass::operator=(const VisibilityDeferredRenderPass &other) =
    default;

VisibilityDeferredRenderPass::~VisibilityDeferredRenderPass() = default;

void VisibilityDeferredRenderPass::start(RenderCallbacks *)
{
    const BindingScope scope;
    if (!scope)
        return;
    const Extent extent = extentOf(*this, kViewport);
    const auto textureOr = [this](int input) {
        Texture *texture = objectTexture(*this, input);
        return texture ? texture : _fallbackTexture.get();
    };
    Texture *headPointers = textureOr(kHeadPointers);
    Texture *nodeBuffer = textureOr(kNodeBuffer);
    const int nodeBufferWidth = nodeBufferWidthOf(*this, kNodeBufferWidth);
    GPUModel *model = modelOf(_inputs[kGeometry].value);
    DrawBuffers *geometry = model ? model->drawBuffers(0) : nullptr;
    if (geometry && !geometry->isUsable())
        geometry = nullptr; // of another share group, say

    // Views of another share group read as null, and those that the driver could not make.
    if (std::any_of(_bufferTextures.cbegin(), _bufferTextures.cend(), [](const Held<Texture> &view) { return !view; }))
        _bufferTextures.clear();
    if (_bufferTextures.isEmpty() && geometry)
        makeBufferTextures(*geometry);
    if (needsTargets(_fbo, "VisibilityDeferredRenderPass", extent, _width, _height)) {
        AutoBinder fbo(_fbo);
        replaceTarget(_fbo, GL_COLOR_ATTACHMENT0, kTarget, extent);
        attachListStencil(_fbo, extent);
    }
    if (!_shaderProgram) {
        _macroProcessor = std::make_shared<GLSLMacroProcessor>();
        DrawBuffers::setup(_macroProcessor.get());
        _macroProcessor->addDefine(QStringLiteral("KVO_WORLD_TO_CLIP"), QStringLiteral("1"));
        if (!hasThreeComponentViews())
            _macroProcessor->addDefine(QStringLiteral("KVO_SCALAR_BUFFERS"), QStringLiteral("1"));
    }
    buildOnce(_markingProgram, markingProgram(), _macroProcessor.get());
    buildOnce(_shaderProgram, shadingProgram(), _macroProcessor.get());
    fetchOnce(_screenQuad, Quad::Screen, _shaderProgram);

    if (!extent.isEmpty()) {
        const NeutralState neutral(kState);
        AutoBinder fbo(_fbo);
        _fbo->setDrawBuffers();
        glClear(GL_COLOR_BUFFER_BIT);
        const QSharedPointer<UniformBufferObject> commands =
            geometry ? geometry->getDrawElementsIndirectCommandsUniformBufferObject() : nullptr;
        // Without commands or buffers there are no fragments either.
        if (commands && headPointers && nodeBuffer && nodeBufferWidth > 0 && !_bufferTextures.isEmpty())
            shade(*model, *geometry, commands, headPointers, nodeBuffer);
    }
    _outputs[kFrame].value = objectForm(_fbo->attachment(GL_COLOR_ATTACHMENT0));
}

void VisibilityDeferredRenderPass::shade(GPUModel &model, DrawBuffers &geometry,
                                         const QSharedPointer<UniformBufferObject> &commands, Texture *headPointers,
                                         Texture *nodeBuffer)
{
    const auto camera = qvariant_cast<QMatrix4x4>(_inputs[kCameraMatrix].value);
    const auto projection = qvariant_cast<QMatrix4x4>(_inputs[kProjectionMatrix].value);
    const int nodeBufferWidth = nodeBufferWidthOf(*this, kNodeBufferWidth);
    // Views made of an indexed model have the indices as their last entry.
    const bool indexed = geometry.indexBO() && _bufferTextures.size() > kIndices;

    if (!_screenQuad)
        return;
    AutoDisabler depthTest(GL_DEPTH_TEST);
    AutoBinder boundHeadPointers(headPointers);
    const OwnUse ownUse(nodeBuffer);
    AutoBinder boundNodeBuffer(nodeBuffer);
    AutoBinder quad(_screenQuad);
    const auto setLists = [&](ShaderProgram &program) {
        const auto setUniform = [&program](const QString &name, int value) {
            if (program.hasUniform(name))
                program.setUniform(name, value);
        };
        setUniform(QStringLiteral("u_SamplerHeadPointer"), headPointers->unit());
        setUniform(QStringLiteral("u_SamplerNodeBuffer"), nodeBuffer->unit());
        setUniform(QStringLiteral("u_SamplerNodeBufferWidth"), nodeBufferWidth);
    };
    std::optional<MarkedPixels> listed;
    {
        AutoBinder marking(_markingProgram);
        if (!marking.isBound())
            return;
        setLists(*_markingProgram);
        listed.emplace(*_screenQuad);
    }

    AutoBinder program(_shaderProgram);
    if (!program.isBound())
        return;
    AutoBinder vertices(_bufferTextures[kVertices]);
    AutoBinder texCoords(_bufferTextures[kTexCoords]);
    AutoBinder normals(_bufferTextures[kNormals]);
    AutoBinder indices(indexed ? _bufferTextures[kIndices].get() : nullptr);

    const auto setUniform = [this](const QString &name, const auto &value) {
        if (_shaderProgram->hasUniform(name))
            _shaderProgram->setUniform(name, value);
    };
    setLists(*_shaderProgram);
    setUniform(QStringLiteral("u_VertexBuffer"), _bufferTextures[kVertices]->unit());
    setUniform(QStringLiteral("u_texCoordBuffer"), _bufferTextures[kTexCoords]->unit());
    setUniform(QStringLiteral("u_NormalBuffer"), _bufferTextures[kNormals]->unit());
    if (indexed)
        setUniform(QStringLiteral("u_IndexBuffer"), _bufferTextures[kIndices]->unit());
    setUniform(QStringLiteral("kvo_worldToClip"), projection * camera);
    setUniform(QStringLiteral("u_NormalMatrix"), camera.inverted().transposed());
    setUniform(QStringLiteral("u_indexedDraw"), indexed);

    AutoBinder boundCommands(commands);
    InstanceDataCollection *materialData = model.materialData(0);
    InstanceDataCollection *objectData = model.objectData(0);
    materialData->bind(_shaderProgram, nullptr);
    objectData->bind(_shaderProgram, nullptr);
    TextureManager::Instance().bindManagedTextures(_shaderProgram);
    _screenQuad->draw();
    TextureManager::Instance().unbindManagedTextures(_shaderProgram);
    objectData->unbind(_shaderProgram, nullptr);
    materialData->unbind(_shaderProgram, nullptr);
}

void VisibilityDeferredRenderPass::makeBufferTextures(DrawBuffers &geometry)
{
    const QSharedPointer<VertexArrayObject> arrays = geometry.VAO();
    if (!arrays)
        return;
    const auto vertices = arrays->bo(QStringLiteral("va_Vertex"));
    const auto texCoords = arrays->bo(QStringLiteral("va_TexCoord"));
    const auto normals = arrays->bo(QStringLiteral("va_Normal"));
    if (!vertices || !texCoords || !normals)
        return;
    const unsigned int threeComponents = hasThreeComponentViews() ? GL_RGB32F : GL_R32F;
    const auto append = [this](const QSharedPointer<BufferObject> &buffer, unsigned int format) {
        _bufferTextures.append(Held<Texture>());
        _bufferTextures.last() = bufferView(buffer, format);
    };
    append(vertices, threeComponents);
    append(texCoords, GL_RG32F);
    append(normals, threeComponents);
    if (const auto indices = geometry.indexBO())
        append(indices, GL_R32I);
    const int limit = DrawBuffers::maxShaderReadableCommands();
    if (geometry.drawElementsIndirectCommandCount() > limit) {
        const HostCode hostCode;
        qWarning("VisibilityDeferredRenderPass: the model has %d draws and the shader reads %d; fragments of the "
                 "others are shaded without normal and texture coordinate",
                 geometry.drawElementsIndirectCommandCount(), limit);
    }
}

} // namespace Brevane::Kvo
