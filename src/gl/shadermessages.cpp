#include "gl/shadermessages.h"

#include "gl/glslmacroprocessor.h"

#include <QByteArray>
#include <QRegularExpression>
#include <QStringList>
#include <QVector>

#include <epoxy/gl.h>

#include <algorithm>

namespace Brevane::Kvo {

namespace {

struct Place
{
    int file;
    int line;
    bool operator==(const Place &) const = default;
};

// Drivers write "0:12(3): error" or "0(12) : error": the number of the source string, then the line. Which source
// string it is shows in the line too, see GLSLMacroProcessor::kLinesPerFile: Mesa loses the number of most messages.
struct Mention
{
    Place place;
    qsizetype start; ///< Of the two numbers in the message,
    qsizetype lineStart; ///< of the second,
    qsizetype end; ///< and behind it.
};

QVector<Mention> mentionsIn(const QString &message, int version)
{
    static const QRegularExpression pattern(
        QStringLiteral("^(?:ERROR: |WARNING: )?(\\d+)[:(](\\d+)(?=(?:\\(\\d+\\))?: (preprocessor)?)?"),
        QRegularExpression::MultilineOption);
    constexpr int kLines = GLSLMacroProcessor::kLinesPerFile;
    QVector<Mention> mentions;
    for (auto match = pattern.globalMatch(message); match.hasNext();) {
        const QRegularExpressionMatch m = match.next();
        // Mesa's preprocessor takes the number in a #line for that of the next line in every version.
        const bool isOneBehind = version < 330 && m.hasCaptured(3);
        const int line = m.captured(2).toInt() + (isOneBehind ? 1 : 0);
        const Place place{line >= kLines ? line / kLines : m.captured(1).toInt(), line % kLines};
        mentions.append({place, m.capturedStart(1), m.capturedStart(2), m.capturedEnd(2)});
    }
    return mentions;
}

QVector<Place> placesIn(const QString &message, int version)
{
    QVector<Place> places;
    for (const Mention &mention : mentionsIn(message, version))
        places.append(mention.place);
    return places;
}

QString numbered(const QString &text, int file, const QVector<Place> &marked)
{
    QString out;
    const QStringList lines = text.split(u'\n');
    for (int i = 0; i < lines.size(); ++i) {
        const bool mark = marked.contains(Place{file, i + 1});
        out += QStringLiteral("%1%2 | %3\n").arg(QChar(mark ? u'>' : u' ')).arg(i + 1, 4).arg(lines[i]);
    }
    return out;
}

} // namespace

const char *stageName(int stage)
{
    switch (stage) {
    case GL_VERTEX_SHADER: return "vertex";
    case GL_FRAGMENT_SHADER: return "fragment";
    case GL_GEOMETRY_SHADER: return "geometry";
    case GL_TESS_CONTROL_SHADER: return "tessellation control";
    case GL_TESS_EVALUATION_SHADER: return "tessellation evaluation";
    case GL_COMPUTE_SHADER: return "compute";
    default: return "unknown";
    }
}

QString shaderLog(unsigned int shader)
{
    GLint length = 0;
    glGetShaderiv(shader, GL_INFO_LOG_LENGTH, &length);
    QByteArray text(std::max(length, 1), '\0');
    glGetShaderInfoLog(shader, GLsizei(text.size()), nullptr, text.data());
    return QString::fromUtf8(text.constData()).trimmed();
}

QString programLog(unsigned int program)
{
    GLint length = 0;
    glGetProgramiv(program, GL_INFO_LOG_LENGTH, &length);
    QByteArray text(std::max(length, 1), '\0');
    glGetProgramInfoLog(program, GLsizei(text.size()), nullptr, text.data());
    return QString::fromUtf8(text.constData()).trimmed();
}

QString withNames(const QString &message, const ProcessedSource &source)
{
    QString out;
    qsizetype copied = 0;
    for (const Mention &mention : mentionsIn(message, source.version)) {
        const QString name = source.fileNames.value(mention.place.file);
        out += message.mid(copied, mention.start - copied)
               + (name.isEmpty() ? QString::number(mention.place.file) : name) + message.at(mention.lineStart - 1)
               + QString::number(mention.place.line);
        copied = mention.end;
    }
    return out + message.mid(copied);
}

QString numberedSource(const ProcessedSource &source)
{
    return numbered(source.originals[0], 0, {});
}

QString sourcesBehind(const QString &message, const ProcessedSource &source, const QString &title)
{
    QString out;
    const QVector<Place> places = placesIn(message, source.version);
    for (int file = 0; file < source.originals.size(); ++file) {
        const bool mentioned =
            std::any_of(places.cbegin(), places.cend(), [file](const Place &p) { return p.file == file; });
        if (file > 0 && !mentioned)
            continue;
        out += QStringLiteral("source string %1, %2:\n")
                   .arg(QString::number(file), file > 0 ? source.fileNames[file] : title);
        out += numbered(source.originals[file], file, places);
    }
    return out;
}

} // namespace Brevane::Kvo
