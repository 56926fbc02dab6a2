#pragma once

#include "host/imageoutput.h"

#include <pybind11/numpy.h>

#include <QImage>
#include <QMatrix4x4>

namespace KvoPython {

namespace py = pybind11;

/// A contiguous array of that type and shape (-1: any length) from anything that NumPy makes one of without losing
/// its kind: numbers for floats, whole numbers for integers. TypeError or ValueError with the name otherwise.
py::array_t<float> floats(const py::object &object, const std::vector<py::ssize_t> &shape, const char *name);
py::array_t<std::uint32_t> indices(const py::object &object, const std::vector<py::ssize_t> &shape, const char *name);

/// An image from an array (h, w), (h, w, 3) or (h, w, 4) of uint8, top row first; null for None.
QImage imageOf(const py::object &object, const char *name);

QMatrix4x4 matrixOf(const py::object &object, const char *name);
py::array_t<float> arrayOf(const QMatrix4x4 &matrix);

/// The texels, top row first: (h, w) for one channel, (h, w, c) for more, in front of that the layers where there are
/// several.
py::array arrayOf(const Brevane::Kvo::TexturePixels &pixels);

} // namespace KvoPython
