#pragma once

#include "host/pipeline.h"

#include <QHash>
#include <QString>
#include <QTimer>
#include <QVector>
#include <QWidget>

class QComboBox;
class QGridLayout;
class QLabel;
class QScrollArea;
class QToolButton;
class Session;
class SlotEditor;

/// The slots of the chosen pass: for each input where its value comes from, and an editor where it is a value of its
/// own; for each output its type, who reads it, and a button to look at it.
class SlotsPanel : public QWidget
{
    Q_OBJECT

public:
    explicit SlotsPanel(Session *session, QWidget *parent = nullptr);

    /// Of the chosen pass, by short or full name; null where the slot has no value of its own.
    SlotEditor *editor(const QString &slot) const;
    /// Where an input takes its value from: default, value, host values and links that fit.
    QComboBox *sourceChoice(const QString &slot) const;
    QToolButton *restoreButton(const QString &slot) const;

Q_SIGNALS:
    /// Somebody wants to see an output.
    void lookAt(const QString &pass, const QString &slot);

private:
    struct Row
    {
        QLabel *name = nullptr;
        QComboBox *source = nullptr;
        SlotEditor *editor = nullptr;
        QToolButton *restore = nullptr;
        QVariant fallback;
    };

    void rebuild();
    void addInput(QGridLayout *layout, int line, const Brevane::Kvo::PassInput &input);
    void addOutput(QGridLayout *layout, int line, const QString &slot);
    void fillSources(QComboBox *box, const Brevane::Kvo::PassInput &input) const;
    void takeSource(const QString &slot, int index);
    void update(const QString &pass, const QString &slot);
    void updateValues();
    void display(const Row &row, const Brevane::Kvo::PassInput &input);
    const Row *rowOf(const QString &slot) const;

    Session *_session;
    QLabel *_title;
    QScrollArea *_area;
    QHash<QString, Row> _rows; ///< By full name.
    QVector<std::pair<QString, QLabel *>> _values; ///< Of outputs that are no textures.
    QTimer _tick;
    QString _pass;
};
