#pragma once

#include "host/pipeline.h"

#include <QVariant>
#include <QWidget>

#include <functional>

namespace Brevane::Kvo {
struct SlotInfo;
}

/// An editor for the value of a slot, by its type and what the pass says of it.
class SlotEditor : public QWidget
{
    Q_OBJECT

public:
    /// Always something: at least a field for the value's text.
    static SlotEditor *make(const QString &slot, const Brevane::Kvo::SlotInfo *info, const QVariant &fallback,
                            QWidget *parent);

    /// Shows a value without telling anybody.
    void setValue(const QVariant &value);

Q_SIGNALS:
    /// Changes of one \a gesture, such as the pull at a slider, belong together.
    void edited(const QVariant &value, int gesture);

protected:
    explicit SlotEditor(QWidget *parent);
    virtual void display(const QVariant &value) = 0;
    void emitEdited(const QVariant &value);
    /// What follows is another gesture.
    void beginGesture();
    bool isShowing() const { return _isShowing; }

private:
    bool _isShowing = false;
    int _gesture = 0;
};
