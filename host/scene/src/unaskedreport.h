#pragma once

#include "host/sceneimport.h"

#include <QtGlobal>

namespace Brevane::Kvo {

/// Stands in for the report of a host that asked for none, and says at its end what was in it: otherwise a file that
/// is not there, or an image that it lacks, would be seen in the picture only.
class UnaskedReport
{
public:
    /// Puts itself in the place of a null pointer.
    explicit UnaskedReport(ImportReport **report)
    {
        if (!*report) {
            _isAsked = false;
            *report = &_report;
        }
    }
    UnaskedReport(const UnaskedReport &) = delete;
    UnaskedReport &operator=(const UnaskedReport &) = delete;
    ~UnaskedReport()
    {
        if (_isAsked)
            return;
        for (const QString &warning : std::as_const(_report.warnings))
            qWarning("%s", qPrintable(warning));
        if (!_report.ok())
            qWarning("%s", qPrintable(_report.error));
    }

private:
    ImportReport _report;
    bool _isAsked = true;
};

} // namespace Brevane::Kvo
