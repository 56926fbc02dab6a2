#pragma once

#include "host/pipeline.h"
#include "host/pipelinefile.h"

#include <QSize>
#include <QString>
#include <QStringList>
#include <QVector>

/// A pipeline on one model.
struct GalleryRun
{
    QString model; ///< Its name; empty for a pipeline that draws none.
    QString settings; ///< What was done to the model; may be empty.
    QString picture; ///< File in the folder of the page; empty: there is none.
    QVector<Brevane::Kvo::PassTiming> timings;
    QStringList failures;
    QStringList messages; ///< What passes and pipeline said beside these.
};

struct GalleryPass
{
    QString name;
    QString className;
    QVector<Brevane::Kvo::PassInput> inputs;
    QStringList outputs;
    QVector<int> users; ///< Of the outputs.
};

struct GalleryEntry
{
    Brevane::Kvo::PipelineFileInfo file;
    QString graph; ///< SVG.
    QVector<GalleryPass> passes; ///< In the order of running.
    QVector<GalleryRun> runs;
    QStringList failures; ///< Of the file itself.

    bool ok() const;
};

struct GalleryPage
{
    QString renderer; ///< Of the driver.
    QSize size;
    int frames = 1;
    QVector<GalleryEntry> entries;

    /// One file that needs nothing but the pictures beside it.
    QString html() const;
};
