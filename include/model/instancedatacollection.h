#pragma once

#include "gl/bindable.h"
#include "gl/export.h"

#include <QObject>
#include <QSharedPointer>
#include <QVector>

#include <memory>

namespace Brevane::Kvo {

class BufferObject;
class InstanceDataPlan;
class ShaderProgram;
class Texture;
class TextureManager;

/// One set of data under an instance-data plan: a buffer of floats, texelsPerDraw * 4 per draw.
class KVO_GL_EXPORT InstanceDataCollection : public QObject, public Bindable
{
    Q_OBJECT

public:
    /// Without data yet; the plan has to live as long.
    explicit InstanceDataCollection(const InstanceDataPlan *plan, QObject *parent = nullptr);
    ~InstanceDataCollection() override;

    /// What each draw's data are.
    const InstanceDataPlan *plan() const;
    /// Replaces the data. False, with a message, for more draws than the driver's texture buffers hold, which changes
    /// nothing, and where the driver has no room for the data, which bind then tries again to give it.
    bool setData(const QVector<float> &data);
    /// The floats that were set last.
    const QVector<float> &data() const { return _data; }
    /// Counts the calls of setData that took effect.
    int revision() const { return _revision; }
    /// Draws that the data is for.
    int drawCount() const;

    /// Makes the data available to a bound program. A manager, when given, binds its managed textures
    /// too.
    bool bind(ShaderProgram *program, TextureManager *manager);
    /// Takes off what bind with these has bound.
    bool unbind(ShaderProgram *program, TextureManager *manager);
    /// The same for the program that is bound.
    bool bind() override;
    bool unbind() override;

private:
    bool _upload();

    const InstanceDataPlan *_plan;
    QSharedPointer<BufferObject> _buffer;
    std::unique_ptr<Texture> _texture;
    QVector<float> _data;
    quint64 _shareGroup = 0; ///< In which the data was set.
    int _revision = 0;
    int _drawCount = 0;
    bool _isUploaded = true; ///< All of the data, with the texture on it.
};

} // namespace Brevane::Kvo
