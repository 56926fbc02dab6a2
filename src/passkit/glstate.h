#pragma once

#include <initializer_list>

namespace Brevane::Kvo {

/// glDisable for each capability, in order.
void disable(std::initializer_list<unsigned int> capabilities);

/// glColorMask with all four channels open.
void openColorMask();

/// Binds level 0 of a texture to an image unit for the scope, and what the unit held before again after it.
class ImageBinding
{
public:
    ImageBinding(unsigned int unit, unsigned int texture, unsigned int access, unsigned int format);
    ~ImageBinding();
    ImageBinding(const ImageBinding &) = delete;
    ImageBinding &operator=(const ImageBinding &) = delete;

private:
    unsigned int _unit;
    int _name = 0;
    int _level = 0;
    unsigned char _layered = 0;
    int _layer = 0;
    int _access;
    int _format;
};

} // namespace Brevane::Kvo
