#include "batchbinding.h"
#include "convert.h"
#include "gpu.h"
#include "model.h"
#include "pipeline.h"

#include "arrays.h"
#include "host/imageoutput.h"
#include "host/passfactory.h"
#include "host/pipelinefile.h"
#include "host/versiondetails.h"

#include <pybind11/stl.h>

#include <QBuffer>
#include <QCoreApplication>
#include <QImageWriter>

using namespace Brevane::Kvo;

namespace KvoPython {

namespace {

py::bytes pngOf(const py::object &array)
{
    const QImage image = imageOf(array, "image");
    QByteArray bytes;
    {
        const Turn turn;
        QBuffer buffer(&bytes);
        buffer.open(QIODevice::WriteOnly);
        if (image.isNull() || !image.save(&buffer, "PNG"))
            throw Error(QStringLiteral("the image cannot be encoded"));
    }
    return py::bytes(bytes.constData(), std::size_t(bytes.size()));
}

void save(const py::object &array, const QString &path)
{
    const QImage image = imageOf(array, "image");
    const Turn turn;
    QString error;
    if (!writeImage(image, path, &error))
        throw Error(error);
}

py::list pipelineList(const std::vector<QString> &folders)
{
    QVector<PipelineFileInfo> pipelines;
    {
        const Turn turn;
        pipelines = listPipelines(pipelineSearchPath({folders.begin(), folders.end()}));
    }
    py::list list;
    for (const PipelineFileInfo &info : pipelines)
        list.append(py::make_tuple(info.name, info.description, info.path));
    return list;
}

py::dict versionDict()
{
    VersionDetails details;
    {
        const Turn turn;
        details = versionDetails();
    }
    py::dict result;
    result["kvo"] = details.library;
    result["qt"] = details.qtRunning;
    result["qt_built"] = details.qtBuilt;
    result["gl_vendor"] = details.glVendor;
    result["gl_renderer"] = details.glRenderer;
    result["gl_version"] = details.glVersion;
    result["gl_missing"] = details.glMissing;
    return result;
}

// Qt looks for plugins beside the program that it has an object of. A program that has one of its own keeps it.
void makeApplication()
{
    static int count = 1;
    static char name[] = "kvo";
    static char *arguments[] = {name, nullptr};
    if (!QCoreApplication::instance())
        new QCoreApplication(count, arguments);
}

} // namespace

} // namespace KvoPython

PYBIND11_MODULE(_kvo, module)
{
    using namespace KvoPython;
    makeApplication();
    listenToLibrary();

    const auto &error = py::register_exception<Error>(module, "Error", PyExc_RuntimeError);
    py::register_exception<ContextError>(module, "ContextError", error.ptr());
    module.attr("Warning") =
        py::reinterpret_steal<py::object>(PyErr_NewException("kvo._kvo.Warning", PyExc_UserWarning, nullptr));

    py::class_<Gpu, std::shared_ptr<Gpu>>(module, "Context")
        .def(py::init<bool>(), py::arg("debug"))
        .def("close", &Gpu::close)
        .def_property_readonly("closed", &Gpu::isClosed)
        .def_property_readonly("description", &Gpu::description)
        .def("live_objects", &Gpu::liveObjects);
    module.def("close_all", &Gpu::closeAll);
    bindModel(module);
    bindPipeline(module);
    bindBatch(module);
    module.def("png", &pngOf);
    module.def("save", &save);
    module.def("pipelines", &pipelineList);
    module.attr("__version__") = libraryVersion();
    module.def("version_details", &versionDict);
    module.def("default_pipeline", [](bool hasModel) { return defaultPipeline(hasModel); });
    module.def("pass_classes", [] {
        QStringList names;
        {
            const Turn turn;
            names = passFactory().classNames();
        }
        return std::vector<QString>(names.begin(), names.end());
    });
}
