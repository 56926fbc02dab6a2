#pragma once

#include <pybind11/pybind11.h>

namespace KvoPython {

void bindBatch(pybind11::module_ &module);

} // namespace KvoPython
