#include "core/slotinfo.h"
#include "host/passfactory.h"
#include "host/pipeline.h"
#include "host/pipelinefile.h"
#include "host/slotname.h"
#include "json.h"
#include "pipelineversions.h"
#include "slotvaluejson.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <algorithm>
#include <functional>
#include <vector>

using namespace Qt::StringLiterals;

namespace Brevane::Kvo {

namespace {

QString emptyFile()
{
    return u"{\n  \"version\": %1,\n  \"passes\": []\n}\n"_s.arg(newestFormat());
}

// Brings the text of a file in line with a pipeline, one difference at a time: after each the text is read anew, so
// that no change has to know of another one.
class Writer
{
public:
    Writer(const Pipeline &pipeline, const QString &path, const QString &text)
        : _pipeline(pipeline), _folder(QFileInfo(path).absoluteDir()), _text(text)
    {}

    bool run(QStringList *errors)
    {
        while (_errors.isEmpty() && changeOne())
            ;
        *errors << _errors;
        return _errors.isEmpty();
    }

    QString text() const { return _text; }

private:
    // False when nothing differs any more.
    bool changeOne()
    {
        Json root;
        int line = 0;
        QString error;
        if (!Json::parse(_text.toUtf8(), &root, &line, &error) || !root.isObject())
            return complain(u"line %1 of what is there already: %2"_s.arg(line).arg(error));
        const Json *passes = root.member(u"passes"_s);
        if (!passes)
            return append(root, u"\"passes\": []"_s);
        if (!passes->isArray())
            return complain(u"\"passes\" of what is there already is no list"_s);
        if (changeInOnePiece(root))
            return true;
        QStringList seen;
        for (size_t i = 0; i < passes->elements.size(); ++i) {
            const Json *name = passes->elements[i].member(u"name"_s);
            if (!name || !_pipeline.pass(name->string) || seen.contains(name->string))
                return removeElement(*passes, i);
            if (changePass(passes->elements[i], name->string))
                return true;
            if (!_errors.isEmpty())
                return false;
            seen << name->string;
        }
        for (const QString &name : _pipeline.passNames())
            if (!seen.contains(name))
                return addPass(*passes, name);
        return false;
    }

    bool changeInOnePiece(const Json &root)
    {
        const Json *given = root.member(u"inOnePiece"_s);
        const QString wanted = _pipeline.inOnePiece();
        if ((given ? given->string : QString()) == wanted)
            return false;
        if (wanted.isEmpty())
            return removeMember(root, u"inOnePiece"_s);
        QString text;
        slotValueToJson(wanted, &text);
        return given ? replace(*given, text) : append(root, u"\"inOnePiece\": "_s + text);
    }

    bool changePass(const Json &pass, const QString &name)
    {
        const Json *className = pass.member(u"class"_s);
        const QString wanted = classOf(name);
        if (wanted.isEmpty())
            return false;
        if (!className || className->string != wanted)
            return className ? replace(*className, u'"' + wanted + u'"')
                             : append(pass, u"\"class\": \"%1\""_s.arg(wanted));
        return changeClearColor(pass, name) || changeInputs(pass, name);
    }

    bool changeClearColor(const Json &pass, const QString &name)
    {
        const Json *given = pass.member(u"clearColor"_s);
        const QColor color = _pipeline.clearColor(name);
        QVariant before;
        QString error, text;
        if (given)
            slotValueFromJson(u"Kvo_QColor_clearColor"_s, *given, &before, &error);
        if (before.value<QColor>() == color)
            return false;
        if (!color.isValid())
            return removeMember(pass, u"clearColor"_s);
        slotValueToJson(color, &text);
        if (given && textAt(*given) == text)
            return false;
        return given ? replace(*given, text) : append(pass, u"\"clearColor\": "_s + text);
    }

    bool changeInputs(const Json &pass, const QString &name)
    {
        const Json *inputs = pass.member(u"inputs"_s);
        const Json none;
        QStringList given;
        for (const Json::Member &member : (inputs ? *inputs : none).members) {
            QString slot;
            QVariant defaultValue;
            const bool isKnown = _pipeline.inputSlot(name, member.key, &slot, &defaultValue);
            const PassInput input = isKnown ? inputOf(name, slot) : PassInput();
            if (!isKnown || input.kind == PassInput::Kind::Default || given.contains(slot))
                return removeMember(*inputs, member.key);
            given << slot;
            if (says(member.value, name, input))
                continue;
            const QString text = textOf(name, input);
            if (text.isEmpty())
                return false;
            // The same again: a value with more digits than its text, say.
            if (text != textAt(member.value))
                return replace(member.value, text);
        }
        for (const PassInput &input : _pipeline.inputs(name)) {
            if (input.kind == PassInput::Kind::Default || given.contains(input.slot))
                continue;
            const QString text = textOf(name, input);
            if (text.isEmpty())
                return false;
            const QString member = u"\"%1\": %2"_s.arg(briefInput(name, input.slot), text);
            return inputs ? append(*inputs, member) : append(pass, u"\"inputs\": { %1 }"_s.arg(member));
        }
        return false;
    }

    bool addPass(const Json &passes, const QString &name)
    {
        const QString className = classOf(name);
        if (className.isEmpty())
            return false;
        for (const PassOperation &operation : passFactory().operations(className))
            if (operation.name != u"setName")
                return complain(
                    u"pass '%1' is new, and what a %2 was told by calls is not known"_s.arg(name, className));
        // As the passes before it are written, or as those of the library are.
        const qsizetype column = passes.elements.empty() ? 4 : columnOf(passes.elements.back().from);
        const QString indent(column + 2, u' ');
        QString pass = u"{\n%1\"name\": \"%2\",\n%1\"class\": \"%3\""_s.arg(indent, name, className);
        QStringList inputs;
        for (const PassInput &input : _pipeline.inputs(name)) {
            if (input.kind == PassInput::Kind::Default)
                continue;
            const QString text = textOf(name, input);
            if (text.isEmpty())
                return false;
            inputs << u"%1  \"%2\": %3"_s.arg(indent, briefInput(name, input.slot), text);
        }
        if (!inputs.isEmpty())
            pass += u",\n%1\"inputs\": {\n%2\n%1}"_s.arg(indent, inputs.join(u",\n"_s));
        pass += u'\n' + QString(column, u' ') + u'}';
        if (!passes.elements.empty())
            return append(passes.elements.back().from, passes.elements.back().to, pass, true);
        return replace(passes, u"[\n    %1\n  ]"_s.arg(pass));
    }

    // What the pipeline has

    QString classOf(const QString &name)
    {
        const QString className = _pipeline.className(name);
        if (className.isEmpty())
            complain(u"pass '%1' was added as an object: a file could not make it"_s.arg(name));
        return className;
    }

    PassInput inputOf(const QString &pass, const QString &slot) const
    {
        for (const PassInput &input : _pipeline.inputs(pass))
            if (input.slot == slot)
                return input;
        return {};
    }

    QString briefInput(const QString &pass, const QString &slot) const
    {
        QString found;
        QVariant defaultValue;
        const QString brief = SlotName::parse(slot).name;
        return _pipeline.inputSlot(pass, brief, &found, &defaultValue) && found == slot ? brief : slot;
    }

    QString briefOutput(const QString &pass, const QString &slot) const
    {
        QString found;
        const QString brief = SlotName::parse(slot).name;
        return _pipeline.outputSlot(pass, brief, &found) && found == slot ? brief : slot;
    }

    // Whether a value of the file is what an input has.
    bool says(const Json &value, const QString &pass, const PassInput &input) const
    {
        const Json *from = value.member(u"from"_s);
        if (input.kind == PassInput::Kind::Link || from) {
            QString slot;
            const QString end = from ? from->string : QString();
            return input.kind == PassInput::Kind::Link && end.section(u'.', 0, 0) == input.sourcePass
                   && _pipeline.outputSlot(input.sourcePass, end.section(u'.', 1), &slot) && slot == input.source;
        }
        const bool isHost = value.isString() && value.string.startsWith(u'@') && !value.string.startsWith(u"@@");
        if (input.kind == PassInput::Kind::Host || isHost)
            return isHost && input.kind == PassInput::Kind::Host
                   && QString(value.string).remove(u' ') == QString(input.source).remove(u' ');
        if (const Json *file = value.member(u"file"_s))
            return QDir::cleanPath(_folder.filePath(file->string)) == input.value.toString();
        if (const Json *content = value.member(u"contentOf"_s)) {
            QFile file(_folder.filePath(content->string));
            return file.open(QIODevice::ReadOnly) && QString::fromUtf8(file.readAll()) == input.value.toString();
        }
        Json plain = value;
        if (plain.string.startsWith(u"@@"))
            plain.string.remove(0, 1);
        QVariant read;
        QString error;
        return slotValueFromJson(input.slot, plain, &read, &error, defaultOf(pass, input.slot),
                                 _pipeline.inputInfo(pass, input.slot))
               && read == input.value;
    }

    QVariant defaultOf(const QString &pass, const QString &slot) const
    {
        QString name;
        QVariant value;
        _pipeline.inputSlot(pass, slot, &name, &value);
        return value;
    }

    // Empty, with a complaint, for what has no text.
    QString textOf(const QString &pass, const PassInput &input)
    {
        if (input.kind == PassInput::Kind::Link)
            return u"{ \"from\": \"%1.%2\" }"_s.arg(input.sourcePass, briefOutput(input.sourcePass, input.source));
        if (input.kind == PassInput::Kind::Host)
            return u'"' + input.source + u'"';
        const SlotInfo *info = _pipeline.inputInfo(pass, input.slot);
        if (info)
            for (const SlotChoice &choice : info->choices)
                if (input.value == QVariant(choice.value))
                    return u"\"%1\""_s.arg(QLatin1StringView(choice.name));
        QVariant value = input.value;
        QString text;
        if (info && info->kind == SlotKind::Path && QFileInfo(value.toString()).isFile()) {
            slotValueToJson(_folder.relativeFilePath(value.toString()), &text);
            return u"{ \"file\": %1 }"_s.arg(text);
        }
        if (value.metaType().id() == QMetaType::QString && value.toString().startsWith(u'@'))
            value = u'@' + value.toString();
        if (!slotValueToJson(value, &text))
            complain(u"input '%1' of pass '%2' holds a value that has no text"_s.arg(input.slot, pass));
        return text;
    }

    // Changes of the text; each gives true for success.

    bool complain(const QString &error)
    {
        _errors << error;
        return false;
    }

    bool replace(const Json &value, const QString &by)
    {
        _text.replace(value.from, value.to - value.from, by);
        return true;
    }

    QString textAt(const Json &value) const { return _text.mid(value.from, value.to - value.from); }

    qsizetype columnOf(qsizetype place) const { return place - 1 - _text.lastIndexOf(u'\n', place - 1); }

    // The end of the comments and the space behind a place on its line; -1 when something else follows there.
    qsizetype endOfLine(qsizetype place) const
    {
        while (place < _text.size() && _text[place] != u'\n') {
            const QStringView rest = QStringView(_text).mid(place);
            const qsizetype end = rest.startsWith(u"/*") ? _text.indexOf(u"*/"_s, place + 2) : -1;
            if (rest.startsWith(u"//"))
                return _text.indexOf(u'\n', place) < 0 ? _text.size() : _text.indexOf(u'\n', place);
            if (end < 0 && !_text[place].isSpace())
                return -1;
            place = end < 0 ? place + 1 : end + 2;
        }
        return place;
    }

    // Behind the last of its kind, on a line of its own where that one has one.
    bool append(qsizetype lastFrom, qsizetype lastTo, const QString &text, bool ownLine)
    {
        if (!ownLine) {
            _text.insert(lastTo, u", "_s + text);
            return true;
        }
        const QString line = u'\n' + QString(columnOf(lastFrom), u' ') + text;
        // A comment behind the last one stays with it.
        const qsizetype end = endOfLine(lastTo);
        _text.insert(end < 0 ? lastTo : end, end < 0 ? u',' + line : line);
        if (end >= 0)
            _text.insert(lastTo, u',');
        return true;
    }

    bool append(const Json &object, const QString &member)
    {
        if (object.members.empty()) {
            _text.replace(object.from, object.to - object.from, u"{ %1 }"_s.arg(member));
            return true;
        }
        const Json::Member &last = object.members.back();
        const qsizetype before =
            object.members.size() > 1 ? object.members[object.members.size() - 2].value.to : object.from;
        return append(last.from, last.value.to, member,
                      QStringView(_text).mid(before, last.from - before).contains(u'\n'));
    }

    // Takes out what stands from one place to another, with the comma that is one too many and a line that is empty
    // then.
    bool remove(qsizetype from, qsizetype to, bool isLast, qsizetype previousTo)
    {
        if (isLast && previousTo >= 0) {
            // The comma behind the one before; what is between is space and comments.
            qsizetype comma = previousTo;
            while (_text[comma] != u',') {
                const QStringView rest = QStringView(_text).mid(comma);
                comma = rest.startsWith(u"//")   ? _text.indexOf(u'\n', comma)
                        : rest.startsWith(u"/*") ? _text.indexOf(u"*/"_s, comma) + 2
                                                 : comma + 1;
            }
            _text.remove(comma, 1);
            --from;
            --to;
        } else if (!isLast) {
            while (_text[to] != u',')
                ++to;
            ++to;
        }
        qsizetype lineFrom = from;
        while (lineFrom > 0 && _text[lineFrom - 1].isSpace() && _text[lineFrom - 1] != u'\n')
            --lineFrom;
        const bool startsLine = lineFrom == 0 || _text[lineFrom - 1] == u'\n';
        const qsizetype end = endOfLine(to);
        if (startsLine && end >= 0) {
            _text.remove(lineFrom, end + 1 - lineFrom);
            return true;
        }
        while (to < _text.size() && _text[to] == u' ' && !isLast)
            ++to;
        _text.remove(isLast && !startsLine ? lineFrom : from, to - (isLast && !startsLine ? lineFrom : from));
        return true;
    }

    bool removeMember(const Json &object, const QString &key)
    {
        // Of two of a name the last one counts, so the first one goes.
        for (size_t i = 0; i < object.members.size(); ++i)
            if (object.members[i].key == key)
                return remove(object.members[i].from, object.members[i].value.to, i + 1 == object.members.size(),
                              i > 0 ? object.members[i - 1].value.to : -1);
        return false;
    }

    bool removeElement(const Json &array, size_t index)
    {
        const Json &element = array.elements[index];
        return remove(element.from, element.to, index + 1 == array.elements.size(),
                      index > 0 ? array.elements[index - 1].to : -1);
    }

    const Pipeline &_pipeline;
    const QDir _folder;
    QString _text;
    QStringList _errors;
};

} // namespace

QByteArray pipelineText(const Pipeline &pipeline, const QString &path, const QByteArray &original, QStringList *errors)
{
    QStringList unused;
    QByteArray current = original;
    int line = 0;
    QString error;
    if (!bringUpToDate(&current, formatSteps(), &line, &error)) {
        (errors ? errors : &unused)->append(u"%1:%2: %3"_s.arg(path).arg(line).arg(error));
        return QByteArray();
    }
    Writer writer(pipeline, path, current.trimmed().isEmpty() ? emptyFile() : QString::fromUtf8(current));
    return writer.run(errors ? errors : &unused) ? writer.text().toUtf8() : QByteArray();
}

bool savePipeline(const Pipeline &pipeline, const QString &path, QStringList *errors, const QByteArray &original)
{
    QStringList unused;
    QStringList &found = errors ? *errors : unused;
    QByteArray before = original;
    if (QFile file(path); before.isEmpty() && QFileInfo(path).isFile()) {
        if (!file.open(QIODevice::ReadOnly)) {
            found << u"cannot read '%1': %2"_s.arg(path, file.errorString());
            return false;
        }
        before = file.readAll();
    }
    const QByteArray text = pipelineText(pipeline, path, before, &found);
    if (text.isEmpty())
        return false;
    // What is there stays whole until all of the new is written.
    QSaveFile file(path);
    if (file.open(QIODevice::WriteOnly) && file.write(text) >= 0 && file.commit())
        return true;
    found << u"cannot write '%1': %2"_s.arg(path, file.errorString());
    return false;
}

namespace {

void visit(const Json &json, const std::function<void(const QString &key, const Json &value)> &member)
{
    for (const Json &element : json.elements)
        visit(element, member);
    for (const Json::Member &one : json.members) {
        member(one.key, one.value);
        visit(one.value, member);
    }
}

bool parse(const QByteArray &text, Json *root)
{
    int line = 0;
    QString error;
    return Json::parse(text, root, &line, &error);
}

} // namespace

QByteArray withPassRenamed(const QByteArray &text, const QString &name, const QString &newName)
{
    Json root;
    if (!parse(text, &root))
        return text;
    struct Place
    {
        qsizetype from;
        qsizetype to;
        QString value;
    };
    std::vector<Place> places;
    const auto note = [&](const Json &json, const QString &value) {
        places.push_back({json.from, json.to, u'"' + value + u'"'});
    };
    if (const Json *passes = root.member(u"passes"_s))
        for (const Json &pass : passes->elements) {
            if (const Json *own = pass.member(u"name"_s); own && own->string == name)
                note(*own, newName);
            if (const Json *inputs = pass.member(u"inputs"_s))
                for (const Json::Member &input : inputs->members)
                    if (const Json *from = input.value.member(u"from"_s);
                        from && from->string.section(u'.', 0, 0) == name)
                        note(*from, newName + u'.' + from->string.section(u'.', 1));
        }
    // From the end, so that the places before stay where they are.
    std::sort(places.begin(), places.end(), [](const Place &a, const Place &b) { return a.from > b.from; });
    QString result = QString::fromUtf8(text);
    for (const Place &place : places)
        result.replace(place.from, place.to - place.from, place.value);
    return result.toUtf8();
}

QStringList filesOf(const QByteArray &text, const QString &path)
{
    QStringList files;
    Json root;
    if (!parse(text, &root))
        return files;
    const QDir folder = QFileInfo(path).absoluteDir();
    visit(root, [&](const QString &key, const Json &value) {
        if ((key != u"file" && key != u"contentOf") || !value.isString())
            return;
        const QString file = QDir::cleanPath(folder.absoluteFilePath(value.string));
        if (!files.contains(file))
            files << file;
    });
    return files;
}

} // namespace Brevane::Kvo
