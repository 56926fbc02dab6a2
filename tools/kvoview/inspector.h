#pragma once

#include "frameprobe.h"
#include "host/fragmentlists.h"

#include <QWidget>

class HistogramView;
class QCheckBox;
class QComboBox;
class QDoubleSpinBox;
class QLabel;
class QSpinBox;
class Session;
class TextureView;

/// Looks at any output of any pass at any moment of the frame, texel by texel.
class Inspector : public QWidget
{
    Q_OBJECT

public:
    Inspector(Session *session, FrameProbe *probe, QWidget *parent = nullptr);

    /// Shows an output; an empty slot: the first texture of the pass.
    void lookAt(const QString &pass, const QString &slot = QString());
    TextureView *textureView() const { return _view; }
    /// What is said of the texel under the cursor.
    QString texelText() const;
    /// What is looked at.
    const Texels &texels() const { return _shown; }
    /// Writes the texture: ".png" as it is shown, ".exr" with its values.
    bool save(const QString &path, QString *error);

protected:
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    enum class Compare { Nothing, Wipe, Difference };

    QLayout *makeSources();
    QLayout *makeLook();
    QLayout *makeRange();
    void fillOutputs();
    Tap tapOf(const QComboBox *box) const;
    void arm();
    void take();
    void render();
    void updateRange();
    void updateText();
    void readLists(const QString &pass);
    void saveAs();
    bool showsLists() const;

    Session *_session;
    FrameProbe *_probe;
    QComboBox *_output;
    QComboBox *_moment;
    QComboBox *_channels;
    QSpinBox *_layer;
    QSpinBox *_level;
    QComboBox *_compare;
    QComboBox *_other;
    QDoubleSpinBox *_low;
    QDoubleSpinBox *_high;
    QCheckBox *_auto;
    QCheckBox *_specials;
    HistogramView *_histogram;
    TextureView *_view;
    QLabel *_facts;
    QLabel *_texel;
    Texels _shown;
    Texels _second;
    Brevane::Kvo::FragmentLists _lists;
    QString _listsError;
    Look _look;
};
