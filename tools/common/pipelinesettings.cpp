#include "pipelinesettings.h"

using namespace Qt::StringLiterals;

namespace {

// "NAME=TEXT"; the name has what \a nameHas says.
bool readPair(const QString &text, QChar nameHas, QVector<QPair<QString, QString>> *pairs)
{
    const qsizetype equals = text.indexOf(u'=');
    const QString name = text.left(std::max(equals, qsizetype(0)));
    pairs->append({name, text.mid(equals + 1)});
    return equals >= 1 && (nameHas.isNull() || (name.indexOf(nameHas) > 0 && !name.endsWith(nameHas)));
}

} // namespace

void addValueOptions(Options *options, PipelineSettings *settings)
{
    options->add({{u"set"_s},
                  u"PASS.SLOT=VALUE"_s,
                  u"give an input a value: 0.5, true, \"#ff8000\", [0, 0, 640, 480], @viewport"_s,
                  u"PASS.SLOT=VALUE"_s,
                  [settings](const QString &text, QString *) { return readPair(text, u'.', &settings->values); },
                  true});
    options->add({{u"path"_s},
                  u"NAME=FILE"_s,
                  u"a file for pipelines that ask for @paths.NAME"_s,
                  u"NAME=FILE"_s,
                  [settings](const QString &text, QString *) { return readPair(text, QChar(), &settings->paths); },
                  true});
}

void addViewOptions(Options *options, PipelineSettings *settings, const QString &where)
{
    options->add({{u"light"_s},
                  u"LIGHT"_s,
                  u"a light, %1, instead of the pipeline's lights"_s.arg(where),
                  u"a light"_s,
                  [settings](const QString &text, QString *reason) {
                      settings->lightTexts << text;
                      return Brevane::Kvo::parseLight(text, &settings->lights.emplaceBack(), reason);
                  },
                  true});
    options->add({{u"c"_s, u"camera"_s},
                  u"SETTINGS"_s,
                  u"joined by ':', %1; default: fit"_s.arg(where),
                  {},
                  [settings](const QString &text, QString *) {
                      settings->camera = text;
                      return true;
                  }});
}

void addBackgroundOption(Options *options, PipelineSettings *settings)
{
    options->add({{u"background"_s},
                  u"COLOR"_s,
                  u"what shows where the picture is transparent; default: nothing"_s,
                  u"\"#rrggbb\" or a colour name"_s,
                  [settings](const QString &text, QString *) {
                      settings->background = QColor(text);
                      return settings->background.isValid();
                  }});
}
