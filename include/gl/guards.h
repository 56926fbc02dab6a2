#pragma once

#include "gl/bindable.h"
#include "gl/export.h"

#include <QSharedPointer>

namespace Brevane::Kvo {

/// Binds for the rest of the scope. A null pointer does nothing; a shared pointer also keeps the
/// object alive for the scope.
class KVO_GL_EXPORT AutoBinder
{
public:
    /// Binds; null does nothing.
    explicit AutoBinder(Bindable *bindable);
    /// Binds; null does nothing.
    explicit AutoBinder(const QSharedPointer<Bindable> &bindable);
    ~AutoBinder();
    AutoBinder(const AutoBinder &) = delete;
    AutoBinder &operator=(const AutoBinder &) = delete;

    /// Whether the bind succeeded; false for a null pointer.
    bool isBound() const { return _bound; }

private:
    QSharedPointer<Bindable> _shared;
    Bindable *_bindable = nullptr;
    bool _bound = false;
};

/// Enables a GL capability for the rest of the scope, and leaves it as it was found: blending for each draw buffer, the
/// scissor test for each viewport.
class KVO_GL_EXPORT AutoEnabler
{
public:
    /// Enables until the end of the scope.
    explicit AutoEnabler(unsigned int capability);
    ~AutoEnabler();
    AutoEnabler(const AutoEnabler &) = delete;
    AutoEnabler &operator=(const AutoEnabler &) = delete;

private:
    unsigned int _capability;
    unsigned int _before;
};

/// Disables a GL capability for the rest of the scope, and leaves it as it was found, like AutoEnabler.
class KVO_GL_EXPORT AutoDisabler
{
public:
    /// Disables until the end of the scope.
    explicit AutoDisabler(unsigned int capability);
    ~AutoDisabler();
    AutoDisabler(const AutoDisabler &) = delete;
    AutoDisabler &operator=(const AutoDisabler &) = delete;

private:
    unsigned int _capability;
    unsigned int _before;
};

} // namespace Brevane::Kvo
