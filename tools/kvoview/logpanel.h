#pragma once

#include <QPlainTextEdit>
#include <QString>

/// What was said, with the time. In a numbered source the lines that the driver complains of are marked.
class LogPanel : public QPlainTextEdit
{
    Q_OBJECT

public:
    enum class Kind { Note, Warning, Error };

    explicit LogPanel(QWidget *parent = nullptr);
    void add(Kind kind, const QString &text);
    /// Source with a mark ('>') before some of its numbered lines; goes to the first of them.
    void addSource(const QString &heading, const QString &log);

Q_SIGNALS:
    void added();
};
