#include "importcheck.h"

#include <QFile>
#include <QStringList>
#include <QXmlStreamReader>

#include <algorithm>

namespace Brevane::Kvo {

namespace {

constexpr qint64 kLongestHeader = 1 << 20;
constexpr qint64 kLongestLine = 4096;

// Every vertex or face takes a byte at least; the importer asks for memory for as many as are announced.
QString tooMany(const QByteArray &count, const QFile &file)
{
    return QStringLiteral("it announces %1 elements in %2 bytes").arg(QString::fromLatin1(count)).arg(file.size());
}

QString damageOfOff(QFile *file)
{
    file->readLine(kLongestLine);
    while (!file->atEnd()) {
        const QByteArray line = file->readLine(kLongestLine).simplified();
        if (line.isEmpty() || line.startsWith('#'))
            continue;
        for (const QByteArray &count : line.split(' ').mid(0, 2))
            if (count.toLongLong() > file->size())
                return tooMany(count, *file);
        break;
    }
    return QString();
}

QString damageOfPly(QFile *file)
{
    qint64 length = 0;
    while (!file->atEnd() && length < kLongestHeader) {
        const QByteArray line = file->readLine(kLongestLine);
        length += line.size();
        const QList<QByteArray> words = line.simplified().split(' ');
        if (words.first() == "end_header")
            return QString();
        if (words.first() == "element" && words.size() >= 3 && words[2].toLongLong() > file->size())
            return tooMany(words[2], *file);
    }
    return QStringLiteral("its header has no end");
}

bool isNumbers(QStringView text, bool whole)
{
    return std::all_of(text.begin(), text.end(), [whole](QChar c) {
        return c.isSpace() || (c >= u'0' && c <= u'9') || (!whole && QStringView(u"+-.eE").contains(c));
    });
}

bool isNotFinite(QStringView word)
{
    return word.compare(u"nan", Qt::CaseInsensitive) == 0 || word.endsWith(u"inf", Qt::CaseInsensitive);
}

// In a list of numbers the importer takes memory for ever before anything that is none.
QString damageOfCollada(QFile *file)
{
    static const QString kFloats = QStringLiteral("float_array");
    static const QStringList kLists{QStringLiteral("p"), QStringLiteral("v"), QStringLiteral("vcount"), kFloats};
    QXmlStreamReader reader(file);
    QString list;
    while (!reader.atEnd()) {
        const QXmlStreamReader::TokenType token = reader.readNext();
        if (token == QXmlStreamReader::StartElement)
            list = kLists.contains(reader.name()) ? reader.name().toString() : QString();
        else if (token == QXmlStreamReader::EndElement)
            list.clear();
        const bool whole = list != kFloats;
        if (token != QXmlStreamReader::Characters || list.isEmpty() || isNumbers(reader.text(), whole))
            continue;
        const QStringList words = reader.text().toString().simplified().split(u' ');
        for (const QString &word : words)
            if (!isNumbers(word, whole) && (whole || !isNotFinite(word)))
                return QStringLiteral("'%1' in the numbers of <%2> before line %3")
                    .arg(word.left(20), list, QString::number(reader.lineNumber()));
    }
    return reader.hasError() ? QStringLiteral("line %1: %2").arg(reader.lineNumber()).arg(reader.errorString())
                             : QString();
}

} // namespace

QString damageOf(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return file.errorString();
    const QByteArray magic = file.peek(4);
    if (magic.startsWith("ply") && (magic.size() < 4 || magic[3] == '\n' || magic[3] == '\r' || magic[3] == ' '))
        return damageOfPly(&file);
    if (path.endsWith(QLatin1StringView(".dae"), Qt::CaseInsensitive))
        return damageOfCollada(&file);
    if (file.peek(8).contains("OFF"))
        return damageOfOff(&file);
    return QString();
}

} // namespace Brevane::Kvo
