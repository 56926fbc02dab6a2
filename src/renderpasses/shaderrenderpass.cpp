#include "renderpasses/shaderrenderpass.h"

#include "core/hostcode.h"
#include "gl/bindings.h"
#include "gl/drawbuffers.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/shaderprogram.h"
#include "gl/texture.h"
#include "gl/vertexarrayobject.h"
#include "passkit/limits.h"
#include "passkit/pool.h"
#include "passkit/programs.h"
#include "passkit/slots.h"
#include "passkit/statetable.h"
#include "passkit/targets.h"

#include <QColor>
#include <QRegularExpression>
#include <QVarLengthArray>

#include <epoxy/gl.h>

#include <typeinfo>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace Brevane::Kvo {

namespace {

const StateRow &kState = stateRow("ShaderRenderPass");

const QString kFragmentShader = QStringLiteral(R"(#version 150

uniform sampler2D u_Input;

in vec2 vo_TexCoord;

out vec4 out_FragColor;

void main()
{
  out_FragColor = texture(u_Input,vo_TexCoord);
}
)");

constexpr QLatin1StringView kTexturePrefix("Kvo_KvoTexture*_");
constexpr QLatin1StringView kGeometryPrefix("Kvo_KvoDrawBuffers*_");

const QString &viewportName()
{
    static const QString name = QStringLiteral("Kvo_QRect_Viewport");
    return name;
}

QString uniformName(const QString &slot, QLatin1StringView prefix)
{
    return QStringLiteral("u_") + slot.mid(prefix.size());
}

// Filters and wrap, which only some kinds of textures have.
void setLinearWhereItFilters(Texture &texture)
{
    switch (texture.target()) {
    case GL_TEXTURE_BUFFER:
    case GL_TEXTURE_2D_MULTISAMPLE:
    case GL_TEXTURE_2D_MULTISAMPLE_ARRAY: return;
    default: break;
    }
    setLinearClamped(&texture);
}

// As many of the wanted colour targets as the driver can draw to at a time; 8 are always there.
int drawableTargets(int wanted)
{
    if (wanted <= 8)
        return wanted;
    GLint attachments = 0;
    GLint drawBuffers = 0;
    glGetIntegerv(GL_MAX_COLOR_ATTACHMENTS, &attachments);
    glGetIntegerv(GL_MAX_DRAW_BUFFERS, &drawBuffers);
    return std::min({wanted, attachments, drawBuffers});
}

bool isPlainUniform(int type)
{
    switch (type) {
    case QMetaType::Bool:
    case QMetaType::Int:
    case QMetaType::Double:
    case QMetaType::Float:
    case QMetaType::QRect:
    case QMetaType::QSize:
    case QMetaType::QColor:
    case QMetaType::QMatrix4x4:
    case QMetaType::QVector2D:
    case QMetaType::QVector3D:
    case QMetaType::QVector4D: return true;
    default: return false;
    }
}

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport",
     .meaning = "size of the targets; none: of the first connected image",
     .kind = SlotKind::Area,
     .unit = "pixels"},
};

constexpr PassInfo kInfo = {"ShaderRenderPass",
                            "runs a program of yours over textures or geometry, with slots that you name",
                            Reach::wholeFrame(),
                            kInputInfo,
                            {}};

} // namespace

ShaderRenderPass::ShaderRenderPass()
    : _vertexShaderSource(kScreenVertexShader), _fragmentShaderSource(kFragmentShader),
      _name(QStringLiteral("ShaderRenderPass"))
{
    addInput(viewportName(), QVariant(), 0);
    describe(kInfo);
}

ShaderRenderPass::ShaderRenderPass(const ShaderRenderPass &other) = default;
ShaderRenderPass &ShaderRenderPass::operator=(const ShaderRenderPass &other) = default;

ShaderRenderPass::~ShaderRenderPass() = default;

void ShaderRenderPass::setVertexShaderSource(const QString &source)
{
    _vertexShaderSource = source;
}

void ShaderRenderPass::setFragmentShaderSource(const QString &source)
{
    _fragmentShaderSource = source;
}

void ShaderRenderPass::setGeometryShaderSource(const QString &source)
{
    _geometryShaderSource = source;
}

void ShaderRenderPass::setTessellationControlShaderSource(const QString &source)
{
    _tessellationControlShaderSource = source;
}

void ShaderRenderPass::setTessellationEvaluationShaderSource(const QString &source)
{
    _tessellationEvaluationShaderSource = source;
}

void ShaderRenderPass::setClear(bool clear)
{
    _clear = clear;
}

void ShaderRenderPass::setBlend(BlendMode mode)
{
    _blend = mode;
}

void ShaderRenderPass::setName(const QString &name)
{
    _name = name;
}

// Appends without clearing: slots are complete before the first start, so this runs once. After that
// the number of names differs from the number of inputs for good.
void ShaderRenderPass::_readSlotNames()
{
    for (int i = 0; i < numInputs(); ++i) {
        QString name = inputName(i);
        if (name.startsWith(kTexturePrefix)) {
            _textureInputs.append(i);
            name = uniformName(name, kTexturePrefix);
            _samplerNames.append(name);
        } else if (name.startsWith(kGeometryPrefix)) {
            _geometryInput = i;
            name = uniformName(name, kGeometryPrefix);
        }
        _uniformNames.append(name.toUtf8());
    }
    for (int i = 0; i < numOutputs(); ++i) {
        if (outputName(i).startsWith(kTexturePrefix))
            _textureOutputs.append(i);
    }
}

void ShaderRenderPass::_buildProgram()
{
    ProgramRecipe recipe;
    recipe.label = _name;
    // Plain uniforms that no slot sets keep what they had, so they must be this pass's own.
    recipe.mayShare = false;
    for (int i : std::as_const(_textureOutputs))
        recipe.outputs.append(QStringLiteral("o_") + outputName(i).mid(kTexturePrefix.size()));
    recipe.sources = {{GL_VERTEX_SHADER, ShaderSource::Text, _vertexShaderSource},
                      {GL_FRAGMENT_SHADER, ShaderSource::Text, _fragmentShaderSource}};
    for (const ShaderSource &optional :
         {ShaderSource{GL_GEOMETRY_SHADER, ShaderSource::Text, _geometryShaderSource},
          ShaderSource{GL_TESS_CONTROL_SHADER, ShaderSource::Text, _tessellationControlShaderSource},
          ShaderSource{GL_TESS_EVALUATION_SHADER, ShaderSource::Text, _tessellationEvaluationShaderSource}}) {
        if (!optional.content.isEmpty())
            recipe.sources.push_back(optional);
    }
    buildOnce(_program, recipe);
    _areWholeNumbers.clear();
    for (const QString &name : std::as_const(_samplerNames)) {
        const QRegularExpression declared(u"\\b[iu]sampler\\w+\\s+%1\\b"_s.arg(QRegularExpression::escape(name)));
        _areWholeNumbers.append(std::any_of(recipe.sources.cbegin(), recipe.sources.cend(),
                                            [&](const auto &source) { return source.content.contains(declared); }));
    }
}

void ShaderRenderPass::start(RenderCallbacks *)
{
    const BindingScope scope;
    if (!scope)
        return;
    bool clear = _clear;
    Extent extent;
    if (const int viewport = findInput(viewportName()); viewport >= 0)
        extent = extentOf(*this, viewport);
    if (numInputs() != _uniformNames.size())
        _readSlotNames();

    QVarLengthArray<Texture *, 256> textures(numInputs(), nullptr);
    for (int i : std::as_const(_textureInputs)) {
        textures[i] = anyTexture(_inputs[i].value);
        if (!textures[i]) {
            textures[i] = transparentTexel(_defaultTexture);
        } else if (extent.width == 0) {
            extent = sizeOf(textures[i]);
        }
    }
    DrawBuffers *geometry = _geometryInput == -1 ? nullptr : anyDrawBuffers(_inputs[_geometryInput].value);

    made(_fbo, "ShaderRenderPass");
    extent = {std::max(extent.width, 1), std::max(extent.height, 1)};
    if (extent != Extent{_width, _height}) {
        _width = extent.width;
        _height = extent.height;
        clear = true;
    }

    const NeutralState neutral(kState);
    AutoBinder fbo(_fbo);
    const int targets = drawableTargets(int(_textureOutputs.size()));
    for (int t = 0; t < targets; ++t)
        _fbo->attach(tempTexture(TextureFormat::Result, extent), GL_COLOR_ATTACHMENT0 + GLenum(t), 0);
    if (!_program) {
        _buildProgram();
        if (targets < _textureOutputs.size()) {
            const HostCode hostCode;
            qWarning("ShaderRenderPass '%s': the driver draws to %d of %d outputs at a time; '%s' and those behind it "
                     "stay empty",
                     qPrintable(_name), targets, int(_textureOutputs.size()),
                     qPrintable(outputName(_textureOutputs[targets])));
        }
    }
    if (!geometry)
        fetchOnce(_quad, Quad::Gradient, _program);

    _fbo->setDrawBuffers();
    glDisable(GL_DEPTH_TEST);
    if (_blend == BlendNone) {
        glDisable(GL_BLEND);
    } else {
        glEnable(GL_BLEND);
        if (_blend == BlendAdd)
            glBlendFunc(GL_ONE, GL_ONE);
        else // the other way round than usual: a source of alpha 0 covers
            glBlendFunc(GL_ONE_MINUS_SRC_ALPHA, GL_SRC_ALPHA);
    }
    if (clear && targets > 0)
        glClear(GL_COLOR_BUFFER_BIT);

    {
        AutoBinder program(_program);
        for (qsizetype s = 0; s < _textureInputs.size(); ++s) {
            Texture *texture = textures[_textureInputs[s]];
            if (!texture || !texture->bind())
                continue;
            if (!_areWholeNumbers.value(s))
                setLinearWhereItFilters(*texture);
            _program->setUniform(_samplerNames[s], texture->unit());
        }
        if (typeid(*this) == typeid(ShaderRenderPass)) {
            setUniforms();
        } else {
            const HostCode hostCode;
            setUniforms();
        }
        glViewport(0, 0, _width, _height);

        DrawBuffers *drawn = geometry ? geometry : _quad.data();
        const bool tessellates = !_tessellationEvaluationShaderSource.isEmpty();
        const bool canDraw =
            targets > 0 && drawn && drawn->VAO() && tessellates == (drawn->primitiveType() == GL_PATCHES);
        if (canDraw && geometry) {
            enableArrays(*geometry, _program);
            AutoBinder bound(geometry);
            AutoEnabler pointSize(GL_PROGRAM_POINT_SIZE);
            geometry->draw();
        } else if (canDraw) {
            AutoBinder quad(_quad);
            _quad->draw();
        }

        // The last one first: each makes the unit active that was active at its bind.
        for (auto i = _textureInputs.crbegin(); i != _textureInputs.crend(); ++i) {
            if (textures[*i])
                textures[*i]->unbind();
        }
        if (_blend != BlendNone)
            glDisable(GL_BLEND);
    }

    for (int t = 0; t < targets; ++t) {
        const GLenum point = GL_COLOR_ATTACHMENT0 + GLenum(t);
        const int output = _textureOutputs[t];
        Texture *texture = _fbo->attachment(point);
        _outputs[output].value = typedForm(texture);
        TextureManager::Instance().addTempTextureRef(texture, _numOutputUsers[output]);
        _fbo->detach(point);
        release(texture);
    }
    for (int i : std::as_const(_textureInputs))
        release(textures[i]);
}

void ShaderRenderPass::setUniforms()
{
    for (const PassSlot &slot : std::as_const(_inputs)) {
        if (isPlainUniform(slot.value.metaType().id()) && _program->hasUniform(slot.name))
            _program->setUniform(slot.name, slot.value);
    }
}

} // namespace Brevane::Kvo
