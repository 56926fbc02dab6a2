#include "host/pickpass.h"

#include "core/liveobjects.h"
#include "gl/contextscope.h"
#include "gl/framebufferobject.h"
#include "gl/guards.h"
#include "gl/hoststate.h"
#include "gl/pixelstore.h"
#include "gl/pooledtexture.h"
#include "gl/sampling.h"
#include "gl/shaderprogram.h"
#include "gl/texture.h"
#include "gl/texturemanager.h"
#include "model/gpumodel.h"
#include "modelprogram.h"
#include "pooledoutput.h"
#include "viewportsize.h"

#include <epoxy/gl.h>

#include <QMatrix4x4>

#include <algorithm>
#include <array>

namespace Brevane::Kvo {

namespace {

const QString kVertexShader = QStringLiteral(R"(#version 150
#instancedata "InstanceInfo"

uniform mat4 u_ToClip;

in vec3 va_Vertex;

out vec3 vo_World;

void main()
{
  vec4 world = getModelMatrix() * vec4(va_Vertex, 1.0);
  vo_World = world.xyz / world.w;
  gl_Position = u_ToClip * world;
}
)");

const QString kFragmentShader = QStringLiteral(R"(#version 150
#include "InstanceData.glslh"

in vec3 vo_World;

out uvec4 out_Item;
out vec4 out_Position;

void main()
{
  out_Item = uvec4(uint(KVO_CURRENT_DRAW) + 1u, uint(gl_PrimitiveID) + 1u, 0u, 0u);
  out_Position = vec4(vo_World, 1.0);
}
)");

// Clip space of the picture to that of an area in it.
QMatrix4x4 enlargement(const QRect &area, const QSize &picture)
{
    const float x = float(picture.width()) / float(area.width());
    const float y = float(picture.height()) / float(area.height());
    QMatrix4x4 matrix;
    matrix.translate(x - float(2 * area.x() + area.width()) / float(area.width()),
                     y - float(2 * area.y() + area.height()) / float(area.height()));
    matrix.scale(x, y);
    return matrix;
}

constexpr SlotInfo kInputInfo[] = {
    {.name = "Kvo_QRect_Viewport", .meaning = "size of the picture", .kind = SlotKind::Area, .unit = "pixels"},
    {.name = "Kvo_QMatrix4x4_ProjectionMatrix", .meaning = "camera to clip space", .kind = SlotKind::Matrix},
    {.name = "Kvo_QMatrix4x4_CameraMatrix", .meaning = "world to camera space", .kind = SlotKind::Matrix},
    {.name = "Kvo_KvoGPUModel*_Geometry", .meaning = "what is drawn, whatever its opacity", .kind = SlotKind::Model},
    {.name = "Kvo_QRect_Area",
     .meaning = "what the targets hold of the picture; none: all",
     .kind = SlotKind::Area,
     .unit = "pixels"},
};

constexpr SlotInfo kOutputInfo[] = {
    {.name = "Kvo_KvoTexture*_Item",
     .meaning = "item + 1, triangle + 1, 0, 0; all 0 where nothing is",
     .kind = SlotKind::Texture,
     .format = "pool format 11"},
    {.name = "Kvo_KvoTexture*_Position",
     .meaning = "world position, 1; all 0 where nothing is",
     .kind = SlotKind::Texture,
     .format = "pool format 6"},
};

constexpr PassInfo kInfo = {"PickPass", "draws which item and triangle of a model each pixel shows, and where",
                            Reach::texels(0), kInputInfo, kOutputInfo};

} // namespace

PickPass::PickPass()
{
    addInput(QStringLiteral("Kvo_QRect_Viewport"), QVariant(), kViewport);
    addInput(QStringLiteral("Kvo_QMatrix4x4_ProjectionMatrix"), QVariant(), kProjectionMatrix);
    addInput(QStringLiteral("Kvo_QMatrix4x4_CameraMatrix"), QVariant(), kCameraMatrix);
    addInput(QStringLiteral("Kvo_KvoGPUModel*_Geometry"), QVariant(), kGeometry);
    addInput(QStringLiteral("Kvo_QRect_Area"), QVariant(), kArea);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Item"), kItem);
    addOutput(QStringLiteral("Kvo_KvoTexture*_Position"), kPosition);
    describe(kInfo);
}

void PickPass::start(RenderCallbacks *)
{
    const ContextScope scope;
    if (!scope)
        return;
    for (PassSlot &output : _outputs)
        output.value = QVariant();
    const QRect picture(QPoint(), sizeInSlot(*this, kViewport));
    const QRect area = _inputs[kArea].value.toRect();
    _drawn = area.isValid() ? area & picture : picture;
    if (_drawn.isEmpty() || !hasRoomFor(*this, kViewport, _drawn.size())) {
        _drawn = QRect();
        return;
    }

    const DefaultState state{StatePiece::DepthTest};
    auto &pool = TextureManager::Instance();
    Texture *item = pool.tempTexture(TextureFormat::FourIndex32, _drawn.width(), _drawn.height());
    Texture *position = pool.tempTexture(TextureFormat::Position, _drawn.width(), _drawn.height());
    Texture *depth = pool.tempTexture(TextureFormat::Depth32, _drawn.width(), _drawn.height());
    // Beyond what the driver has room for, which the pool has said, a single texel stands in: nothing to look at.
    const std::array targets{item, position, depth};
    const bool hasRoom = std::all_of(targets.begin(), targets.end(), [this](Texture *texture) {
        const LevelInfo level = levelInfo(texture, GL_TEXTURE_2D);
        return QSize(level.width, level.height) == _drawn.size();
    });
    if (!hasRoom) {
        for (Texture *texture : targets)
            pool.releaseTempTextureRef(texture, 1);
        _drawn = QRect();
        return;
    }
    if (!_fbo) {
        _fbo = new FramebufferObject;
        _fbo->setLabel(QStringLiteral("PickPass"));
    }
    if (!_program)
        _program =
            modelProgram(QStringLiteral("PickPass"), {QStringLiteral("out_Item"), QStringLiteral("out_Position")},
                         kVertexShader, kFragmentShader);
    {
        const AutoBinder fbo(_fbo);
        _fbo->attach(item, GL_COLOR_ATTACHMENT0, 0);
        _fbo->attach(position, GL_COLOR_ATTACHMENT1, 0);
        _fbo->attach(depth, GL_DEPTH_ATTACHMENT, 0);
        _fbo->setDrawBuffers();
        glViewport(0, 0, _drawn.width(), _drawn.height());
        const GLuint nothing[4] = {};
        const GLfloat nowhere[4] = {};
        const GLfloat farthest = 1.0f;
        glClearBufferuiv(GL_COLOR, 0, nothing);
        glClearBufferfv(GL_COLOR, 1, nowhere);
        glClearBufferfv(GL_DEPTH, 0, &farthest);
        glEnable(GL_DEPTH_TEST);
        auto *model = qvariant_cast<GPUModel *>(_inputs[kGeometry].value);
        if (liveKindOf(model) == LiveKind::Model) {
            const AutoBinder program(_program);
            _program->setUniform(QStringLiteral("u_ToClip"),
                                 enlargement(_drawn, picture.size())
                                     * qvariant_cast<QMatrix4x4>(_inputs[kProjectionMatrix].value)
                                     * qvariant_cast<QMatrix4x4>(_inputs[kCameraMatrix].value));
            model->draw(_program, nullptr, 0, 0);
        }
        _fbo->detachAll();
    }
    handOut(_outputs[kItem], item, _numOutputUsers[kItem]);
    handOut(_outputs[kPosition], position, _numOutputUsers[kPosition]);
    pool.releaseTempTextureRef(depth, 1);
}

QVector<quint32> PickPass::readItems(const QRect &area) const
{
    const QRect part = (area & _drawn).translated(-_drawn.topLeft());
    Texture *texture = textureFromVariant(output(kItem));
    if (part.isEmpty() || !texture)
        return {};
    QVector<quint32> texels(qsizetype(part.width()) * part.height() * 4);
    FramebufferObject framebuffer;
    const AutoBinder bound(&framebuffer);
    framebuffer.attach(texture, GL_COLOR_ATTACHMENT0, 0);
    glReadBuffer(GL_COLOR_ATTACHMENT0);
    const DefaultPixelStore pixelStore;
    glReadPixels(part.x(), part.y(), part.width(), part.height(), GL_RGBA_INTEGER, GL_UNSIGNED_INT, texels.data());
    framebuffer.detachAll();
    return texels;
}

Pick PickPass::at(const QPoint &pixel) const
{
    const ContextScope scope;
    const QVector<quint32> texel = scope ? readItems(QRect(pixel, QSize(1, 1))) : QVector<quint32>();
    Texture *positions = textureFromVariant(output(kPosition));
    if (texel.isEmpty() || texel[0] == 0 || !positions)
        return {};
    Pick pick;
    pick.item = int(texel[0]) - 1;
    pick.triangle = int(texel[1]) - 1;
    FramebufferObject framebuffer;
    const AutoBinder bound(&framebuffer);
    framebuffer.attach(positions, GL_COLOR_ATTACHMENT0, 0);
    glReadBuffer(GL_COLOR_ATTACHMENT0);
    const DefaultPixelStore pixelStore;
    float position[4] = {};
    glReadPixels(pixel.x() - _drawn.x(), pixel.y() - _drawn.y(), 1, 1, GL_RGBA, GL_FLOAT, position);
    framebuffer.detachAll();
    pick.position = QVector3D(position[0], position[1], position[2]);
    return pick;
}

QVector<int> PickPass::itemsIn(const QRect &area) const
{
    const ContextScope scope;
    QVector<int> items;
    const QVector<quint32> texels = scope ? readItems(area) : QVector<quint32>();
    quint32 last = 0;
    for (qsizetype i = 0; i < texels.size(); i += 4) {
        if (texels[i] != last && texels[i] != 0)
            items.append(int(texels[i]) - 1);
        last = texels[i];
    }
    std::sort(items.begin(), items.end());
    items.erase(std::unique(items.begin(), items.end()), items.end());
    return items;
}

} // namespace Brevane::Kvo
