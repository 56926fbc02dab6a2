#pragma once

#include "commandline.h"
#include "host/fragmentlists.h"
#include "host/headlesscontext.h"
#include "host/imagecomparison.h"
#include "host/pipeline.h"
#include "model/gpumodel.h"

/// Prints pipelines, host values and passes with their slots.
void printList(const QStringList &searchPath);
/// Prints all that there is to know about the slots of a class. False with the nearest name for an unknown one.
bool printPassTable(const QString &className, QString *error);
/// Prints what the driver of the current context offers.
void printGlInfo(const Brevane::Kvo::HeadlessContext &context);
/// Prints how full fragment lists are, and the list of each pixel (in picture coordinates) with the
/// materials of its draws.
void printLists(const Brevane::Kvo::FragmentLists &lists, const QVector<QPoint> &pixels,
                const Brevane::Kvo::ModelData &model);
/// Prints how much two outputs differ.
void printComparison(const Comparison &comparison, const Brevane::Kvo::ImageComparison &result);
/// Prints the value of an output as "Pass.Slot = value".
void printValue(const SlotArgument &output, const QVariant &value);
/// Prints times per pass.
void printTimings(const QVector<Brevane::Kvo::PassTiming> &timings, bool firstFrame);
