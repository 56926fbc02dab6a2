#pragma once

#include "core/renderpass.h"
#include "host/export.h"

#include <QString>
#include <QStringList>

#include <map>
#include <memory>

namespace Brevane::Kvo {

/// Makes passes by the name of their class. It knows the passes of the library; a host adds its own.
class KVO_HOST_EXPORT PassFactory
{
public:
    using Maker = std::unique_ptr<RenderPass> (*)();

    /// A new pass, or null for a class that is not known.
    std::unique_ptr<RenderPass> make(const QString &className) const;
    bool knows(const QString &className) const;
    QStringList classNames() const;
    /// False when the name is taken.
    bool add(const QString &className, Maker maker);

private:
    friend KVO_HOST_EXPORT PassFactory &passFactory();
    PassFactory();

    std::map<QString, Maker> _makers;
};

/// The factory of the process.
KVO_HOST_EXPORT PassFactory &passFactory();

/// Makes a class known to pipelines and pipeline files. False when the name is taken.
template <typename Pass>
bool registerPass(const QString &className)
{
    return passFactory().add(className, [] { return std::unique_ptr<RenderPass>(new Pass); });
}

} // namespace Brevane::Kvo
