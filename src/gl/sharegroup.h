#pragma once

#include "gl/glnames.h"

#include <QByteArray>
#include <QHash>
#include <QObject>
#include <QPointer>
#include <QSharedPointer>
#include <QVector>
#include <QWeakPointer>

namespace Brevane::Kvo {

struct LinkedProgram;

/// What contexts share: textures, buffers, programs. Which group a new context belongs to is found by
/// looking for the group's sentinel, a buffer with a content of its own, so that a host need not say
/// how it made its contexts.
class ShareGroup
{
public:
    ShareGroup();

    /// Null for one that is gone.
    static QSharedPointer<ShareGroup> find(quint64 id);
    /// The group whose objects the current context sees; a new one where there is none yet.
    static QSharedPointer<ShareGroup> ofNewContext();

    quint64 id() const { return _id; }
    /// Whether the current context sees this group's objects.
    bool isVisible() const;
    void release();
    /// Forgets everything: the contexts of the group are gone.
    void abandon();

    NameStore names;
    /// Programs that may be shared, by their texts.
    QHash<QByteArray, QWeakPointer<LinkedProgram>> programs;

    /// Keeps an object that its owner let go of, until freeGivenUp or the end of the group.
    void giveUp(QObject *object);
    int givenUpCount() const;
    int freeGivenUp();

private:
    quint64 _id;
    unsigned int _sentinel = 0;
    QVector<QPointer<QObject>> _givenUp;
};

} // namespace Brevane::Kvo
