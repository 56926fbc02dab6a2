#pragma once

#include "gl/export.h"

namespace Brevane::Kvo {

/// Something that can be made current in GL and put back. Binding nests: unbind restores what was
/// bound before the matching bind, also when that was the host's. Both return true on success.
class KVO_GL_EXPORT Bindable
{
public:
    virtual ~Bindable();
    /// Makes it current in GL. False where that cannot be.
    virtual bool bind() = 0;
    /// Takes it off again. False where it was not bound.
    virtual bool unbind() = 0;
};

} // namespace Brevane::Kvo
