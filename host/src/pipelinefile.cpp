#include "host/pipelinefile.h"

#include "host/passfactory.h"
#include "host/pipeline.h"
#include "host/slotname.h"
#include "json.h"
#include "slotvaluejson.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>

namespace Brevane::Kvo {

namespace {

constexpr QLatin1StringView kSuffix(".json");

class Loader
{
public:
    Loader(const QString &fileName, Pipeline *pipeline, QStringList *errors)
        : _fileName(fileName), _pipeline(pipeline), _errors(errors)
    {}

    void load(const Json &root)
    {
        if (!root.isObject()) {
            complain(root.line, QStringLiteral("a pipeline is an object with \"passes\", not %1").arg(root.describe()));
            return;
        }
        checkMembers(root, {QStringLiteral("description"), QStringLiteral("passes")}, QStringLiteral("a pipeline"));
        const Json *description = root.member(QStringLiteral("description"));
        if (description && !description->isString())
            complain(description->line, QStringLiteral("\"description\" is text, not %1").arg(description->describe()));
        const Json *passes = root.member(QStringLiteral("passes"));
        if (!passes || !passes->isArray()) {
            complain(passes ? passes->line : root.line, QStringLiteral("\"passes\" is to be a list of passes"));
            return;
        }
        if (passes->elements.empty())
            complain(passes->line, QStringLiteral("\"passes\" is empty"));
        // Links may name passes that come later, so all of them are made first.
        QVector<bool> made;
        for (const Json &pass : passes->elements)
            made << addPass(pass);
        for (size_t i = 0; i < passes->elements.size(); ++i)
            if (made[qsizetype(i)])
                addInputs(passes->elements[i]);
    }

private:
    void complain(int line, const QString &message)
    {
        if (_errors)
            *_errors << QStringLiteral("%1:%2: %3").arg(_fileName).arg(line).arg(message);
    }

    void checkMembers(const Json &object, const QStringList &known, const QString &what)
    {
        QStringList seen;
        for (const Json::Member &member : object.members) {
            if (!known.contains(member.key))
                complain(
                    member.line,
                    QStringLiteral("%1 has no \"%2\"%3").arg(what, member.key, nearestNameHint(member.key, known)));
            else if (seen.contains(member.key))
                complain(member.line, QStringLiteral("\"%1\" stands twice").arg(member.key));
            seen << member.key;
        }
    }

    bool addPass(const Json &pass)
    {
        if (!pass.isObject()) {
            complain(pass.line,
                     QStringLiteral("a pass is an object with \"name\" and \"class\", not %1").arg(pass.describe()));
            return false;
        }
        checkMembers(pass, {QStringLiteral("name"), QStringLiteral("class"), QStringLiteral("inputs")},
                     QStringLiteral("a pass"));
        const Json *name = pass.member(QStringLiteral("name"));
        const Json *className = pass.member(QStringLiteral("class"));
        for (const auto &[member, key] : {std::pair(name, "name"), std::pair(className, "class")}) {
            if (member && member->isString())
                continue;
            complain(member ? member->line : pass.line,
                     QStringLiteral("a pass needs a \"%1\", which is text").arg(QLatin1StringView(key)));
            return false;
        }
        QString error;
        if (_pipeline->add(name->string, className->string, &error))
            return true;
        complain(passFactory().knows(className->string) ? name->line : className->line, error);
        return false;
    }

    void addInputs(const Json &pass)
    {
        const Json *inputs = pass.member(QStringLiteral("inputs"));
        if (!inputs)
            return;
        if (!inputs->isObject()) {
            complain(inputs->line,
                     QStringLiteral("\"inputs\" is an object of slots and values, not %1").arg(inputs->describe()));
            return;
        }
        const QString name = pass.member(QStringLiteral("name"))->string;
        QStringList seen;
        for (const Json::Member &member : inputs->members) {
            // "Viewport" and "Kvo_QRect_Viewport" are the same slot.
            QString slot;
            QVariant unused;
            if (_pipeline->inputSlot(name, member.key, &slot, &unused) && seen.contains(slot))
                complain(member.line, QStringLiteral("input '%1' of pass '%2' stands twice").arg(member.key, name));
            else
                addInput(name, member);
            seen << slot;
        }
    }

    void addInput(const QString &pass, const Json::Member &member)
    {
        const Json &value = member.value;
        QString error;
        bool ok = false;
        if (value.isObject()) {
            checkMembers(value, {QStringLiteral("from")}, QStringLiteral("a link"));
            const Json *from = value.member(QStringLiteral("from"));
            if (!from || !from->isString()) {
                complain(value.line, QStringLiteral("a link is { \"from\": \"Pass.Slot\" }"));
                return;
            }
            ok = link(from->string, pass, member.key, &error);
        } else if (value.isString() && value.string.startsWith(QLatin1StringView("@@"))) {
            Json text = value;
            text.string.remove(0, 1);
            ok = setValue(pass, member.key, text, &error);
        } else if (value.isString() && value.string.startsWith(QLatin1Char('@'))) {
            ok = _pipeline->bind(pass, member.key, value.string.mid(1), &error);
        } else {
            ok = setValue(pass, member.key, value, &error);
        }
        if (!ok)
            complain(member.line, error);
    }

    bool link(const QString &from, const QString &pass, const QString &slot, QString *error)
    {
        if (!_pipeline->connect(from, pass + QLatin1Char('.') + slot, error))
            return false;
        // Asked after every link, so that the message points at the one that closes the circle.
        if (!_pipeline->order(error).isEmpty())
            return true;
        _pipeline->reset(pass, slot);
        return false;
    }

    bool setValue(const QString &pass, const QString &slot, const Json &json, QString *error)
    {
        QString name;
        QVariant hint;
        if (!_pipeline->inputSlot(pass, slot, &name, &hint, error))
            return false;
        QVariant value;
        if (!slotValueFromJson(name, json, &value, error, hint)) {
            *error = QStringLiteral("pass '%1': %2").arg(pass, *error);
            return false;
        }
        return _pipeline->setValue(pass, name, value, error);
    }

    QString _fileName;
    Pipeline *_pipeline;
    QStringList *_errors;
};

bool readFile(const QString &path, QByteArray *text, QString *error)
{
    QFile file(path);
    if (QFileInfo(path).isDir() || !file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read pipeline '%1': %2")
                     .arg(path, QFileInfo(path).isDir() ? QStringLiteral("it is a folder") : file.errorString());
        return false;
    }
    *text = file.readAll();
    return true;
}

} // namespace

bool loadPipelineText(const QByteArray &text, const QString &fileName, Pipeline *pipeline, QStringList *errors)
{
    QStringList found;
    Json root;
    int line = 0;
    QString error;
    if (Json::parse(text, &root, &line, &error))
        Loader(fileName, pipeline, &found).load(root);
    else
        found << QStringLiteral("%1:%2: %3").arg(fileName).arg(line).arg(error);
    if (errors)
        *errors << found;
    return found.isEmpty();
}

bool loadPipeline(const QString &path, Pipeline *pipeline, QStringList *errors)
{
    QByteArray text;
    QString error;
    if (readFile(path, &text, &error))
        return loadPipelineText(text, path, pipeline, errors);
    if (errors)
        *errors << error;
    return false;
}

QStringList pipelineSearchPath(const QStringList &extra)
{
    QStringList path = extra;
    if (QCoreApplication::instance())
        path << QDir::cleanPath(QCoreApplication::applicationDirPath() + QLatin1StringView("/../share/kvo/pipelines"));
    path << QStringLiteral(KVO_SOURCE_PIPELINES);
    return path;
}

QString findPipeline(const QString &nameOrPath, const QStringList &searchPath, QString *error)
{
    if (nameOrPath.contains(QLatin1Char('/')) || nameOrPath.endsWith(kSuffix)) {
        if (QFileInfo(nameOrPath).isFile())
            return nameOrPath;
        if (error)
            *error = QStringLiteral("there is no pipeline file '%1'").arg(nameOrPath);
        return QString();
    }
    for (const QString &folder : searchPath) {
        QString path = folder + QLatin1Char('/') + nameOrPath + kSuffix;
        if (QFileInfo(path).isFile())
            return path;
    }
    if (error) {
        QStringList names;
        for (const PipelineFileInfo &info : listPipelines(searchPath))
            names << info.name;
        *error = QStringLiteral("there is no pipeline '%1'%2 (looked in %3)")
                     .arg(nameOrPath, nearestNameHint(nameOrPath, names), searchPath.join(QLatin1StringView(", ")));
    }
    return QString();
}

QVector<PipelineFileInfo> listPipelines(const QStringList &searchPath)
{
    QVector<PipelineFileInfo> result;
    QStringList names;
    for (const QString &folder : searchPath) {
        const QFileInfoList files = QDir(folder).entryInfoList({QLatin1Char('*') + kSuffix}, QDir::Files, QDir::Name);
        for (const QFileInfo &file : files) {
            if (names.contains(file.completeBaseName()))
                continue;
            names << file.completeBaseName();
            PipelineFileInfo info{file.filePath(), file.completeBaseName(), QString()};
            QByteArray text;
            QString error;
            Json root;
            int line = 0;
            if (readFile(info.path, &text, &error) && Json::parse(text, &root, &line, &error))
                if (const Json *description = root.member(QStringLiteral("description")))
                    info.description = description->string;
            result << info;
        }
    }
    return result;
}

} // namespace Brevane::Kvo
