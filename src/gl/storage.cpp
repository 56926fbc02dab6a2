#include "gl/storage.h"

#include "core/hostcode.h"
#include "gl/contextstate.h"
#include "gl/glinfo.h"
#include "gl/pooltaker.h"
#include "gl/sampling.h"
#include "gl/texture.h"

#include <QSet>
#include <QString>

#include <epoxy/gl.h>

#include <algorithm>

namespace Brevane::Kvo {

namespace {

// What every driver of OpenGL 3.2 has, so that it need not be asked.
constexpr int kAlwaysPossible = 1024;
constexpr int kAlwaysPossibleLayers = 256;
// From here on there may be no memory, although the size is one that the driver has. An error of the host's
// stays where the host looks for it when an image is smaller.
constexpr double kLarge = 64.0 * 1024 * 1024;

void specify(GLenum target2D, GLenum targetArray, GLint internalFormat, const ImageSize &size, GLenum format,
             GLenum type, const void *pixels)
{
    if (size.layers < 0)
        glTexImage2D(target2D, 0, internalFormat, size.width, size.height, 0, format, type, pixels);
    else
        glTexImage3D(targetArray, 0, internalFormat, size.width, size.height, size.layers, 0, format, type, pixels);
}

// A size beyond the limits is not even asked for: there are drivers that write beyond a table of theirs.
bool driverSaysYes(GLint internalFormat, const ImageSize &size, GLenum format, GLenum type)
{
    const GLLimits limits = currentLimits();
    if (size.width > limits.textureSide || size.height > limits.textureSide || size.layers > limits.arrayLayers)
        return false;
    specify(GL_PROXY_TEXTURE_2D, GL_PROXY_TEXTURE_2D_ARRAY, internalFormat, size, format, type, nullptr);
    GLint width = 0;
    glGetTexLevelParameteriv(size.layers < 0 ? GL_PROXY_TEXTURE_2D : GL_PROXY_TEXTURE_2D_ARRAY, 0, GL_TEXTURE_WIDTH,
                             &width);
    return width == size.width;
}

// Passes ask again in every frame, since there may be room some time. Once there was, it is said again when there is
// none.
void complainOnce(GLenum internalFormat, const ImageSize &size, const QString &label, bool hasRoom)
{
    static QSet<QString> known;
    if (hasRoom && known.isEmpty())
        return;
    const QString name = label.isEmpty() ? PoolTaker::current() : label;
    QString text = QStringLiteral("A texture of %1x%2").arg(size.width).arg(size.height);
    if (size.layers >= 0)
        text += QStringLiteral(" with %1 layers").arg(size.layers);
    text += QStringLiteral(" in GL format 0x%1").arg(internalFormat, 4, 16, QLatin1Char('0'));
    if (!name.isEmpty())
        text += QStringLiteral(" for '%1'").arg(name);
    text += QStringLiteral(" is more than the driver has room for; a single texel stands in");
    if (hasRoom)
        known.remove(text);
    if (hasRoom || known.contains(text))
        return;
    known.insert(text);
    const HostCode hostCode;
    qWarning("%s", qPrintable(text));
}

// Without a look at the error flag, where an error of the host's may be, unless there is one of ours.
bool isMade(GLenum target, int width)
{
    float made = 0.0f;
    glGetTexLevelParameterfv(target, 0, GL_TEXTURE_WIDTH, &made);
    if (int(made) == width)
        return true;
    takeErrors();
    return false;
}

bool tryImage(GLint internalFormat, const ImageSize &size, GLenum format, GLenum type, const void *pixels)
{
    const double bytes = double(size.width) * size.height * std::max(size.layers, 1)
                         * std::max(1, bytesPerTexel(GLenum(internalFormat)));
    const bool isLarge = bytes >= kLarge;
    const bool isPossible = !isLarge && size.width <= kAlwaysPossible && size.height <= kAlwaysPossible
                            && size.layers <= kAlwaysPossibleLayers;
    if (!isPossible && !driverSaysYes(internalFormat, size, format, type))
        return false;
    specify(GL_TEXTURE_2D, GL_TEXTURE_2D_ARRAY, internalFormat, size, format, type, pixels);
    if (isLarge && glGetError() == GL_OUT_OF_MEMORY)
        return false;
    return isMade(size.layers < 0 ? GL_TEXTURE_2D : GL_TEXTURE_2D_ARRAY, size.width);
}

} // namespace

StorageBinder::StorageBinder(Texture *texture, Storage storage) : _texture(texture)
{
    ContextState *state = ContextState::current();
    if (!texture || !state)
        return;
    if (storage == Sets)
        forgetLevel(*texture);
    if (texture->unit() >= 0 || state->hasFreeUnit()) {
        _bound = texture->_bind();
        state->bindings.settleUnit();
        return;
    }
    const bool isNew = !texture->_name->wasCreated();
    const bool isUsable =
        texture->_target && (!isNew ? texture->_name->isUsableIn(*state) : texture->_name->create(NameKind::Texture));
    if (!isUsable)
        return;
    Bindings &bindings = state->bindings;
    bindings.settleUnit();
    _unit = int(bindings.activeUnit() - GL_TEXTURE0);
    _previous = bindings.takeTexture(_unit, texture->_target, texture->_name->id());
    if (isNew)
        state->labelObject(GL_TEXTURE, texture->_name->id(), texture->label());
    _bound = _onActiveUnit = true;
}

StorageBinder::~StorageBinder()
{
    if (ContextState *state = _onActiveUnit ? ContextState::current() : nullptr)
        state->bindings.bindTexture(_unit, _texture->_target, _previous);
    else if (_bound)
        _texture->unbind();
}

GLLimits currentLimits()
{
    ContextState *state = ContextState::current();
    return state ? state->limits() : GLLimits();
}

bool allocateImage(unsigned int internalFormat, const ImageSize &size, unsigned int format, unsigned int type,
                   const void *pixels, const QString &name)
{
    settleActiveUnit();
    const bool hasRoom = tryImage(GLint(internalFormat), size, format, type, pixels);
    complainOnce(internalFormat, size, name, hasRoom);
    if (hasRoom)
        return true;
    // As many layers as were asked for: each of them is drawn into.
    const ImageSize texel{1, 1, size.layers};
    specify(GL_TEXTURE_2D, GL_TEXTURE_2D_ARRAY, GLint(internalFormat), texel, format, type, nullptr);
    return false;
}

bool hasLevel(unsigned int target, int width, const QString &name)
{
    if (isMade(target, width))
        return true;
    const HostCode hostCode;
    qWarning("The driver has no room for the image of '%s'", qPrintable(name));
    return false;
}

bool takeErrors()
{
    bool hadNoMemory = false;
    constexpr int kKinds = 8;
    GLenum error = glGetError();
    for (int i = 0; i < kKinds && error != GL_NO_ERROR; ++i) {
        hadNoMemory = hadNoMemory || error == GL_OUT_OF_MEMORY;
        error = glGetError();
    }
    return hadNoMemory;
}

} // namespace Brevane::Kvo
