#include "gl/texture.h"
#include "renderpasses/gradientrenderpass.h"

#include <QRect>

using namespace Brevane::Kvo;

Texture *drawBackdrop(int width, int height)
{
    // BLOCK
    return picture;
}
