#include "viewoptions.h"

#include <limits>

using namespace Qt::StringLiterals;

std::optional<ExitCode> ViewOptions::read(const QStringList &arguments)
{
    Options options(
        u"Usage: kvoview [MODEL] [options]\n\nShows a 3D model through a pipeline of passes in a window, and lets one\n"
        u"look into every pass of it and change it. F1 shows the keys. Models, pipelines and images can be\n"
        u"dropped on the window. The pipeline, and the files that it names, are read again when they change."_s,
        u"a model file: glTF, OBJ, FBX, Collada, STL, PLY, 3DS and more; or a pipeline, .json"_s);
    options.section(u"What to show"_s);
    addPipelineOptions(&options, &pipelines, false);
    addValueOptions(&options, &pipeline);
    addViewOptions(&options, &pipeline, u"as for kvorender"_s);
    addBackgroundOption(&options, &pipeline);
    addSceneOptions(&options, &scene);
    options.add({{u"s"_s, u"size"_s},
                 u"WxH"_s,
                 u"of the picture in the window, in pixels"_s,
                 u"WIDTHxHEIGHT"_s,
                 [this](const QString &text, QString *) {
                     bool isWidth = false;
                     bool isHeight = false;
                     size = QSize(text.section(u'x', 0, 0).toInt(&isWidth), text.section(u'x', 1).toInt(&isHeight));
                     return isWidth && isHeight && !size.isEmpty();
                 }});
    options.section(u"For tests and pictures"_s);
    options.add({{u"frames"_s},
                 u"N"_s,
                 u"end after so many frames"_s,
                 u"a number from 1"_s,
                 into(&frames, 1, std::numeric_limits<int>::max())});
    options.add({{u"grab"_s}, u"FILE"_s, u"write the last of them to a file"_s, u"a file name"_s, into(&grab)});
    if (const std::optional<ExitCode> end = options.read(arguments))
        return end;
    const QStringList files = options.files();
    if (files.size() > 1)
        return Options::mistake(u"one model at a time, not '%1' and '%2'"_s.arg(files[0], files[1]));
    if (options.isSet(u"grab"_s) && !options.isSet(u"frames"_s))
        return Options::mistake(u"--grab goes with --frames"_s);
    // A pipeline may stand where a model does, as it may be dropped on the window.
    if (files.value(0).endsWith(u".json"_s, Qt::CaseInsensitive))
        pipelines.names << files[0];
    else
        model = files.value(0);
    return std::nullopt;
}
