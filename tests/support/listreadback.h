#pragma once

#include "support/glcalls.h"
#include "support/image.h"

#include <gl/texture.h>

#include <gtest/gtest.h>

#include <epoxy/gl.h>

#include <cstring>
#include <memory>
#include <vector>

namespace Brevane::Kvo::Test {

/// A node of a fragment list as it is stored.
struct ListNode
{
    quint32 next = 0;
    quint32 primitive = 0; ///< gl_PrimitiveID + 1.
    quint32 depthBits = 0;
    quint32 draw = 0;

    bool operator==(const ListNode &) const = default;
    float depth() const
    {
        float value = 0;
        std::memcpy(&value, &depthBits, sizeof value);
        return value;
    }
};

inline quint32 bitsOf(float value)
{
    quint32 bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

/// How what shaders stored in lists is read and written afterwards: loads of images, fetches, read-backs of
/// textures, clears and read-backs of framebuffers, uploads to the counter.
constexpr unsigned int kListReads = GL_SHADER_IMAGE_ACCESS_BARRIER_BIT | GL_TEXTURE_FETCH_BARRIER_BIT
                                    | GL_TEXTURE_UPDATE_BARRIER_BIT | GL_FRAMEBUFFER_BARRIER_BIT
                                    | GL_BUFFER_UPDATE_BARRIER_BIT;

/// A texture of unsigned integers, as head pointers and nodes lie in.
inline std::unique_ptr<Texture> makeIntegerTexture(unsigned int internalFormat, int width, int height,
                                                   unsigned int format, const void *texels)
{
    auto texture = std::make_unique<Texture>();
    texture->setTarget(GL_TEXTURE_2D);
    texture->bind();
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTexImage2D(GL_TEXTURE_2D, 0, GLint(internalFormat), width, height, 0, format, GL_UNSIGNED_INT, texels);
    texture->unbind();
    return texture;
}

/// Fragment lists as they lie on the GPU.
class ListReadback
{
public:
    /// The first \a rows rows of the node buffer.
    ListReadback(const Texture *headTexture, const Texture *nodeTexture, int nodeBufferWidth, int rows,
                 bool isSigned = false)
        : heads(readTexture<quint32>(headTexture)), nodes(size_t(nodeBufferWidth) * size_t(rows))
    {
        const GlCalls::Pause pause;
        GLint before = 0;
        glGetIntegerv(GL_READ_FRAMEBUFFER_BINDING, &before);
        GLuint framebuffer = 0;
        glGenFramebuffers(1, &framebuffer);
        glBindFramebuffer(GL_READ_FRAMEBUFFER, framebuffer);
        glFramebufferTexture2D(GL_READ_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, nodeTexture->textureID(), 0);
        glReadPixels(0, 0, nodeBufferWidth, rows, GL_RGBA_INTEGER, isSigned ? GL_INT : GL_UNSIGNED_INT, nodes.data());
        glBindFramebuffer(GL_READ_FRAMEBUFFER, GLuint(before));
        glDeleteFramebuffers(1, &framebuffer);
    }

    quint32 head(int x, int y) const { return heads.at(x, y)[0]; }
    const ListNode &node(quint32 pointer) const { return nodes.at(pointer - 1); }
    /// The nodes of a pixel from its head on. A list that runs in a circle fails the test.
    std::vector<ListNode> at(int x, int y) const
    {
        std::vector<ListNode> list;
        for (quint32 pointer = head(x, y); pointer != 0; pointer = list.back().next) {
            if (pointer > nodes.size() || list.size() > nodes.size()) {
                ADD_FAILURE() << "the list of (" << x << ", " << y << ") leads to " << pointer;
                break;
            }
            list.push_back(node(pointer));
        }
        return list;
    }

    Image<quint32> heads;
    std::vector<ListNode> nodes;
};

} // namespace Brevane::Kvo::Test
