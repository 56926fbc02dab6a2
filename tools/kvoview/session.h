#pragma once

#include "host/pipeline.h"

#include <QByteArray>
#include <QMap>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QUndoStack>
#include <QVariant>

#include <memory>
#include <vector>

namespace Brevane::Kvo {
class FileWatch;
class ViewportWidget;
} // namespace Brevane::Kvo

/// The pipeline that is looked at and worked on: its text, the passes that run, what was changed, and which pass is
/// chosen. Panels show it and ask it for changes; each change can be undone.
///
/// A change of the wiring is made in the running pipeline at once, and the text follows: comments and the way of
/// writing stay. Undoing it builds the pipeline from the text before. A changed value is set and nothing built.
class Session : public QObject
{
    Q_OBJECT

public:
    explicit Session(Brevane::Kvo::ViewportWidget *view, QObject *parent = nullptr);
    ~Session() override;

    // The file

    /// Shows a pipeline file. False, after failed, with the one before in its place.
    bool open(const QString &path);
    /// Writes the text to its file, or to another one, which is its file from then on. False after failed.
    bool save(const QString &path = QString());
    QString path() const { return _path; }
    /// The text of the pipeline as it is now.
    QByteArray text();
    QUndoStack *undoStack() { return &_undo; }

    // What runs

    /// Null until the view has a context.
    Brevane::Kvo::Pipeline *pipeline() const;
    Brevane::Kvo::ViewportWidget *view() const { return _view; }
    /// For this pipeline and those to come: lights, paths.
    void setHostValue(const QString &name, const QVariant &value);
    /// "Pass.Slot" and a text, for the pipeline that comes next only.
    void setFirstValues(const QVector<QPair<QString, QString>> &values) { _firstValues = values; }

    QString chosenPass() const { return _chosen; }
    void choosePass(const QString &name);

    // Changes; each gives false after failed, with nothing changed

    /// Gives an input what \a state says: a value, a host value, a link or its default. Changes of one \a gesture
    /// (not 0) are undone together.
    bool setInput(const QString &pass, const Brevane::Kvo::PassInput &state, int gesture = 0);
    bool setValue(const QString &pass, const QString &slot, const QVariant &value, int gesture = 0);
    bool restoreDefault(const QString &pass, const QString &slot);
    bool connectSlots(const QString &from, const QString &fromSlot, const QString &to, const QString &toSlot);
    bool setEnabled(const QString &pass, bool enabled);
    bool rename(const QString &pass, const QString &newName);
    bool add(const QString &name, const QString &className);
    bool insert(const QString &name, const QString &className, const QString &to, const QString &toSlot,
                const QString &inputSlot, const QString &outputSlot);
    bool replace(const QString &pass, const QString &className);
    bool remove(const QString &pass);

    /// A name that no pass has yet, made of a class name.
    QString freeName(const QString &className) const;

Q_SIGNALS:
    /// Other passes, links or names.
    void structureChanged();
    /// A pass is on or off.
    void enabledChanged(const QString &pass);
    /// What feeds an input.
    void inputChanged(const QString &pass, const QString &slot);
    void chosenPassChanged(const QString &name);
    void pathChanged();
    /// Why something was not done: a line each.
    void failed(const QStringList &reasons);
    /// A shader file that does not compile; the picture before stays.
    void shaderFailed(const QString &file, const QString &log);
    /// What is likely a mistake in a pipeline that has just come.
    void warned(const QStringList &warnings);
    void reloaded(const QString &file);

private:
    friend class InputCommand;
    friend class EnableCommand;
    friend class RenameCommand;
    friend class TextCommand;

    bool load(const QByteArray &text, const QString &path);
    void arrive();
    void watch();
    void fileChanged(const QString &file);
    void forgetImage(const QString &file);
    bool compiles(const QByteArray &text, const QString &file);
    bool applyInput(const QString &pass, const Brevane::Kvo::PassInput &state, QString *error = nullptr);
    void applyEnabled(const QString &pass, bool enabled);
    void applyRename(const QString &name, const QString &newName);
    bool applyText(const QByteArray &text);
    template <typename Change>
    bool restructure(const QString &what, const Change &change);
    Brevane::Kvo::PassInput inputOf(const QString &pass, const QString &slot) const;
    bool fail(const QString &reason);

    Brevane::Kvo::ViewportWidget *_view;
    QUndoStack _undo;
    QString _path;
    QByteArray _base; ///< The text that the pipeline was built from, with later changes of its wiring.
    QSet<QString> _disabled;
    QString _chosen;
    QMap<QString, QVariant> _hostValues;
    QVector<QPair<QString, QString>> _firstValues;
    bool _isAwaited = false; ///< The pipeline comes with the view's context.
    std::vector<std::unique_ptr<Brevane::Kvo::FileWatch>> _watches;
};
