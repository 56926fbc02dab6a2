#pragma once

namespace Brevane::Kvo {

/// The context that is current with its surfaces, of whichever window system interface made it, to make it
/// current again.
class NativeBinding
{
public:
    NativeBinding();
    void restore() const;

private:
    enum class Kind { None, Egl, Glx } _kind = Kind::None;
    void *_display = nullptr;
    void *_context = nullptr;
    void *_drawSurface = nullptr;
    void *_readSurface = nullptr;
    unsigned long _drawable = 0;
    unsigned long _readDrawable = 0;
};

} // namespace Brevane::Kvo
