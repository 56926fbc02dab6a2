#pragma once

#include "commandline.h"
#include "host/headlesscontext.h"
#include "host/pipeline.h"

/// Prints pipelines, host values and passes with their slots.
void printList(const QStringList &searchPath);
/// Prints what the driver of the current context offers.
void printGlInfo(const Brevane::Kvo::HeadlessContext &context);
/// Prints times per pass.
void printTimings(const QVector<Brevane::Kvo::PassTiming> &timings, bool firstFrame);
