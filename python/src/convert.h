#pragma once

#include <pybind11/pybind11.h>

#include <QString>

namespace pybind11::detail {

/// Text, in UTF-8 on the way.
template <>
struct type_caster<QString>
{
    PYBIND11_TYPE_CASTER(QString, const_name("str"));

    bool load(handle source, bool)
    {
        if (!source || !PyUnicode_Check(source.ptr()))
            return false;
        Py_ssize_t size = 0;
        const char *const text = PyUnicode_AsUTF8AndSize(source.ptr(), &size);
        if (!text) {
            PyErr_Clear();
            return false;
        }
        value = QString::fromUtf8(text, qsizetype(size));
        return true;
    }
    static handle cast(const QString &text, return_value_policy, handle)
    {
        const QByteArray utf8 = text.toUtf8();
        return PyUnicode_DecodeUTF8(utf8.constData(), Py_ssize_t(utf8.size()), "replace");
    }
};

} // namespace pybind11::detail
