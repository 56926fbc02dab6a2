#pragma once

#include <QByteArray>
#include <QString>
#include <QVector>

namespace Brevane::Kvo {

/// Makes a text of one version of the format one of the next. What it does not speak of stays as it is, comments and
/// lines included, so that messages name the right line and saving keeps what people wrote.
using FormatStep = QByteArray (*)(const QByteArray &text);

/// From version 1 to 2, from 2 to 3 and so on. The current version is one more than there are steps.
const QVector<FormatStep> &formatSteps();
int newestFormat();

/// Brings a text of an older version up to date. Of texts that do not say, the version is 1. False with line and reason
/// for those of a newer version and those whose version is none; texts that cannot be parsed are left to who reads them.
bool bringUpToDate(QByteArray *text, const QVector<FormatStep> &steps, int *line, QString *error);

} // namespace Brevane::Kvo
