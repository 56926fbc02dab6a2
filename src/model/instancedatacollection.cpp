#include "model/instancedatacollection.h"

#include "core/hostcode.h"
#include "core/liveobjects.h"
#include "gl/bindings.h"
#include "gl/bufferobject.h"
#include "gl/contextstate.h"
#include "gl/guards.h"
#include "gl/shaderprogram.h"
#include "gl/texture.h"
#include "gl/texturemanager.h"
#include "model/instancedataplan.h"

#include <epoxy/gl.h>

namespace Brevane::Kvo {

InstanceDataCollection::InstanceDataCollection(const InstanceDataPlan *plan, QObject *parent)
    : QObject(parent), _plan(plan), _buffer(QSharedPointer<BufferObject>::create()),
      _texture(std::make_unique<Texture>())
{
    _buffer->setTarget(GL_TEXTURE_BUFFER);
    _texture->setTarget(GL_TEXTURE_BUFFER);
    _texture->setLabel(QStringLiteral("instance data %1").arg(plan->name()));
    enterLiveObject(static_cast<QObject *>(this), LiveKind::InstanceData);
}

InstanceDataCollection::~InstanceDataCollection()
{
    leaveLiveObject(static_cast<QObject *>(this));
}

const InstanceDataPlan *InstanceDataCollection::plan() const
{
    return _plan;
}

bool InstanceDataCollection::setData(const QVector<float> &data)
{
    const ContextState *state = ContextState::current();
    if (!state)
        return false;
    constexpr int kFloatsPerTexel = 4;
    GLint most = 0;
    glGetIntegerv(GL_MAX_TEXTURE_BUFFER_SIZE, &most);
    const qint64 texels = data.size() / kFloatsPerTexel;
    if (texels > most) {
        const HostCode hostCode;
        qCritical("Instance data \"%s\" of %lld draws is too large: this driver's texture buffers hold %d",
                  qPrintable(_plan->name()), qlonglong(texels / _plan->texelsPerDraw()), most / _plan->texelsPerDraw());
        return false;
    }
    _data = data;
    ++_revision;
    _drawCount = int(texels / _plan->texelsPerDraw());
    _shareGroup = state->group->id();
    return _upload();
}

bool InstanceDataCollection::_upload()
{
    _isUploaded = false;
    if (!_buffer->upload(_data.constData(), int(_data.size()), GL_STATIC_DRAW))
        return false;
    AutoBinder bound(_texture.get());
    if (!bound.isBound())
        return false;
    settleActiveUnit();
    glTexBuffer(GL_TEXTURE_BUFFER, GL_RGBA32F, _buffer->getBO());
    return _isUploaded = true;
}

int InstanceDataCollection::drawCount() const
{
    return _drawCount;
}

bool InstanceDataCollection::bind(ShaderProgram *program, TextureManager *manager)
{
    // What the driver had no room for it may have by now; in another share group there is nothing to mend.
    if (const ContextState *state = ContextState::current(); !_isUploaded && state && state->group->id() == _shareGroup)
        _upload();
    if (!program || !_texture->bind())
        return false;
    program->setUniform(_plan->samplerName(), _texture->unit());
    if (manager)
        manager->bindManagedTextures(program);
    return true;
}

bool InstanceDataCollection::unbind(ShaderProgram *program, TextureManager *manager)
{
    if (program && manager)
        manager->unbindManagedTextures(program);
    return _texture->unbind();
}

bool InstanceDataCollection::bind()
{
    const ContextState *state = ContextState::current();
    return state && bind(state->boundProgram, nullptr);
}

bool InstanceDataCollection::unbind()
{
    return _texture->unbind();
}

} // namespace Brevane::Kvo
