#pragma once

#include "host/pickpass.h"
#include "host/sceneimport.h"
#include "logpanel.h"
#include "viewoptions.h"

#include <QKeySequence>
#include <QMainWindow>
#include <QString>
#include <QStringList>

#include <functional>

class FrameProbe;
class GraphView;
class Inspector;
class ModelImport;
class PassesPanel;
class QComboBox;
class QLabel;
class QMenu;
class QProgressBar;
class QToolButton;
class ResourceView;
class Session;
class SlotsPanel;

namespace Brevane::Kvo {
class ViewportWidget;
}

/// The window: a view of a model in the middle, and panels around it that show and change the pipeline it is seen
/// through. What goes wrong is said above the view, at the pass and in the messages; the last good picture stays.
class Window : public QMainWindow
{
    Q_OBJECT

public:
    /// \a keepsSettings: layout, theme and recent files are read and written.
    explicit Window(const ViewOptions &options, bool keepsSettings);
    ~Window() override;

    /// Shows a pipeline by name or file. False after mistakes in it, which have been said; the one before stays.
    bool openPipeline(const QString &nameOrPath);
    /// Begins to read a model; the one before is shown until it is there.
    void openModel(const QString &path);
    /// A model, a pipeline, or an image for the chosen pass, by its ending.
    void openFile(const QString &path);
    /// Takes a model that was read.
    void showModel(const Brevane::Kvo::ModelData &model, const QString &path);
    /// Draws from now on; ends the program after so many frames, unless they are 0.
    void run(int frames);
    /// Writes what is shown to an image file.
    bool grab(const QString &file);
    /// Whether something went wrong in a frame. It has been printed.
    bool hasFailed() const { return _failed; }

    // The parts, for tests and pictures of them

    Session *session() const { return _session; }
    Brevane::Kvo::ViewportWidget *view() const { return _view; }
    PassesPanel *passes() const { return _passes; }
    SlotsPanel *slotsPanel() const { return _slots; }
    Inspector *inspector() const { return _inspector; }
    GraphView *graph() const { return _graph; }
    ResourceView *resources() const { return _resources; }
    LogPanel *messages() const { return _messages; }
    ModelImport *modelImport() const { return _import; }
    /// What is said above the view; empty: nothing is wrong.
    QString problem() const;
    /// The action of a menu by its name.
    QAction *action(const QString &name) const;
    /// Brings a dock to the front: "passes", "slots", "inspector", "graph", "resources", "messages".
    void showPanel(const QString &name);
    /// All keys of the window, made from its actions.
    QString keysText() const;

protected:
    void dragEnterEvent(QDragEnterEvent *event) override;
    void dropEvent(QDropEvent *event) override;
    void closeEvent(QCloseEvent *event) override;
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    enum class Problem { Pipeline, Model, Frame, Shader, Count };

    void makePanels();
    QDockWidget *addPanel(const QString &name, const QString &title, QWidget *content, Qt::DockWidgetArea area);
    void connectParts();
    // In windowactions.cpp
    void makeActions();
    void makeFileMenu();
    void makeEditMenu();
    void makeViewMenu();
    void makePassMenu();
    void makePanelMenu();
    QAction *addAction(QMenu *menu, const QString &name, const QString &text, const QKeySequence &keys,
                       const std::function<void()> &run);
    QAction *addSwitch(QMenu *menu, const QString &name, const QString &text, const QKeySequence &keys, bool isOn,
                       const std::function<void(bool)> &run);
    void fillRecent(QMenu *menu);
    void chooseBackground();
    void chooseFile();
    void saveAs();
    void exportPicture();
    void exportTurntable();
    void copyCommand();
    void showKeys();
    void setTheme(bool isDark);
    void noteRecent(const QString &path);

    void say(LogPanel::Kind kind, const QString &text);
    void setProblem(Problem kind, const QString &text);
    void showProblems();
    void placeOverlay();
    void updateOverlay();
    void onFrame(int number);
    void onPick(const Brevane::Kvo::Pick &pick);
    void updateTitle();
    void applyCamera();
    void count();

    ViewOptions _options;
    bool _keepsSettings;
    QStringList _searchPath;
    Brevane::Kvo::ViewportWidget *_view;
    Session *_session;
    FrameProbe *_probe;
    ModelImport *_import;
    PassesPanel *_passes = nullptr;
    SlotsPanel *_slots = nullptr;
    Inspector *_inspector = nullptr;
    GraphView *_graph = nullptr;
    ResourceView *_resources = nullptr;
    LogPanel *_messages = nullptr;
    QComboBox *_choice;
    QLabel *_banner;
    QLabel *_overlay;
    QLabel *_picked;
    QProgressBar *_progress;
    QToolButton *_cancel;
    QMenu *_panelMenu = nullptr;
    QStringList _problems = QStringList(int(Problem::Count));
    Brevane::Kvo::ModelData _model;
    qint64 _triangles = 0;
    int _lastFrame = 0; ///< 0: none.
    int _countedFrom = -1; ///< Before the first that counts; -1: that one is to come.
    bool _failed = false;
    bool _isDark = false;
};
