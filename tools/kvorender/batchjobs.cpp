#include "batchjobs.h"

#include "host/slotname.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QSet>

#include <cmath>
#include <limits>

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

namespace {

constexpr qint64 kLargestText = 64 << 20; // of a file that may name others

const QString kModel = u"model"_s;
const QString kOutput = u"output"_s;
const QString kCamera = u"camera"_s;
const QStringList kPlaces{u"eye"_s, u"target"_s, u"up"_s}; // of a camera, three numbers each

// What names a file to write, some as "Pass.Slot=file".
struct FileOption
{
    QString name;
    bool isBehindSlot;
};
const FileOption kFileOptions[]{{kOutput, false}, {u"dump"_s, true}, {u"compare"_s, true}, {u"oit-lengths"_s, false}};

QString absolute(const QString &file)
{
    return QDir::cleanPath(QFileInfo(file).absoluteFilePath());
}

bool fails(QString *error, const QString &reason)
{
    *error = reason;
    return false;
}

// As people write numbers: 0.1 and 350, not 0.1000000000001 and 3.5e2.
QString numberText(double number)
{
    if (number == std::floor(number) && std::abs(number) < 1e15)
        return QString::number(qint64(number));
    return QString::number(number, 'g', 9);
}

QString compact(const QJsonValue &value)
{
    switch (value.type()) {
    case QJsonValue::String: return value.toString();
    case QJsonValue::Double: return numberText(value.toDouble());
    case QJsonValue::Bool: return value.toBool() ? u"true"_s : u"false"_s;
    case QJsonValue::Array: return QString::fromUtf8(QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact));
    case QJsonValue::Object: return QString::fromUtf8(QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact));
    default: return u"null"_s;
    }
}

QString tooMany(qint64 most)
{
    return u"the line makes more than %1 pictures"_s.arg(most);
}

bool isRange(const QJsonValue &value)
{
    return value.isObject() && value.toObject().contains("from"_L1) && value.toObject().contains("to"_L1);
}

bool isEach(const QJsonValue &value)
{
    return value.isObject() && value.toObject().contains("each"_L1);
}

bool readRange(const QString &key, const QJsonObject &range, qint64 most, QJsonArray *values, QString *error)
{
    const double from = range["from"_L1].toDouble(NAN);
    const double to = range["to"_L1].toDouble(NAN);
    const double count = range["count"_L1].toDouble(NAN);
    if (range.size() != 3 || std::isnan(from) || std::isnan(to) || !(count >= 1) || count != std::floor(count))
        return fails(error, u"'%1': a range is {\"from\": number, \"to\": number, \"count\": 1 or more}, not %2"_s.arg(
                                key, compact(range)));
    if (count > double(most))
        return fails(error, tooMany(most));
    for (int i = 0; i < int(count); ++i)
        values->append(count == 1.0 ? from : from + (to - from) * i / (count - 1.0));
    return true;
}

// "a.b.c" with its first part taken off.
QPair<QString, QString> splitKey(const QString &key)
{
    const qsizetype dot = key.indexOf(u'.');
    return dot < 0 ? qMakePair(key, QString()) : qMakePair(key.left(dot), key.mid(dot + 1));
}

// "0,1,0" of a list of numbers, which is a place and no choice.
std::optional<QString> placeText(const QJsonValue &value)
{
    const QJsonArray list = value.toArray();
    if (list.size() != 3)
        return std::nullopt;
    QStringList parts;
    for (const QJsonValue &part : list) {
        if (!part.isDouble())
            return std::nullopt;
        parts << numberText(part.toDouble());
    }
    return parts.join(u',');
}

// A name that stands for a file in the name of another.
QString plainName(const QString &value)
{
    QString name = value.contains(u'/') || value.contains(u'.') ? QFileInfo(value).completeBaseName() : value;
    static const QRegularExpression kOdd(u"[/\\\\\\x00-\\x1f]"_s);
    return name.replace(kOdd, u"-"_s);
}

} // namespace

/// One thing that varies, or not, within a line.
struct BatchJobs::Axis
{
    QString option;
    QString part; ///< Of a camera, or the left side of "Pass.Slot=value".
    QVector<QStringList> alternatives; ///< The texts of each.
};

struct BatchJobs::Expansion
{
    const qint64 most;
    QVector<Axis> axes = {};
    qint64 count = 1;

    bool add(const Axis &axis, QString *error)
    {
        if (axis.alternatives.isEmpty())
            return fails(error, u"'%1' has no values"_s.arg(axis.option));
        count *= axis.alternatives.size();
        if (count > most)
            return fails(error, tooMany(most));
        axes.append(axis);
        return true;
    }
};

QStringList filesOf(const OptionTexts &options)
{
    QStringList files;
    for (const FileOption &option : kFileOptions)
        for (const QString &text : options.value(option.name)) {
            const QString file = option.isBehindSlot ? text.section(u'=', 1) : text;
            if (!file.isEmpty())
                files << file;
        }
    return files;
}

QString fileNamedTwice(const OptionTexts &options)
{
    QSet<QString> known;
    for (const QString &file : filesOf(options)) {
        if (known.contains(absolute(file)))
            return file;
        known.insert(absolute(file));
    }
    return {};
}

bool Shard::parse(const QString &text, Shard *shard)
{
    static const QRegularExpression kForm(u"^([0-9]{1,6})/([0-9]{1,6})$"_s);
    const QRegularExpressionMatch match = kForm.match(text);
    *shard = {match.captured(1).toInt(), match.captured(2).toInt()};
    return match.hasMatch() && shard->index >= 1 && shard->index <= shard->count;
}

const Option *BatchJobs::optionOf(const QString &name) const
{
    for (const Option &option : _options)
        if (option.longName() == name && !option.ofRun)
            return &option;
    return nullptr;
}

QStringList BatchJobs::keys() const
{
    QStringList names{kModel};
    for (const Option &option : _options)
        if (!option.ofRun)
            names << option.longName();
    return names;
}

bool BatchJobs::readFile(const QString &path, QString *error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return fails(error, u"cannot read '%1': %2"_s.arg(path, file.errorString()));
    const QByteArray text = file.readAll();
    const QString suffix = QFileInfo(path).suffix().toLower();
    QString reason;
    bool ok = false;
    if (suffix == "csv"_L1)
        ok = readTable(text, &reason);
    else if (suffix == "jsonl"_L1 || suffix == "ndjson"_L1)
        ok = readLines(text, &reason);
    else
        reason = u"its name has to end in .jsonl or .csv"_s;
    return ok || fails(error, u"cannot read the jobs of '%1': %2"_s.arg(path, reason));
}

void BatchJobs::addError(int line, const QString &error)
{
    BatchJob job;
    job.line = line;
    job.place = u"line %1"_s.arg(line);
    job.error = error;
    _jobs.append(job);
}

bool BatchJobs::readLines(const QByteArray &text, QString *error)
{
    int number = 0;
    bool isFirst = true;
    for (const QByteArray &line : text.split('\n')) {
        ++number;
        if (line.trimmed().isEmpty())
            continue;
        QJsonParseError mistake;
        const QJsonDocument document = QJsonDocument::fromJson(line, &mistake);
        if (!document.isObject()) {
            addError(number, mistake.error == QJsonParseError::NoError
                                 ? u"not an object"_s
                                 : u"not JSON: %1 at column %2"_s.arg(mistake.errorString()).arg(mistake.offset + 1));
        } else if (isFirst && document.object().contains("defaults"_L1)) {
            if (document.object().size() != 1 || !document["defaults"].isObject())
                return fails(error, u"line %1: the header is {\"defaults\": {...}} and nothing else"_s.arg(number));
            if (!setDefaults(document["defaults"].toObject(), error)) {
                *error = u"line %1: %2"_s.arg(number).arg(*error);
                return false;
            }
        } else {
            add(number, document.object());
        }
        isFirst = false;
    }
    findCollisions();
    return true;
}

bool BatchJobs::setDefaults(const QJsonObject &object, QString *error)
{
    Expansion expansion{_most};
    if (!expand(object, &expansion, error))
        return false;
    _header = object;
    return true;
}

namespace {

// Fields in quotes may hold commas, line breaks and doubled quotes. With the line that each row begins at.
bool readRows(const QString &text, QVector<QPair<int, QStringList>> *rows, QString *error)
{
    int line = 1;
    QStringList row;
    QString field;
    int begin = 1;
    bool quoted = false, wasQuoted = false;
    const auto endField = [&] {
        row << (wasQuoted ? field : field.trimmed());
        field.clear();
        wasQuoted = false;
    };
    const auto endRow = [&] {
        endField();
        if (row.size() > 1 || !row[0].isEmpty())
            rows->append({begin, row});
        row.clear();
    };
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text[i];
        if (c == u'\n')
            ++line;
        if (quoted) {
            if (c != u'"')
                field += c;
            else if (text.mid(i + 1, 1) == "\""_L1)
                field += text[++i];
            else
                quoted = false;
        } else if (c == u'"' && field.trimmed().isEmpty()) {
            field.clear();
            quoted = wasQuoted = true;
        } else if (c == u',') {
            endField();
        } else if (c == u'\n') {
            endRow();
            begin = line;
        } else if (c != u'\r') {
            field += c;
        }
    }
    if (quoted)
        return fails(error, u"line %1: a quote without an end"_s.arg(begin));
    endRow();
    return true;
}

void put(QJsonObject *object, const QString &column, const QString &text)
{
    const auto [key, part] = splitKey(column);
    if (part.isEmpty()) {
        object->insert(key, text);
        return;
    }
    QJsonObject parts = object->value(key).toObject();
    parts.insert(part, text);
    object->insert(key, parts);
}

} // namespace

bool BatchJobs::readTable(const QByteArray &text, QString *error)
{
    QVector<QPair<int, QStringList>> rows;
    if (!readRows(QString::fromUtf8(text), &rows, error))
        return false;
    if (rows.isEmpty())
        return fails(error, u"there is no line with the names of the columns"_s);
    QStringList columns;
    QJsonObject defaults;
    for (const QString &heading : std::as_const(rows.first().second)) {
        const qsizetype equals = heading.indexOf(u'=');
        columns << heading.left(equals).trimmed();
        if (equals >= 0)
            put(&defaults, columns.last(), heading.mid(equals + 1).trimmed());
        if (columns.count(columns.last()) > 1)
            return fails(error, u"line %1: two columns are called '%2'"_s.arg(rows.first().first).arg(columns.last()));
        const QString key = splitKey(columns.last()).first;
        if (key != kModel && !optionOf(key))
            return fails(
                error,
                u"line %1: there is no option '%2'%3"_s.arg(rows.first().first).arg(key, nearestNameHint(key, keys())));
    }
    if (!setDefaults(defaults, error)) {
        *error = u"line %1: %2"_s.arg(rows.first().first).arg(*error);
        return false;
    }
    for (const auto &[line, fields] : rows.mid(1)) {
        if (fields.size() > columns.size()) {
            addError(line, u"%1 fields for %2 columns"_s.arg(fields.size()).arg(columns.size()));
            continue;
        }
        QJsonObject object;
        for (qsizetype i = 0; i < fields.size(); ++i)
            if (!fields[i].isEmpty())
                put(&object, columns[i], fields[i]);
        add(line, object);
    }
    findCollisions();
    return true;
}

// What a line says goes before its header's; of cameras and slots, part by part.
bool BatchJobs::expand(const QJsonObject &line, Expansion *expansion, QString *error) const
{
    QJsonObject object = _header;
    for (auto i = line.begin(); i != line.end(); ++i) {
        const QJsonValue before = object.value(i.key());
        const bool isParts = i->isObject() && before.isObject() && !isEach(*i) && !isEach(before);
        if (!isParts) {
            object.insert(i.key(), *i);
            continue;
        }
        QJsonObject parts = before.toObject();
        const QJsonObject own = i->toObject();
        for (auto part = own.begin(); part != own.end(); ++part)
            parts.insert(part.key(), *part);
        object.insert(i.key(), parts);
    }

    // In the order of the options, model first, so that neighbours share it.
    for (const QString &key : object.keys())
        if (key != kModel && !optionOf(key))
            return fails(error, u"there is no option '%1'%2"_s.arg(key, nearestNameHint(key, keys())));
    for (const QString &key : keys()) {
        if (!object.contains(key))
            continue;
        const QJsonValue value = object[key];
        const Option *option = optionOf(key);
        const bool isSwitch = option && option->value.isEmpty();
        const bool repeats = option && option->repeats && option->repeatsWith.isEmpty();

        // Alternatives of one value, as texts of the option.
        const auto alternativesOf = [&](const QJsonValue &v, const QString &prefix, bool listIsChoice,
                                        QVector<QStringList> *texts) {
            QJsonArray choices;
            if (isRange(v)) {
                if (!readRange(key, v.toObject(), expansion->most, &choices, error))
                    return false;
            } else if (isEach(v)) {
                choices = v["each"_L1].toArray();
                if (v.toObject().size() != 1 || choices.isEmpty())
                    return fails(error, u"'%1': {\"each\": [...]} takes a list, and nothing else"_s.arg(key));
            } else if (v.isArray() && listIsChoice) {
                choices = v.toArray();
            } else {
                choices.append(v);
            }
            for (const QJsonValue &choice : std::as_const(choices)) {
                QStringList all;
                if (choice.isArray() && repeats && prefix.isEmpty())
                    for (const QJsonValue &one : choice.toArray())
                        all << compact(one);
                else if (prefix.isEmpty() && (choice.isObject() || choice.isArray()))
                    return fails(error, u"'%1' does not take %2"_s.arg(key, compact(choice)));
                else if (key == kCamera && placeText(choice))
                    all << prefix + *placeText(choice);
                else
                    all << prefix + compact(choice);
                texts->append(all);
            }
            return true;
        };

        if (value.isNull()) { // As if it were not there, whatever the defaults say.
            expansion->axes.append(Axis{key, {}, {QStringList()}});
            continue;
        }
        if (isSwitch) {
            QVector<QStringList> texts;
            if (!alternativesOf(value, {}, true, &texts))
                return false;
            Axis axis{key, {}, {}};
            for (const QStringList &text : std::as_const(texts)) {
                if (text != QStringList(u"true"_s) && text != QStringList(u"false"_s))
                    return fails(error, u"'%1' is true or false, not %2"_s.arg(key, text.join(u' ')));
                axis.alternatives << (text[0] == "true"_L1 ? QStringList(QString()) : QStringList());
            }
            if (!expansion->add(axis, error))
                return false;
            continue;
        }
        const bool hasParts = value.isObject() && !isRange(value) && !isEach(value);
        if (hasParts && key != kCamera && !repeats)
            return fails(error, u"'%1' does not take %2"_s.arg(key, compact(value)));
        if (!hasParts) {
            Axis axis{key, {}, {}};
            if (value.isArray() && repeats) {
                // All of it holds; what varies in it stands as {"each": ...}.
                for (const QJsonValue &one : value.toArray()) {
                    Axis part{key, {}, {}};
                    if (!alternativesOf(one, {}, false, &part.alternatives) || !expansion->add(part, error))
                        return false;
                }
                continue;
            }
            if (!alternativesOf(value, {}, true, &axis.alternatives) || !expansion->add(axis, error))
                return false;
            continue;
        }
        const QJsonObject parts = value.toObject();
        for (auto part = parts.begin(); part != parts.end(); ++part) {
            Axis axis{key, part.key(), {}};
            const bool isPlace = kPlaces.contains(part.key()) && placeText(*part);
            const bool listIsChoice = key == kCamera && !isPlace;
            if (!alternativesOf(*part, part.key() + u'=', listIsChoice, &axis.alternatives)
                || !expansion->add(axis, error))
                return false;
        }
    }
    return true;
}

namespace {

// What "{key}" stands for. Nothing for a key that the picture does not have.
std::optional<QString> placeholder(const QString &key, const BatchJob &job)
{
    if (key == "n"_L1)
        return QString::number(job.index);
    if (key == "line"_L1)
        return QString::number(job.line);
    if (key == kModel)
        return job.model.isEmpty() ? std::optional<QString>() : plainName(job.model);
    const auto [name, part] = splitKey(key);
    if (name == kOutput || !job.options.contains(name))
        return std::nullopt;
    const QStringList texts = job.options[name];
    if (part.isEmpty())
        return name == "pipeline"_L1 ? plainName(texts.value(0)) : QString(texts.join(u'+')).replace(u'/', u'-');
    const QStringList parts = name == kCamera ? texts.value(0).split(u':') : texts;
    for (const QString &text : parts)
        if (text.startsWith(part + u'='))
            return QString(text.mid(part.size() + 1)).replace(u'/', u'-');
    return std::nullopt;
}

// "-5" of four places is "-005".
QString filledUp(const QString &text, int places)
{
    const bool hasSign = text.startsWith(u'-');
    return hasSign ? u'-' + text.mid(1).rightJustified(places - 1, u'0') : text.rightJustified(places, u'0');
}

bool fillIn(const QString &pattern, const BatchJob &job, QString *result, QString *error)
{
    static const QRegularExpression kPlace(u"\\{([^{}:]+)(?::0?([0-9]{1,2}))?\\}"_s);
    qsizetype end = 0;
    for (auto match = kPlace.globalMatch(pattern); match.hasNext();) {
        const QRegularExpressionMatch place = match.next();
        const std::optional<QString> text = placeholder(place.captured(1), job);
        if (!text)
            return fails(error, u"'%1': the picture has no '%2'"_s.arg(pattern, place.captured(1)));
        *result += pattern.mid(end, place.capturedStart() - end) + filledUp(*text, place.captured(2).toInt());
        end = place.capturedEnd();
    }
    *result += pattern.mid(end);
    return true;
}

} // namespace

void BatchJobs::add(int line, const QJsonObject &object)
{
    Expansion expansion{_most};
    QString error;
    if (!expand(object, &expansion, &error)) {
        addError(line, error);
        return;
    }
    if (_jobs.size() + expansion.count > _most) {
        addError(line, u"with this line the file makes more than %1 pictures"_s.arg(_most));
        return;
    }
    QVector<qsizetype> choice(expansion.axes.size(), 0);
    for (qint64 number = 0; number < expansion.count; ++number) {
        // The last axis turns fastest.
        qint64 rest = number;
        for (qsizetype axis = expansion.axes.size() - 1; axis >= 0; --axis) {
            const qsizetype size = expansion.axes[axis].alternatives.size();
            choice[axis] = qsizetype(rest % size);
            rest /= size;
        }
        BatchJob job;
        job.line = line;
        job.index = int(number);
        job.place = expansion.count > 1 ? u"line %1, picture %2"_s.arg(line).arg(number + 1) : u"line %1"_s.arg(line);
        OptionTexts own;
        for (qsizetype i = 0; i < expansion.axes.size(); ++i) {
            const Axis &axis = expansion.axes[i];
            const QStringList &texts = axis.alternatives[choice[i]];
            if (axis.option == kCamera && !axis.part.isEmpty() && !own[kCamera].isEmpty())
                own[kCamera][0] += u':' + texts.value(0);
            else
                own[axis.option] += texts;
        }
        job.options = _defaults;
        for (auto i = own.cbegin(); i != own.cend(); ++i) {
            if (i.key() == kModel)
                job.model = i->value(0);
            else if (i->isEmpty())
                job.options.remove(i.key());
            else
                job.options[i.key()] = *i;
        }
        if (!own.contains(kModel))
            job.model = _defaults.value(kModel).value(0);
        job.options.remove(kModel);
        const BatchJob pattern = job;
        for (const FileOption &option : kFileOptions) {
            const auto texts = job.options.find(option.name);
            if (texts == job.options.end())
                continue;
            for (QString &text : *texts) {
                QString filled, reason;
                if (fillIn(text, pattern, &filled, &reason))
                    text = filled;
                else if (job.error.isEmpty())
                    job.error = u"%1 %2"_s.arg(option.name, reason);
            }
        }
        _jobs.append(job);
    }
}

void BatchJobs::findCollisions()
{
    QHash<QString, QString> places;
    for (BatchJob &job : _jobs) {
        if (!job.error.isEmpty())
            continue;
        const QStringList files = filesOf(job.options);
        for (const QString &file : files)
            if (const auto found = places.constFind(absolute(file)); found != places.constEnd() && job.error.isEmpty())
                job.error = u"'%1' is also written by %2"_s.arg(file, *found);
        if (job.error.isEmpty())
            for (const QString &file : files)
                places.insert(absolute(file), job.place);
    }
}

QVector<BatchJob> BatchJobs::jobsOf(const Shard &shard) const
{
    const qint64 size = _jobs.size();
    const qint64 begin = size * (shard.index - 1) / shard.count;
    const qint64 end = size * shard.index / shard.count;
    return _jobs.mid(begin, end - begin);
}

namespace {

void collectStrings(const QJsonValue &value, QStringList *strings)
{
    if (value.isString())
        *strings << value.toString();
    for (const QJsonValue &one : value.toArray())
        collectStrings(one, strings);
    const QJsonObject object = value.toObject();
    for (const QJsonValue &one : object)
        collectStrings(one, strings);
}

// What a file of that kind may name; what is no file does not matter.
QStringList namesIn(const QByteArray &text, const QString &suffix)
{
    QStringList names;
    if (suffix == "json"_L1 || suffix == "gltf"_L1) {
        const QJsonDocument document = QJsonDocument::fromJson(text);
        collectStrings(document.isArray() ? QJsonValue(document.array()) : QJsonValue(document.object()), &names);
    } else if (suffix == "obj"_L1 || suffix == "mtl"_L1) {
        static const QRegularExpression kLine(u"^\\s*(?:mtllib|map_\\w+|bump|disp|norm|refl)\\s+(.*\\S)\\s*$"_s,
                                              QRegularExpression::MultilineOption);
        for (auto match = kLine.globalMatch(QString::fromUtf8(text)); match.hasNext();) {
            const QString rest = match.next().captured(1);
            // Options may stand before the name.
            names << rest << rest.section(u' ', -1);
        }
    }
    return names;
}

} // namespace

QByteArray JobHasher::digestOf(const QString &path)
{
    const QFileInfo info(path);
    if (!info.isFile())
        return "missing";
    const QString key =
        u"%1 %2 %3"_s.arg(info.absoluteFilePath()).arg(info.size()).arg(info.lastModified().toMSecsSinceEpoch());
    if (const auto found = _digests.constFind(key); found != _digests.constEnd())
        return *found;
    _digests.insert(key, "cycle"); // of files that name one another
    QCryptographicHash hash(QCryptographicHash::Sha256);
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || !hash.addData(&file))
        return "unreadable";
    const QString suffix = info.suffix().toLower();
    static const QStringList kNaming{u"json"_s, u"gltf"_s, u"obj"_s, u"mtl"_s};
    if (kNaming.contains(suffix) && info.size() <= kLargestText && file.seek(0)) {
        QStringList names = namesIn(file.readAll(), suffix);
        names.removeDuplicates();
        for (const QString &name : std::as_const(names)) {
            const QString other = name.size() < 1024 ? info.absoluteDir().filePath(name) : QString();
            if (!other.isEmpty() && QFileInfo(other).isFile())
                hash.addData(name.toUtf8() + '=' + digestOf(other) + '\n');
        }
    }
    return _digests[key] = hash.result().toHex();
}

QByteArray JobHasher::hashOf(const BatchJob &job, const QString &pipelineFile)
{
    QCryptographicHash hash(QCryptographicHash::Sha256);
    hash.addData("kvorender " + _version + '\n');
    // With lengths, so that no two sets of options read alike.
    const auto add = [&hash](const QByteArray &text) { hash.addData(QByteArray::number(text.size()) + ':' + text); };
    add(job.model.toUtf8());
    add(job.model.isEmpty() ? QByteArray() : digestOf(job.model));
    add(digestOf(pipelineFile));
    for (auto option = job.options.cbegin(); option != job.options.cend(); ++option) {
        add(option.key().toUtf8());
        hash.addData(QByteArray::number(option->size()) + ' ');
        for (const QString &text : *option) {
            add(text.toUtf8());
            if (option.key() == "path"_L1)
                add(digestOf(text.section(u'=', 1)));
        }
    }
    return hash.result().toHex();
}
