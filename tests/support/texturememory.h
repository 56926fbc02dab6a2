#pragma once

#include "support/glcalls.h"

#include <gl/glinfo.h>

#include <QtGlobal>

#include <epoxy/gl.h>

#include <algorithm>
#include <map>
#include <string_view>
#include <utility>

namespace Brevane::Kvo::Test {

/// What textures take, told from recorded calls alone: every level that was specified or generated, until its
/// texture is deleted. Textures of before the first recording count from when they get their next level.
class TextureMemory
{
public:
    /// Asks which unit is active.
    TextureMemory()
    {
        const GlCalls::Pause pause;
        GLint unit = 0;
        glGetIntegerv(GL_ACTIVE_TEXTURE, &unit);
        _unit = unit;
    }

    /// Goes on with what was recorded next.
    void add(const GlCalls &calls)
    {
        for (const GlCall &call : calls.all())
            add(call);
    }

    qint64 bytes() const { return _bytes; }
    /// The most at any time since the last call of resetPeak.
    qint64 peak() const { return _peak; }
    void resetPeak() { _peak = _bytes; }

private:
    using Level = std::pair<int, int>; // face and level
    struct Image
    {
        int width = 0;
        int height = 0;
        int layers = 1;
        GLenum format = GL_RGBA8;

        qint64 bytes() const { return qint64(width) * height * layers * bytesPerTexel(format); }
    };

    static bool isFace(int target)
    {
        return target >= GL_TEXTURE_CUBE_MAP_POSITIVE_X && target <= GL_TEXTURE_CUBE_MAP_NEGATIVE_Z;
    }

    std::map<Level, Image> &bound(int target)
    {
        return _images[_bindings[{_unit, isFace(target) ? GL_TEXTURE_CUBE_MAP : target}]];
    }

    void set(int target, int level, const Image &image)
    {
        Image &known = bound(target)[{isFace(target) ? target : 0, level}];
        _bytes += image.bytes() - known.bytes();
        known = image;
        _peak = std::max(_peak, _bytes);
    }

    void generate(int target)
    {
        const int faces = target == GL_TEXTURE_CUBE_MAP ? 6 : 1;
        for (int face = 0; face < faces; ++face) {
            const int image = faces == 6 ? GL_TEXTURE_CUBE_MAP_POSITIVE_X + face : target;
            Image level = bound(image)[{faces == 6 ? image : 0, 0}];
            for (int i = 1; level.width > 1 || level.height > 1; ++i) {
                level.width = std::max(1, level.width / 2);
                level.height = std::max(1, level.height / 2);
                set(image, i, level);
            }
        }
    }

    void add(const GlCall &call)
    {
        const std::string_view name = call.name;
        const auto arg = [&call](std::size_t i) { return int(call.args[i]); };
        if (name == "glActiveTexture") {
            _unit = arg(0);
        } else if (name == "glBindTexture") {
            _bindings[{_unit, arg(0)}] = arg(1);
        } else if (name == "glDeleteTextures") {
            for (const double texture : call.data) {
                for (const auto &[level, image] : _images[int(texture)])
                    _bytes -= image.bytes();
                _images.erase(int(texture));
            }
        } else if (name == "glTexImage2D" && arg(0) != GL_PROXY_TEXTURE_2D) {
            set(arg(0), arg(1), {arg(3), arg(4), 1, GLenum(arg(2))});
        } else if (name == "glTexImage3D" && arg(0) != GL_PROXY_TEXTURE_2D_ARRAY) {
            set(arg(0), arg(1), {arg(3), arg(4), arg(5), GLenum(arg(2))});
        } else if (name == "glTexStorage2D") {
            set(arg(0), 0, {arg(3), arg(4), 1, GLenum(arg(2))});
            if (arg(1) > 1)
                generate(arg(0));
        } else if (name == "glTexStorage3D") {
            set(arg(0), 0, {arg(3), arg(4), arg(5), GLenum(arg(2))});
        } else if (name == "glGenerateMipmap") {
            generate(arg(0));
        }
    }

    int _unit = GL_TEXTURE0;
    std::map<std::pair<int, int>, int> _bindings; // by unit and target
    std::map<int, std::map<Level, Image>> _images; // by texture
    qint64 _bytes = 0;
    qint64 _peak = 0;
};

} // namespace Brevane::Kvo::Test
