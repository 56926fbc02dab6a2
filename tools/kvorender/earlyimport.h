#pragma once

#include "host/isolatedimport.h"

#include <QString>

#include <atomic>
#include <thread>

/// Reads a model in a thread of its own while the context and the pipeline come into being, which takes as long.
class EarlyImport
{
public:
    explicit EarlyImport(const QString &path);
    /// What nobody took is ended.
    ~EarlyImport();
    EarlyImport(const EarlyImport &) = delete;
    EarlyImport &operator=(const EarlyImport &) = delete;

    /// Waits for the model. Once.
    Brevane::Kvo::ModelData take(Brevane::Kvo::ImportReport *report);

private:
    std::atomic<bool> _isCancelled = false;
    Brevane::Kvo::ModelData _data;
    Brevane::Kvo::ImportReport _report;
    std::thread _thread; // last: it begins when all the rest is there
};
