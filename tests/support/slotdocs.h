#pragma once

#include <core/renderpasshelper.h>
#include <host/slotname.h>
#include <host/slotvalue.h>

#include <QString>
#include <QStringList>
#include <QVector>

#include <algorithm>

namespace Brevane::Kvo::Test {

// Tables of slots in headers and on pages, made from what the passes say about them.

/// A table in Markdown, with its columns as wide as their texts; the last one is as long as it is.
inline QString markdownTable(const QVector<QStringList> &rows, const QString &beginning, bool isAligned)
{
    QVector<qsizetype> widths(rows.first().size(), 3);
    for (qsizetype column = 0; isAligned && column + 1 < widths.size(); ++column)
        for (const QStringList &row : rows)
            widths[column] = std::max(widths[column], row[column].size());
    widths.first() = std::max<qsizetype>(1, isAligned && rows.size() > 11 ? 2 : 1);
    QString text;
    for (qsizetype i = 0; i < rows.size(); ++i) {
        QString line = beginning + u'|';
        QString rule = beginning + u'|';
        for (qsizetype column = 0; column < widths.size(); ++column) {
            const qsizetype width = isAligned ? widths[column] : 0;
            line += u' ' + rows[i][column].leftJustified(width) + QStringLiteral(" |");
            rule += QString(isAligned ? width + 2 : 3, u'-') + u'|';
        }
        text += line + u'\n';
        if (i == 0)
            text += rule + u'\n';
    }
    return text;
}

/// "GPUModel*" for "KvoGPUModel*": the type as a reader knows it.
inline QString typeForPeople(const SlotInfo &info)
{
    switch (info.kind) {
    case SlotKind::Texture: return QStringLiteral("texture");
    case SlotKind::Area: return QStringLiteral("QRect");
    case SlotKind::List: return QStringLiteral("list");
    case SlotKind::Record: return QStringLiteral("QObject*");
    case SlotKind::Framebuffer: return QStringLiteral("FramebufferObject*");
    case SlotKind::Choice: return QStringLiteral("int");
    default: break;
    }
    const QString slot = QString::fromLatin1(info.name);
    QString type = SlotName::parse(slot).type;
    if (type.isEmpty())
        type = QStringLiteral("float");
    if (type.startsWith(u"Kvo"))
        type = type.mid(3);
    return type == QStringLiteral("Bool") || type == QStringLiteral("Float") ? type.toLower()
           : type == QStringLiteral("string")                                ? QStringLiteral("QString")
                                                                             : type;
}

/// "0 to 511 texels", "from 0", "texels", or nothing.
inline QString rangeForPeople(const SlotInfo &info)
{
    const auto number = [](double value) { return QString::number(value); };
    const bool hasLeast = info.range.least > -1e300, hasMost = info.range.most < 1e300;
    QString text;
    if (hasLeast && hasMost)
        text = QStringLiteral("%1 to %2").arg(number(info.range.least), number(info.range.most));
    else if (hasLeast)
        text = QStringLiteral("from %1").arg(number(info.range.least));
    const QString unit = QString::fromLatin1(info.unit);
    return text.isEmpty() || unit.isEmpty() ? text + unit : text + u' ' + unit;
}

inline QString choicesForPeople(const SlotInfo &info)
{
    QStringList texts;
    for (const SlotChoice &choice : info.choices)
        texts << QStringLiteral("%1 %2").arg(choice.value).arg(QString::fromLatin1(choice.name));
    return texts.join(QStringLiteral(", "));
}

/// All tables of a pass, with an empty line between them: for its header where \a beginning is "/// ", else for its page.
inline QString slotTables(const RenderPassHelper &pass, const QString &beginning)
{
    const bool isHeader = !beginning.isEmpty();
    const auto named = [&](const QString &slot) { return isHeader ? slot : u'`' + slot + u'`'; };
    const auto head = [&](QStringList names) {
        if (!isHeader)
            return names;
        for (QString &name : names)
            name[0] = name[0].toUpper();
        return names;
    };
    QStringList tables;
    QVector<QStringList> rows{head({QStringLiteral("#"), QStringLiteral("input"), QStringLiteral("type"),
                                    QStringLiteral("default"), QStringLiteral("range"), QStringLiteral("meaning")})};
    for (int i = 0; i < pass.numInputs(); ++i) {
        const SlotInfo &info = *pass.inputInfo(i);
        QString meaning = QString::fromLatin1(info.meaning);
        if (!info.choices.empty() && info.choices.size() <= 4)
            meaning = QStringLiteral("%1; %2").arg(choicesForPeople(info), meaning);
        rows << QStringList{QString::number(i),   named(pass.inputName(i)),
                            typeForPeople(info),  describeSlotValue(pass.defaultValue(i)),
                            rangeForPeople(info), meaning};
    }
    const auto add = [&](QVector<QStringList> table) {
        // A column of which no row says anything is left out.
        for (qsizetype column = table.first().size() - 1; column > 0; --column) {
            const auto isSilent = [&](const QStringList &row) {
                return row[column].isEmpty()
                       || (table.first()[column].toLower() == u"default" && row[column] == u"none");
            };
            if (std::all_of(table.cbegin() + 1, table.cend(), isSilent))
                for (QStringList &row : table)
                    row.removeAt(column);
        }
        tables << markdownTable(table, beginning, isHeader);
    };
    if (rows.size() > 1)
        add(rows);
    rows = {head({QStringLiteral("#"), QStringLiteral("output"), QStringLiteral("type"), QStringLiteral("format"),
                  QStringLiteral("meaning")})};
    for (int i = 0; i < pass.numOutputs(); ++i) {
        const SlotInfo &info = *pass.outputInfo(i);
        rows << QStringList{QString::number(i), named(pass.outputName(i)), typeForPeople(info),
                            QString::fromLatin1(info.format), QString::fromLatin1(info.meaning)};
    }
    if (rows.size() > 1)
        add(rows);
    // The header has an enumeration for those of which there are many.
    for (int i = 0; !isHeader && i < pass.numInputs(); ++i) {
        const SlotInfo &info = *pass.inputInfo(i);
        if (info.choices.empty())
            continue;
        rows = {{named(pass.inputName(i)), QStringLiteral("name in pipeline files"), QStringLiteral("meaning")}};
        for (const SlotChoice &choice : info.choices)
            rows << QStringList{QString::number(choice.value), named(QString::fromLatin1(choice.name)),
                                QString::fromLatin1(choice.meaning)};
        tables << markdownTable(rows, beginning, false);
    }
    return tables.join(beginning.trimmed() + u'\n');
}

} // namespace Brevane::Kvo::Test
