#include "gl/guards.h"

#include <epoxy/gl.h>

namespace Brevane::Kvo {

namespace {

void setCapability(unsigned int capability, bool enabled)
{
    if (enabled)
        glEnable(capability);
    else
        glDisable(capability);
}

} // namespace

Bindable::~Bindable() = default;

AutoBinder::AutoBinder(Bindable *bindable) : _bindable(bindable), _bound(bindable && bindable->bind()) {}

AutoBinder::AutoBinder(const QSharedPointer<Bindable> &bindable)
    : _shared(bindable), _bindable(bindable.data()), _bound(_bindable && _bindable->bind())
{}

AutoBinder::~AutoBinder()
{
    // Also after a failed bind: a program that did not link has put program 0 in place.
    if (_bindable)
        _bindable->unbind();
}

AutoEnabler::AutoEnabler(unsigned int capability) : _capability(capability), _wasEnabled(glIsEnabled(capability))
{
    glEnable(capability);
}

AutoEnabler::~AutoEnabler()
{
    setCapability(_capability, _wasEnabled);
}

AutoDisabler::AutoDisabler(unsigned int capability) : _capability(capability), _wasEnabled(glIsEnabled(capability))
{
    glDisable(capability);
}

AutoDisabler::~AutoDisabler()
{
    setCapability(_capability, _wasEnabled);
}

} // namespace Brevane::Kvo
