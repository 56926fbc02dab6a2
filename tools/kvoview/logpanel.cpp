#include "logpanel.h"

#include <QFontDatabase>
#include <QRegularExpression>
#include <QTextBlock>
#include <QTime>

using namespace Qt::StringLiterals;

namespace {

constexpr int kMostLines = 5000;

} // namespace

LogPanel::LogPanel(QWidget *parent) : QPlainTextEdit(parent)
{
    setReadOnly(true);
    setMaximumBlockCount(kMostLines);
    setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    setLineWrapMode(NoWrap);
    setAccessibleName(tr("Messages"));
    setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
}

void LogPanel::add(Kind kind, const QString &text)
{
    QTextCharFormat format;
    if (kind == Kind::Error)
        format.setForeground(QColor(0xd0, 0x30, 0x30));
    else if (kind == Kind::Warning)
        format.setForeground(QColor(0xb0, 0x78, 0x00));
    QTextCursor cursor(document());
    cursor.movePosition(QTextCursor::End);
    if (!document()->isEmpty())
        cursor.insertBlock();
    cursor.insertText(QTime::currentTime().toString(u"HH:mm:ss  "_s) + text, format);
    setTextCursor(cursor);
    ensureCursorVisible();
    Q_EMIT added();
}

void LogPanel::addSource(const QString &heading, const QString &log)
{
    static const QRegularExpression kMarked(u"^>\\s*\\d+ \\| "_s);
    add(Kind::Error, heading);
    QTextCursor cursor(document());
    int first = -1;
    for (const QString &line : log.split(u'\n')) {
        cursor.movePosition(QTextCursor::End);
        QTextBlockFormat block;
        const bool isMarked = kMarked.match(line).hasMatch();
        if (isMarked)
            block.setBackground(QColor(0xd0, 0x30, 0x30, 90));
        cursor.insertBlock(block, QTextCharFormat());
        cursor.insertText(line);
        if (isMarked && first < 0)
            first = cursor.blockNumber();
    }
    cursor.insertBlock(QTextBlockFormat(), QTextCharFormat());
    const int shown = first < 0 ? document()->blockCount() - 1 : first;
    setTextCursor(QTextCursor(document()->findBlockByNumber(shown)));
    centerCursor();
    Q_EMIT added();
}
