#include "earlyimport.h"

#include <utility>

using namespace Brevane::Kvo;

EarlyImport::EarlyImport(const QString &path)
    : _thread([this, path] {
          ImportLimits limits;
          limits.cancelled = &_isCancelled;
          _data = importSceneIsolated(path, ImportOptions(), limits, &_report);
      })
{}

EarlyImport::~EarlyImport()
{
    _isCancelled = true;
    if (_thread.joinable())
        _thread.join();
}

ModelData EarlyImport::take(ImportReport *report)
{
    _thread.join();
    *report = std::move(_report);
    return std::move(_data);
}
