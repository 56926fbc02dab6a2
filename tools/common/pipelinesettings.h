#pragma once

#include "host/lights.h"
#include "options.h"

#include <QColor>
#include <QPair>
#include <QString>
#include <QVector>

/// What is given to a pipeline from the command line, and how it is looked at.
struct PipelineSettings
{
    QVector<QPair<QString, QString>> values; ///< "Pass.Slot" and a text.
    QVector<QPair<QString, QString>> paths; ///< Name and file.
    QVector<Brevane::Kvo::ShadowMapLight> lights;
    QStringList lightTexts; ///< As they were given.
    QString camera; ///< For Camera::parse; empty: fit.
    QColor background; ///< Invalid: none.
};

/// --set and --path.
void addValueOptions(Options *options, PipelineSettings *settings);
/// --light and --camera; \a where says where they are explained: "see below".
void addViewOptions(Options *options, PipelineSettings *settings, const QString &where);
/// --background.
void addBackgroundOption(Options *options, PipelineSettings *settings);
