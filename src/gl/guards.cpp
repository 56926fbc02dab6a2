#include "gl/guards.h"

#include "gl/hoststate.h"

#include <epoxy/gl.h>

namespace Brevane::Kvo {

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

AutoEnabler::AutoEnabler(unsigned int capability) : _capability(capability), _before(switchesOf(capability))
{
    glEnable(capability);
}

AutoEnabler::~AutoEnabler()
{
    setSwitches(_capability, _before);
}

AutoDisabler::AutoDisabler(unsigned int capability) : _capability(capability), _before(switchesOf(capability))
{
    glDisable(capability);
}

AutoDisabler::~AutoDisabler()
{
    setSwitches(_capability, _before);
}

} // namespace Brevane::Kvo
