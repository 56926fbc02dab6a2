#pragma once

#include "gl/export.h"

#include <QString>

namespace Brevane::Kvo {

/// Says for its scope who takes textures of the pool on this thread, for the messages about them.
class KVO_GL_EXPORT PoolTaker
{
public:
    explicit PoolTaker(const QString &name);
    ~PoolTaker();
    PoolTaker(const PoolTaker &) = delete;
    PoolTaker &operator=(const PoolTaker &) = delete;

    /// Empty where nobody has said.
    static QString current();

private:
    const QString *_before;
};

} // namespace Brevane::Kvo
