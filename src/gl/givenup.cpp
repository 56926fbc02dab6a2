#include "gl/givenup.h"

#include "gl/contextstate.h"

namespace Brevane::Kvo {

namespace {

GivenUpCollector *&innermost()
{
    thread_local GivenUpCollector *collector = nullptr;
    return collector;
}

} // namespace

GivenUpCollector::GivenUpCollector(QVector<QPointer<QObject>> &objects)
    : _objects(objects), _outer(std::exchange(innermost(), this))
{}

GivenUpCollector::~GivenUpCollector()
{
    innermost() = _outer;
}

void giveUp(QObject *object, quint64 shareGroup)
{
    if (!object)
        return;
    object->setParent(nullptr);
    const QSharedPointer<ShareGroup> group = ShareGroup::find(shareGroup);
    if (!group)
        delete object;
    else if (innermost())
        innermost()->_objects.append(object);
    else
        group->giveUp(object);
}

} // namespace Brevane::Kvo
