#include "fuzz/targets.h"

#include <host/pipeline.h>
#include <host/pipelinefile.h>

// A pipeline file: loaded, saved over itself, and loaded again.

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

void Fuzz::pipelinefile(const QByteArray &bytes)
{
    const QString path = u"/nowhere/fuzz.json"_s;
    QStringList errors;
    Pipeline pipeline;
    const bool loaded = loadPipelineText(bytes, path, &pipeline, &errors);
    promise(loaded == errors.isEmpty(), "a pipeline that does not load says why, and one that does says nothing");
    filesOf(bytes, path);
    withPassRenamed(bytes, u"Model"_s, u"Other"_s);
    if (!loaded)
        return;
    const QByteArray saved = pipelineText(pipeline, path, bytes, &errors);
    promise(saved.isEmpty() == !errors.isEmpty(), "a pipeline that is not saved says why");
    if (saved.isEmpty())
        return;
    Pipeline again;
    promise(loadPipelineText(saved, path, &again, &errors), "what was saved loads");
    promise(pipelineText(again, path, saved, &errors) == saved, "saving what was just saved changes nothing");
}
