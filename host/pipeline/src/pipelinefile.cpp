#include "host/pipelinefile.h"

#include "host/passfactory.h"
#include "host/pipeline.h"
#include "host/slotname.h"
#include "json.h"
#include "libraryfolder.h"
#include "lightsjson.h"
#include "pipelineversions.h"
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
        checkMembers(root,
                     {QStringLiteral("$schema"), QStringLiteral("version"), QStringLiteral("description"),
                      QStringLiteral("passes"), QStringLiteral("lights"), QStringLiteral("inOnePiece")},
                     QStringLiteral("a pipeline"));
        textOf(root, QStringLiteral("description"));
        _pipeline->setInOnePiece(textOf(root, QStringLiteral("inOnePiece")));
        setLights(root);
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
    // Empty where there is none.
    QString textOf(const Json &root, const QString &name)
    {
        const Json *member = root.member(name);
        if (!member)
            return QString();
        if (!member->isString())
            complain(member->line, QStringLiteral("\"%1\" is text, not %2").arg(name, member->describe()));
        return member->isString() ? member->string : QString();
    }

    void setLights(const Json &root)
    {
        const Json *lights = root.member(QStringLiteral("lights"));
        if (!lights)
            return;
        if (!lights->isArray()) {
            complain(lights->line, QStringLiteral("\"lights\" is a list of lights, not %1").arg(lights->describe()));
            return;
        }
        QVector<ShadowMapLight> list;
        for (const Json &element : lights->elements) {
            int line = 0;
            QString error;
            if (!lightFromJson(element, &list.emplaceBack(), &line, &error))
                complain(line, error);
        }
        _pipeline->setHostValue(QStringLiteral("lights"), lightsToVariant(list));
    }

    void complain(int line, const QString &message)
    {
        if (_errors)
            *_errors << QStringLiteral("%1:%2: %3").arg(_fileName, QString::number(line), message);
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
        checkMembers(pass,
                     {QStringLiteral("name"), QStringLiteral("class"), QStringLiteral("clearColor"),
                      QStringLiteral("calls"), QStringLiteral("inputs")},
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
        if (_pipeline->add(name->string, className->string, &error)) {
            setClearColor(pass);
            passName(name->string, className->string);
            addCalls(pass);
            return true;
        }
        complain(passFactory().knows(className->string) ? name->line : className->line, error);
        return false;
    }

    void setClearColor(const Json &pass)
    {
        const Json *color = pass.member(QStringLiteral("clearColor"));
        if (!color)
            return;
        QVariant value;
        QString error;
        if (slotValueFromJson(QStringLiteral("Kvo_QColor_clearColor"), *color, &value, &error)
            && value.value<QColor>().isValid())
            _pipeline->setClearColor(pass.member(QStringLiteral("name"))->string, value.value<QColor>());
        else
            complain(color->line, error.isEmpty() ? QStringLiteral("\"clearColor\" is a colour") : error);
    }

    // Passes that have a name for messages take that of the file.
    void passName(const QString &name, const QString &className)
    {
        const QVector<PassOperation> operations = passFactory().operations(className);
        for (const PassOperation &operation : operations)
            if (operation.name == QLatin1StringView("setName"))
                operation.call(*_pipeline->pass(name), {name});
    }

    // { "file": "sky.png" } is the path of a file beside the pipeline file, { "contentOf": "sky.frag" } the
    // text in it; both become plain text. False for a file that is not there.
    bool resolveFile(Json *value)
    {
        const Json *path = value->member(QStringLiteral("file"));
        const Json *content = value->member(QStringLiteral("contentOf"));
        const Json *named = path ? path : content;
        if (!value->isObject() || !named)
            return true;
        if (value->members.size() != 1 || !named->isString()) {
            complain(value->line, QStringLiteral("a file is { \"file\": \"path\" } or { \"contentOf\": \"path\" }"));
            return false;
        }
        QFile file(QDir(QFileInfo(_fileName).absolutePath()).filePath(named->string));
        if (!QFileInfo(file).isFile() || !file.open(QIODevice::ReadOnly)) {
            complain(value->line, QStringLiteral("there is no file '%1'").arg(file.fileName()));
            return false;
        }
        Json text;
        text.type = Json::Type::String;
        text.line = value->line;
        text.string = path ? QDir::cleanPath(file.fileName()) : QString::fromUtf8(file.readAll());
        *value = text;
        return true;
    }

    // [ { "addCube": [1, [0, 0, 0]] }, { "addQuad": … } ], called in this order.
    void addCalls(const Json &pass)
    {
        const Json *calls = pass.member(QStringLiteral("calls"));
        if (!calls)
            return;
        if (!calls->isArray()) {
            complain(calls->line, QStringLiteral("\"calls\" is a list of operations, not %1").arg(calls->describe()));
            return;
        }
        for (const Json &call : calls->elements) {
            if (call.isObject() && call.members.size() == 1 && call.members.front().value.isArray())
                addCall(pass, call.members.front());
            else
                complain(call.line, QStringLiteral("a call is { \"operation\": [arguments] }"));
        }
    }

    void addCall(const Json &pass, const Json::Member &call)
    {
        const QString className = pass.member(QStringLiteral("class"))->string;
        const QVector<PassOperation> operations = passFactory().operations(className);
        QStringList names;
        for (const PassOperation &operation : operations)
            names << operation.name;
        const qsizetype index = names.indexOf(call.key);
        if (index < 0) {
            complain(call.line, QStringLiteral("%1 has no operation '%2'%3")
                                    .arg(className, call.key, nearestNameHint(call.key, names)));
            return;
        }
        const PassOperation &operation = operations[index];
        std::vector<Json> given = call.value.elements;
        if (qsizetype(given.size()) != operation.argumentTypes.size()) {
            complain(call.line, QStringLiteral("'%1' takes (%2), not %3 argument(s)")
                                    .arg(call.key, operation.argumentTypes.join(QLatin1StringView(", ")),
                                         QString::number(given.size())));
            return;
        }
        QVariantList arguments;
        for (size_t i = 0; i < given.size(); ++i) {
            QVariant value;
            QString error;
            if (!resolveFile(&given[i]))
                return;
            // An argument reads like a slot of its type.
            const QString slot = QStringLiteral("Kvo_%1_%2").arg(operation.argumentTypes[qsizetype(i)]).arg(i + 1);
            if (!slotValueFromJson(slot, given[i], &value, &error) || !value.isValid()) {
                complain(given[i].line, QStringLiteral("argument %1 of '%2' is a %3, not %4")
                                            .arg(i + 1)
                                            .arg(call.key, operation.argumentTypes[qsizetype(i)], given[i].describe()));
                return;
            }
            arguments << value;
        }
        operation.call(*_pipeline->pass(pass.member(QStringLiteral("name"))->string), arguments);
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
        Json value = member.value;
        const bool isFile = value.isObject() && !value.member(QStringLiteral("from"));
        if (isFile && !resolveFile(&value))
            return;
        QString error;
        bool ok = false;
        if (value.isObject()) {
            checkMembers(value, {QStringLiteral("from")}, QStringLiteral("a link"));
            const Json *from = value.member(QStringLiteral("from"));
            if (!from || !from->isString()) {
                complain(value.line, QStringLiteral("a link is { \"from\": \"Pass.Slot\" }"));
                return;
            }
            ok = _pipeline->connect(from->string, pass + QLatin1Char('.') + member.key, &error);
        } else if (!isFile && value.isString() && value.string.startsWith(QLatin1StringView("@@"))) {
            Json text = value;
            text.string.remove(0, 1);
            ok = setValue(pass, member.key, text, &error);
        } else if (!isFile && value.isString() && value.string.startsWith(QLatin1Char('@'))) {
            ok = _pipeline->bind(pass, member.key, value.string.mid(1), &error);
        } else {
            ok = setValue(pass, member.key, value, &error);
        }
        if (!ok)
            complain(member.line, error);
    }

    bool setValue(const QString &pass, const QString &slot, const Json &json, QString *error)
    {
        QString name;
        QVariant hint;
        if (!_pipeline->inputSlot(pass, slot, &name, &hint, error))
            return false;
        QVariant value;
        if (!slotValueFromJson(name, json, &value, error, hint, _pipeline->inputInfo(pass, name))) {
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
    QByteArray current = text;
    if (bringUpToDate(&current, formatSteps(), &line, &error) && Json::parse(current, &root, &line, &error))
        Loader(fileName, pipeline, &found).load(root);
    else
        found << QStringLiteral("%1:%2: %3").arg(fileName, QString::number(line), error);
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
    // A program of somebody else's lies anywhere, but the library that it uses brought its pipelines along.
    if (const QString library = folderOfLibrary(reinterpret_cast<const void *>(&findPipeline)); !library.isEmpty()) {
        const QString folder = QDir::cleanPath(library + u'/' + QLatin1StringView(KVO_LIBRARIES_TO_PIPELINES));
        if (!path.contains(folder))
            path << folder;
    }
    path << QStringLiteral(KVO_PIPELINES_FALLBACK);
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

QString defaultPipeline(bool hasModel)
{
    return hasModel ? QStringLiteral("studio") : QStringLiteral("gradient");
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
