#include "arrays.h"

#include <cstring>
#include <string>

using namespace Brevane::Kvo;

namespace KvoPython {

namespace {

std::string textOf(const std::vector<py::ssize_t> &shape)
{
    std::string text = "(";
    for (const py::ssize_t length : shape)
        text += (length < 0 ? std::string("n") : std::to_string(length)) + ", ";
    text.resize(text.size() - (shape.size() > 1 ? 2 : 1));
    return text + ")";
}

std::string textOf(const py::array &array)
{
    return textOf(std::vector<py::ssize_t>(array.shape(), array.shape() + array.ndim()));
}

py::array checked(const py::object &object, const std::vector<py::ssize_t> &shape, const char *name, const char *kinds,
                  const char *wanted)
{
    py::array array = py::array::ensure(object);
    if (!array) {
        PyErr_Clear();
        throw py::type_error(std::string(name) + " is no array");
    }
    const char kind = array.dtype().kind();
    const bool isEmpty = array.size() == 0; // whose type says nothing
    if (!isEmpty && !std::strchr(kinds, kind))
        throw py::type_error(std::string(name) + " are " + wanted + ", not " + std::string(py::str(array.dtype())));
    bool fits = array.ndim() == py::ssize_t(shape.size());
    for (std::size_t i = 0; fits && i < shape.size(); ++i)
        fits = shape[i] < 0 || array.shape(py::ssize_t(i)) == shape[i];
    if (!fits)
        throw py::value_error(std::string(name) + " have shape " + textOf(shape) + ", not " + textOf(array));
    return array;
}

template <typename T>
py::array flipped(const T *values, int layers, int height, int width, int channels)
{
    std::vector<py::ssize_t> shape;
    if (layers > 1)
        shape.push_back(layers);
    shape.insert(shape.end(), {height, width});
    if (channels > 1)
        shape.push_back(channels);
    py::array_t<T> array(shape);
    const std::size_t row = std::size_t(width) * std::size_t(channels);
    T *const to = array.mutable_data();
    for (int layer = 0; layer < layers; ++layer) {
        for (int y = 0; y < height; ++y) {
            const std::size_t first = std::size_t(layer) * std::size_t(height);
            std::memcpy(to + (first + std::size_t(y)) * row, values + (first + std::size_t(height - 1 - y)) * row,
                        row * sizeof(T));
        }
    }
    return array;
}

} // namespace

py::array_t<float> floats(const py::object &object, const std::vector<py::ssize_t> &shape, const char *name)
{
    return py::array_t<float, py::array::c_style | py::array::forcecast>::ensure(
        checked(object, shape, name, "fiu", "numbers"));
}

py::array_t<std::uint32_t> indices(const py::object &object, const std::vector<py::ssize_t> &shape, const char *name)
{
    const py::array array = checked(object, shape, name, "iu", "whole numbers");
    const auto wide = py::array_t<std::int64_t, py::array::c_style | py::array::forcecast>::ensure(array);
    py::array_t<std::uint32_t> result(std::vector<py::ssize_t>(array.shape(), array.shape() + array.ndim()));
    for (py::ssize_t i = 0; i < wide.size(); ++i) {
        const std::int64_t value = wide.data()[i];
        if (value < 0 || value > std::int64_t(UINT32_MAX))
            throw py::value_error(std::string(name) + " hold " + std::to_string(value));
        result.mutable_data()[i] = std::uint32_t(value);
    }
    return result;
}

QImage imageOf(const py::object &object, const char *name)
{
    if (object.is_none())
        return {};
    const py::array given = py::array::ensure(object);
    if (!given || given.dtype().kind() != 'u' || given.itemsize() != 1) {
        PyErr_Clear();
        throw py::type_error(std::string(name) + " is an array of uint8");
    }
    const py::ssize_t channels = given.ndim() == 2 ? 1 : given.ndim() == 3 ? given.shape(2) : 0;
    if ((channels != 1 && channels != 3 && channels != 4) || given.size() == 0)
        throw py::value_error(std::string(name) + " has shape (h, w), (h, w, 3) or (h, w, 4), not " + textOf(given));
    const auto bytes = py::array_t<std::uint8_t, py::array::c_style>::ensure(given);
    const auto format = channels == 1   ? QImage::Format_Grayscale8
                        : channels == 3 ? QImage::Format_RGB888
                                        : QImage::Format_RGBA8888;
    QImage image(int(given.shape(1)), int(given.shape(0)), format);
    if (image.isNull())
        throw py::value_error(std::string(name) + " is too large");
    const auto row = std::size_t(given.shape(1) * channels);
    for (int y = 0; y < image.height(); ++y)
        std::memcpy(image.scanLine(y), bytes.data() + std::size_t(y) * row, row);
    return image.convertToFormat(QImage::Format_RGBA8888);
}

QMatrix4x4 matrixOf(const py::object &object, const char *name)
{
    return QMatrix4x4(floats(object, {4, 4}, name).data());
}

py::array_t<float> arrayOf(const QMatrix4x4 &matrix)
{
    py::array_t<float> array({4, 4});
    matrix.copyDataTo(array.mutable_data());
    return array;
}

py::array arrayOf(const TexturePixels &pixels)
{
    const int height = pixels.height / std::max(pixels.layers, 1);
    if (!pixels.integers.isEmpty())
        return flipped(pixels.integers.constData(), pixels.layers, height, pixels.width, pixels.channels);
    return flipped(pixels.values.constData(), pixels.layers, height, pixels.width, pixels.channels);
}

} // namespace KvoPython
