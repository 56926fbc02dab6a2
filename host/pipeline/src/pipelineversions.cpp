#include "pipelineversions.h"

#include "json.h"

#include <cmath>

using namespace Qt::StringLiterals;

namespace Brevane::Kvo {

namespace {

// The text with the number of its version, beside the first brace where it had none.
QByteArray withVersion(const QByteArray &text, int version)
{
    Json root;
    int line = 0;
    QString error;
    if (!Json::parse(text, &root, &line, &error))
        return text;
    QString result = QString::fromUtf8(text);
    if (const Json *old = root.member(u"version"_s))
        result.replace(old->from, old->to - old->from, QString::number(version));
    else
        result.insert(root.from + 1, u" \"version\": %1%2"_s.arg(version).arg(root.members.empty() ? u""_s : u","_s));
    return result.toUtf8();
}

} // namespace

const QVector<FormatStep> &formatSteps()
{
    static const QVector<FormatStep> steps;
    return steps;
}

int newestFormat()
{
    return int(formatSteps().size()) + 1;
}

bool bringUpToDate(QByteArray *text, const QVector<FormatStep> &steps, int *line, QString *error)
{
    Json root;
    if (!Json::parse(*text, &root, line, error) || !root.isObject())
        return true;
    const Json *member = root.member(u"version"_s);
    const int newest = int(steps.size()) + 1;
    double version = 1;
    if (member) {
        *line = member->line;
        version = member->isNumber() ? member->number : 0.0;
        if (!(version >= 1.0) || version != std::floor(version)) {
            *error = u"\"version\" is a whole number from 1, not %1"_s.arg(member->isNumber() ? QString::number(version)
                                                                                              : member->describe());
            return false;
        }
        if (version > newest) {
            *error = u"the file has version %1 of the format, and this library knows up to %2: it takes a newer one"_s
                         .arg(version)
                         .arg(newest);
            return false;
        }
    }
    if (int(version) == newest)
        return true;
    for (qsizetype i = qsizetype(version) - 1; i < steps.size(); ++i)
        *text = steps[i](*text);
    *text = withVersion(*text, newest);
    return true;
}

} // namespace Brevane::Kvo
