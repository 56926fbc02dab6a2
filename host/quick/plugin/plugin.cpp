#include "host/viewportitem.h"

#include <QQmlExtensionPlugin>

/// The QML module Kvo, for engines that find it on their import path.
class KvoQuickPlugin : public QQmlExtensionPlugin
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID QQmlExtensionInterface_iid)

public:
    void registerTypes(const char *) override { Brevane::Kvo::registerQuickTypes(); }
};

#include "plugin.moc"
