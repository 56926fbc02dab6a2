#pragma once

#include "host/sceneimport.h"

#include <QMainWindow>
#include <QString>
#include <QStringList>

class QComboBox;

namespace Brevane::Kvo {
class ViewportWidget;
}

/// A view of a model, and the pipelines to see it through. A pipeline's file is read again when it changes.
class Window : public QMainWindow
{
public:
    Window(const Brevane::Kvo::ModelData &model, const QStringList &searchPath);
    ~Window() override;

    /// Shows a pipeline file, under a name of its own where it is in no folder of the search path. False after
    /// mistakes in it, which have been printed; the one before stays.
    bool open(const QString &path, const QString &name);
    /// Draws from now on; ends the program after so many frames, unless they are 0.
    void run(int frames);
    /// Writes what is shown to an image file.
    bool grab(const QString &file);
    /// Whether something went wrong in a frame. It has been printed.
    bool hasFailed() const { return _failed; }

private:
    bool load(const QString &path);
    void report(const QStringList &mistakes);
    void fail(const QStringList &problems);
    void afterFrame(int number);
    QString times() const;

    Brevane::Kvo::ViewportWidget *_view;
    QComboBox *_choice;
    QStringList _mistakes; ///< In the file of the pipeline.
    bool _isNew = false; ///< The pipeline: what is likely a mistake in it has not been said yet.
    int _lastFrame = 0; ///< 0: none.
    bool _failed = false;
};
