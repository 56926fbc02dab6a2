#include "scenesettings.h"

#include "host/pipelinefile.h"

#include <algorithm>
#include <limits>

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

namespace {

constexpr float kLeastSide = 1e-30f;

bool readOpacity(const QString &text, QVector<QPair<QString, float>> *opacities)
{
    const qsizetype equals = text.lastIndexOf(u'=');
    QPair<QString, float> opacity(text.left(std::max(equals, qsizetype(0))), 0.0f);
    QString reason;
    if (equals == 0 || !into(&opacity.second, 0.0f, 1.0f)(text.mid(equals + 1), &reason))
        return false;
    opacities->append(opacity);
    return true;
}

} // namespace

bool applySettings(ModelData *data, const SceneSettings &settings, QString *error)
{
    if (settings.scale == SceneSettings::kScaleToFit)
        scaleModel(data, kFittingSide / std::max(longestSideOf(*data), kLeastSide));
    else if (settings.scale != 1.0f)
        scaleModel(data, settings.scale);
    if (settings.floor)
        addFloor(data);
    return std::all_of(settings.opacities.begin(), settings.opacities.end(),
                       [&](const auto &one) { return setOpacity(data, one.first, one.second, error); });
}

void addSceneOptions(Options *options, SceneSettings *settings)
{
    options->add({{u"opacity"_s},
                  u"[NAME=]VALUE"_s,
                  u"another opacity, 0 to 1, for all materials or those of one name"_s,
                  u"VALUE or MATERIAL=VALUE, with a value from 0 to 1"_s,
                  [settings](const QString &text, QString *) { return readOpacity(text, &settings->opacities); },
                  true});
    options->add({{u"scale"_s},
                  u"FACTOR|fit"_s,
                  u"another size of the model, for passes that count in units of the scene; fit: its longest side is 2 "
                  u"units"_s,
                  u"a number above 0 or fit"_s,
                  [settings](const QString &text, QString *reason) {
                      if (text == "fit"_L1) {
                          settings->scale = SceneSettings::kScaleToFit;
                          return true;
                      }
                      constexpr auto kAboveZero = std::numeric_limits<float>::min();
                      return into(&settings->scale, kAboveZero, std::numeric_limits<float>::max())(text, reason);
                  }});
    options->add({{u"floor"_s}, {}, u"put the model on a floor"_s, {}, into(&settings->floor)});
}

QString PipelineChoice::nameFor(const QString &model) const
{
    if (!names.isEmpty())
        return names.last();
    return Brevane::Kvo::defaultPipeline(!model.isEmpty());
}

void addPipelineOptions(Options *options, PipelineChoice *choice, bool several)
{
    options->add({{u"p"_s, u"pipeline"_s},
                  u"NAME|FILE"_s,
                  u"a pipeline by name or a JSON file; default: %1 with a model, %2 without"_s.arg(
                      Brevane::Kvo::defaultPipeline(true), Brevane::Kvo::defaultPipeline(false)),
                  u"a name or a file"_s,
                  into(&choice->names),
                  several,
                  {},
                  u"gallery"_s});
    options->add({{u"pipelines"_s},
                  u"FOLDER"_s,
                  u"look for pipelines there first"_s,
                  u"a folder"_s,
                  into(&choice->folders),
                  true});
}
