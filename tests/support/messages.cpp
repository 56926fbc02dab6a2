#include "support/messages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <utility>

namespace Brevane::Kvo::Test {

namespace {
MessageCapture *innermost = nullptr;
}

MessageCapture::MessageCapture() : _outer(std::exchange(innermost, this)) {}

MessageCapture::~MessageCapture()
{
    innermost = _outer;
}

QStringList MessageCapture::texts(QtMsgType type) const
{
    QStringList found;
    for (const CapturedMessage &message : _messages)
        if (message.type == type)
            found.append(message.text);
    return found;
}

QStringList MessageCapture::texts() const
{
    QStringList found;
    for (const CapturedMessage &message : _messages)
        found.append(message.text);
    return found;
}

int MessageCapture::containing(const QString &text) const
{
    return int(std::count_if(_messages.begin(), _messages.end(),
                             [&](const CapturedMessage &message) { return message.text.contains(text); }));
}

void MessageCapture::install()
{
    qInstallMessageHandler(&MessageCapture::handle);
}

void MessageCapture::handle(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    if (innermost) {
        innermost->_messages.append({type, text});
        return;
    }
    std::fprintf(stderr, "%s\n", qPrintable(text));
    if (type == QtCriticalMsg || type == QtFatalMsg)
        ADD_FAILURE() << "unexpected critical message: " << qPrintable(text);
}

} // namespace Brevane::Kvo::Test
