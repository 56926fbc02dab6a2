#include "batchbinding.h"

#include "convert.h"
#include "gpu.h"

#include "batch.h"

#include <pybind11/stl.h>

#include <QJsonDocument>

#include <exception>
#include <map>

namespace KvoPython {

namespace {

struct Request
{
    QString jobs; ///< A file, or lines.
    bool isFile = false;
    OptionTexts defaults;
    BatchSettings settings;
    Shard shard;
};

// On this thread, whose context is what it was afterwards.
std::vector<QString> makePictures(Request request, const py::object &onPicture)
{
    std::vector<QString> reports;
    std::exception_ptr raised;
    QString error;
    {
        const Turn turn;
        const KeepContext before;
        BatchJobs jobs(CommandLine::options(), request.defaults);
        const bool isRead =
            request.isFile ? jobs.readFile(request.jobs, &error) : jobs.readLines(request.jobs.toUtf8(), &error);
        if (!isRead)
            throw Error(error);
        // As messages of the library, which become Python's warnings.
        request.settings.warn = [](const QStringList &warnings) {
            for (const QString &warning : warnings)
                qWarning("%s", qPrintable(warning));
        };
        const auto tell = [&](const PictureReport &report) {
            reports.push_back(QString::fromUtf8(QJsonDocument(report.json()).toJson(QJsonDocument::Compact)));
            const py::gil_scoped_acquire interpreter;
            try {
                if (PyErr_CheckSignals() != 0)
                    throw py::error_already_set();
                if (!onPicture.is_none())
                    onPicture(reports.back());
            } catch (...) {
                raised = std::current_exception();
                return false;
            }
            return true;
        };
        Batch batch(request.settings, tell);
        batch.run(jobs.jobsOf(request.shard));
        error = batch.error();
    }
    // What failed is in the reports of its pictures.
    const Said said = takeSaid();
    if (raised)
        std::rethrow_exception(raised);
    if (!error.isEmpty())
        throw Error(error);
    raiseWarnings(said.warnings);
    return reports;
}

} // namespace

void bindBatch(py::module_ &module)
{
    module.def("batch", [](const QString &jobs, bool isFile, const std::map<QString, std::vector<QString>> &defaults,
                           const QString &manifest, bool resume, int retries, int shard, int shards, int cache,
                           const py::object &onPicture) {
        Request request;
        request.jobs = jobs;
        request.isFile = isFile;
        for (const auto &[option, texts] : defaults)
            request.defaults[option] = QStringList(texts.begin(), texts.end());
        request.shard = {shard, shards};
        if (shard < 1 || shard > shards)
            throw py::value_error("a part is (1, 4) to (4, 4)");
        const QString base = manifest.isEmpty() && isFile ? jobs + QStringLiteral(".manifest") : manifest;
        if (!base.isEmpty())
            request.settings.manifest = Manifest::pathOf(base, shard, shards);
        request.settings.resume = resume;
        request.settings.retries = retries;
        request.settings.cacheMegabytes = cache;
        return makePictures(request, onPicture);
    });
}

} // namespace KvoPython
