#include "gl/uniformvalues.h"

#include <QColor>
#include <QMatrix4x4>
#include <QPoint>
#include <QRect>
#include <QSize>
#include <QVector2D>
#include <QVector3D>
#include <QVector4D>

#include <epoxy/gl.h>

#include <cmath>
#include <limits>

namespace Brevane::Kvo {

namespace {

// A number as an integer of some type: what is none is 0, what the type cannot hold the nearest that it can.
template <typename T>
T whole(double value)
{
    constexpr auto least = double(std::numeric_limits<T>::min());
    // The largest itself may round up to what the type cannot hold.
    constexpr auto end = -least;
    if (std::isnan(value))
        return 0;
    if (value >= end)
        return std::numeric_limits<T>::max();
    return value <= least ? std::numeric_limits<T>::min() : T(value);
}

std::array<float, 4> asFloats(const UniformValues &values)
{
    std::array<float, 4> out{};
    for (std::size_t i = 0; i < 4; ++i)
        out[i] = float(values.v[i]);
    return out;
}

std::array<GLint, 4> asInts(const UniformValues &values)
{
    std::array<GLint, 4> out{};
    for (std::size_t i = 0; i < 4; ++i)
        out[i] = whole<GLint>(values.v[i]);
    return out;
}

// A negative number for an unsigned uniform wraps, as an int converted in C++ does.
std::array<GLuint, 4> asUnsigned(const UniformValues &values)
{
    std::array<GLuint, 4> out{};
    for (std::size_t i = 0; i < 4; ++i)
        out[i] = GLuint(whole<qint64>(values.v[i]));
    return out;
}

// How many numbers a uniform of a type takes; 0 for matrices, which come by a call of their own.
int numbersOf(GLenum type)
{
    switch (type) {
    case GL_FLOAT_VEC2:
    case GL_INT_VEC2:
    case GL_BOOL_VEC2:
    case GL_UNSIGNED_INT_VEC2: return 2;
    case GL_FLOAT_VEC3:
    case GL_INT_VEC3:
    case GL_BOOL_VEC3:
    case GL_UNSIGNED_INT_VEC3: return 3;
    case GL_FLOAT_VEC4:
    case GL_INT_VEC4:
    case GL_BOOL_VEC4:
    case GL_UNSIGNED_INT_VEC4: return 4;
    case GL_FLOAT_MAT2:
    case GL_FLOAT_MAT3:
    case GL_FLOAT_MAT4: return 0;
    default: return 1;
    }
}

} // namespace

bool setUniformValues(int location, unsigned int type, const UniformValues &values)
{
    const int needed = numbersOf(type);
    if (needed == 0 || values.count < needed)
        return false;
    switch (type) {
    case GL_FLOAT: glUniform1f(location, float(values.v[0])); return true;
    case GL_FLOAT_VEC2: glUniform2fv(location, 1, asFloats(values).data()); return true;
    case GL_FLOAT_VEC3: glUniform3fv(location, 1, asFloats(values).data()); return true;
    case GL_FLOAT_VEC4: glUniform4fv(location, 1, asFloats(values).data()); return true;
    case GL_INT_VEC2:
    case GL_BOOL_VEC2: glUniform2iv(location, 1, asInts(values).data()); return true;
    case GL_INT_VEC3:
    case GL_BOOL_VEC3: glUniform3iv(location, 1, asInts(values).data()); return true;
    case GL_INT_VEC4:
    case GL_BOOL_VEC4: glUniform4iv(location, 1, asInts(values).data()); return true;
    case GL_UNSIGNED_INT: glUniform1ui(location, asUnsigned(values)[0]); return true;
    case GL_UNSIGNED_INT_VEC2: glUniform2uiv(location, 1, asUnsigned(values).data()); return true;
    case GL_UNSIGNED_INT_VEC3: glUniform3uiv(location, 1, asUnsigned(values).data()); return true;
    case GL_UNSIGNED_INT_VEC4: glUniform4uiv(location, 1, asUnsigned(values).data()); return true;
    case GL_BOOL: glUniform1i(location, values.v[0] != 0.0); return true;
    case GL_INT: glUniform1i(location, whole<GLint>(values.v[0])); return true;
    default:
        // Samplers and images. A texture that found no unit has -1.
        if (values.v[0] < 0.0)
            return false;
        glUniform1i(location, whole<GLint>(values.v[0]));
        return true;
    }
}

UniformValues uniformValuesOf(const QVariant &value)
{
    const auto one = [](double x) { return UniformValues{{x}, 1}; };
    switch (value.metaType().id()) {
    case QMetaType::Bool: return one(value.toBool() ? 1.0 : 0.0);
    case QMetaType::Int:
    case QMetaType::Short:
    case QMetaType::Char:
    case QMetaType::Long:
    case QMetaType::LongLong: return one(double(value.toLongLong()));
    case QMetaType::UInt:
    case QMetaType::UShort:
    case QMetaType::UChar:
    case QMetaType::ULong:
    case QMetaType::ULongLong: return one(double(value.toULongLong()));
    case QMetaType::Float:
    case QMetaType::Double: return one(value.toDouble());
    case QMetaType::QPoint: {
        const QPoint p = value.toPoint();
        return {{double(p.x()), double(p.y())}, 2};
    }
    case QMetaType::QPointF: {
        const QPointF p = value.toPointF();
        return {{p.x(), p.y()}, 2};
    }
    case QMetaType::QSize: {
        const QSize s = value.toSize();
        return {{double(s.width()), double(s.height())}, 2};
    }
    case QMetaType::QSizeF: {
        const QSizeF s = value.toSizeF();
        return {{s.width(), s.height()}, 2};
    }
    case QMetaType::QRect: {
        const QRect r = value.toRect();
        return {{double(r.x()), double(r.y()), double(r.width()), double(r.height())}, 4};
    }
    case QMetaType::QRectF: {
        const QRectF r = value.toRectF();
        return {{r.x(), r.y(), r.width(), r.height()}, 4};
    }
    case QMetaType::QVector2D: {
        const auto v = qvariant_cast<QVector2D>(value);
        return {{double(v.x()), double(v.y())}, 2};
    }
    case QMetaType::QVector3D: {
        const auto v = qvariant_cast<QVector3D>(value);
        return {{double(v.x()), double(v.y()), double(v.z())}, 3};
    }
    case QMetaType::QVector4D: {
        const auto v = qvariant_cast<QVector4D>(value);
        return {{double(v.x()), double(v.y()), double(v.z()), double(v.w())}, 4};
    }
    case QMetaType::QColor: {
        const auto c = qvariant_cast<QColor>(value);
        return {{double(c.redF()), double(c.greenF()), double(c.blueF()), double(c.alphaF())}, 4};
    }
    default: return {};
    }
}

bool setUniformMatrix(int location, unsigned int type, const QMatrix4x4 &value)
{
    if (type == GL_FLOAT_MAT4) {
        glUniformMatrix4fv(location, 1, GL_FALSE, value.constData());
        return true;
    }
    if (type == GL_FLOAT_MAT3) {
        const float *m = value.constData();
        const std::array<float, 9> upper{m[0], m[1], m[2], m[4], m[5], m[6], m[8], m[9], m[10]};
        glUniformMatrix3fv(location, 1, GL_FALSE, upper.data());
        return true;
    }
    return false;
}

void setUniformArray(int location, unsigned int type, int count, const float *data)
{
    switch (type) {
    case GL_FLOAT: glUniform1fv(location, count, data); break;
    case GL_FLOAT_VEC2: glUniform2fv(location, count, data); break;
    case GL_FLOAT_VEC3: glUniform3fv(location, count, data); break;
    case GL_FLOAT_VEC4: glUniform4fv(location, count, data); break;
    case GL_FLOAT_MAT2: glUniformMatrix2fv(location, count, GL_FALSE, data); break;
    case GL_FLOAT_MAT3: glUniformMatrix3fv(location, count, GL_FALSE, data); break;
    default: glUniformMatrix4fv(location, count, GL_FALSE, data); break;
    }
}

int uniformComponents(unsigned int type)
{
    switch (type) {
    case GL_FLOAT: return 1;
    case GL_FLOAT_VEC2: return 2;
    case GL_FLOAT_VEC3: return 3;
    case GL_FLOAT_VEC4:
    case GL_FLOAT_MAT2: return 4;
    case GL_FLOAT_MAT3: return 9;
    case GL_FLOAT_MAT4: return 16;
    default: return 0;
    }
}

} // namespace Brevane::Kvo
