#pragma once

#include <QString>
#include <QStringList>
#include <QVector>
#include <QtGlobal>

namespace Brevane::Kvo::Test {

struct CapturedMessage
{
    QtMsgType type;
    QString text;
};

/// Takes Qt's messages from construction to destruction; they are not printed. Captures nest.
///
/// Outside of any capture a critical message fails the running test.
class MessageCapture
{
public:
    MessageCapture();
    ~MessageCapture();
    MessageCapture(const MessageCapture &) = delete;
    MessageCapture &operator=(const MessageCapture &) = delete;

    const QVector<CapturedMessage> &all() const { return _messages; }
    QStringList texts(QtMsgType type) const;
    QStringList texts() const;
    int count(QtMsgType type) const { return int(texts(type).size()); }
    /// Messages of any type that contain a text.
    int containing(const QString &text) const;
    void clear() { _messages.clear(); }

    /// Installs the handler; main does.
    static void install();

private:
    static void handle(QtMsgType type, const QMessageLogContext &context, const QString &text);

    QVector<CapturedMessage> _messages;
    MessageCapture *_outer;
};

} // namespace Brevane::Kvo::Test
