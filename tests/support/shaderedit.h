#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>

#include <epoxy/gl.h>

#include <gtest/gtest.h>

namespace Brevane::Kvo::Test {

/// Replaces text in every shader source that reaches GL in its scope, to reach branches that constants
/// of a shader switch off. Fails the test when a text never came up.
class ShaderEdit
{
public:
    explicit ShaderEdit(QList<QPair<QByteArray, QByteArray>> replacements)
    {
        _replacements = std::move(replacements);
        _used = QList<bool>(_replacements.size(), false);
        _real = epoxy_glShaderSource;
        epoxy_glShaderSource = &edited;
    }
    ~ShaderEdit()
    {
        epoxy_glShaderSource = _real;
        for (qsizetype i = 0; i < _used.size(); ++i)
            EXPECT_TRUE(_used[i]) << "no shader has the text: " << _replacements[i].first.constData();
    }
    ShaderEdit(const ShaderEdit &) = delete;
    ShaderEdit &operator=(const ShaderEdit &) = delete;

private:
    static void edited(GLuint shader, GLsizei count, const GLchar *const *texts, const GLint *lengths)
    {
        QByteArray text;
        for (GLsizei i = 0; i < count; ++i)
            text += lengths ? QByteArray(texts[i], lengths[i]) : QByteArray(texts[i]);
        for (qsizetype i = 0; i < _replacements.size(); ++i) {
            if (text.contains(_replacements[i].first)) {
                text.replace(_replacements[i].first, _replacements[i].second);
                _used[i] = true;
            }
        }
        const char *data = text.constData();
        const auto length = GLint(text.size());
        _real(shader, 1, &data, &length);
    }

    static inline QList<QPair<QByteArray, QByteArray>> _replacements;
    static inline QList<bool> _used;
    static inline PFNGLSHADERSOURCEPROC _real = nullptr;
};

} // namespace Brevane::Kvo::Test
