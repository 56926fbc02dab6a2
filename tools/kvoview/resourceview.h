#pragma once

#include "frameprobe.h"

#include <QWidget>

class QLabel;
class Session;

/// The textures of the pool as bars over the passes that hold them, with their bytes and how often each was used anew;
/// below, what they take together against the most that was ever taken, and what comes from outside.
class ResourceView : public QWidget
{
    Q_OBJECT

public:
    ResourceView(Session *session, FrameProbe *probe, QWidget *parent = nullptr);
    QString totals() const;

protected:
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    void take();
    QString imported() const;

    Session *_session;
    FrameProbe *_probe;
    class Bars *_bars;
    QLabel *_totals;
};
