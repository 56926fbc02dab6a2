#include "window.h"

#include "exporting.h"
#include "frameprobe.h"
#include "graphview.h"
#include "host/pipeline.h"
#include "host/pipelinefile.h"
#include "host/viewportwidget.h"
#include "inspector.h"
#include "messages.h"
#include "modelimport.h"
#include "passespanel.h"
#include "resourceview.h"
#include "session.h"
#include "slotspanel.h"

#include <QAction>
#include <QCloseEvent>
#include <QComboBox>
#include <QCoreApplication>
#include <QDockWidget>
#include <QDropEvent>
#include <QFileInfo>
#include <QImageReader>
#include <QLabel>
#include <QLocale>
#include <QMessageBox>
#include <QMimeData>
#include <QOpenGLContext>
#include <QProgressBar>
#include <QSettings>
#include <QSignalBlocker>
#include <QStatusBar>
#include <QToolButton>

#include <utility>

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

namespace {

bool hasContext()
{
    QOpenGLContext context;
    if (!context.create())
        return false;
    const QSurfaceFormat format = context.format();
    return format.version() >= qMakePair(3, 2);
}

} // namespace

Window::Window(const ViewOptions &options, bool keepsSettings)
    : _options(options), _keepsSettings(keepsSettings), _searchPath(pipelineSearchPath(options.pipelines.folders)),
      _view(new ViewportWidget), _session(new Session(_view, this)), _probe(new FrameProbe(_session)),
      _import(new ModelImport(this)), _choice(new QComboBox), _banner(new QLabel), _overlay(new QLabel),
      _picked(new QLabel), _progress(new QProgressBar), _cancel(new QToolButton)
{
    // A view in a window that has no GL ends the program in Qt: it stays apart then, and a word takes its place.
    if (hasContext()) {
        setCentralWidget(_view);
    } else {
        auto *place = new QLabel(tr("no picture"));
        place->setAlignment(Qt::AlignCenter);
        setCentralWidget(place);
    }
    _banner->setParent(centralWidget());
    _overlay->setParent(centralWidget());
    _view->setMinimumSize(160, 90);
    _view->setAccessibleName(tr("Picture"));
    _view->setTimingEnabled(true);
    Backdrop backdrop{QColor(0x4a, 0x50, 0x5a), QColor(0x22, 0x24, 0x28)};
    if (options.pipeline.background.isValid())
        backdrop = {options.pipeline.background, QColor()};
    _view->setBackdrop(backdrop);
    _banner->setWordWrap(true);
    _banner->setTextInteractionFlags(Qt::TextSelectableByMouse);
    _banner->setStyleSheet(u"background: #a02020; color: white; padding: 4px"_s);
    _banner->setAccessibleName(tr("What is wrong"));
    _banner->hide();
    _overlay->setStyleSheet(u"background: rgba(0, 0, 0, 150); color: white; padding: 3px"_s);
    _overlay->setAttribute(Qt::WA_TransparentForMouseEvents);
    _overlay->hide();
    centralWidget()->installEventFilter(this);
    setAcceptDrops(true);
    setDockNestingEnabled(true);
    makePanels();
    makeActions();
    connectParts();
    if (centralWidget() != _view)
        setProblem(Problem::Frame, tr("there is no OpenGL context of version 3.2 or later: nothing can be drawn"));
    resize(1400, 900);
    if (_keepsSettings) {
        const QSettings settings;
        restoreGeometry(settings.value(u"window/geometry"_s).toByteArray());
        restoreState(settings.value(u"window/state"_s).toByteArray());
        if (settings.value(u"window/dark"_s, false).toBool())
            action(u"dark"_s)->setChecked(true);
    }
    if (!options.pipeline.lights.isEmpty())
        _session->setHostValue(u"lights"_s, lightsToVariant(options.pipeline.lights));
    for (const auto &[name, file] : options.pipeline.paths)
        _session->setHostValue(u"paths."_s + name, file);
    _session->setFirstValues(options.pipeline.values);
}

// Panels first, while what they look at is there; and what the view says at its end is not for a window that is half
// gone.
Window::~Window()
{
    hide();
    _import->disconnect(this);
    _view->disconnect();
    _session->undoStack()->disconnect(this);
    qDeleteAll(findChildren<QDockWidget *>());
    delete _session;
    delete _view;
}

QDockWidget *Window::addPanel(const QString &name, const QString &title, QWidget *content, Qt::DockWidgetArea area)
{
    auto *dock = new QDockWidget(title, this);
    dock->setObjectName(name);
    dock->setWidget(content);
    addDockWidget(area, dock);
    return dock;
}

void Window::makePanels()
{
    _passes = new PassesPanel(_session);
    _slots = new SlotsPanel(_session);
    _inspector = new Inspector(_session, _probe);
    _graph = new GraphView(_session);
    _resources = new ResourceView(_session, _probe);
    _messages = new LogPanel;
    setCorner(Qt::BottomLeftCorner, Qt::LeftDockWidgetArea);
    setCorner(Qt::BottomRightCorner, Qt::RightDockWidgetArea);
    addPanel(u"passes"_s, tr("Passes"), _passes, Qt::LeftDockWidgetArea);
    addPanel(u"slots"_s, tr("Slots"), _slots, Qt::LeftDockWidgetArea);
    QDockWidget *inspector = addPanel(u"inspector"_s, tr("Textures"), _inspector, Qt::RightDockWidgetArea);
    QDockWidget *graph = addPanel(u"graph"_s, tr("Graph"), _graph, Qt::BottomDockWidgetArea);
    QDockWidget *resources = addPanel(u"resources"_s, tr("Resources"), _resources, Qt::BottomDockWidgetArea);
    QDockWidget *messages = addPanel(u"messages"_s, tr("Messages"), _messages, Qt::BottomDockWidgetArea);
    tabifyDockWidget(graph, resources);
    tabifyDockWidget(resources, messages);
    graph->raise();
    resizeDocks({findChild<QDockWidget *>(u"passes"_s), inspector}, {416, 330}, Qt::Horizontal);
    resizeDocks({graph}, {240}, Qt::Vertical);
    resizeDocks({findChild<QDockWidget *>(u"passes"_s), findChild<QDockWidget *>(u"slots"_s)}, {300, 420},
                Qt::Vertical);
    // Looking into textures costs frames: that is for who wants it.
    inspector->hide();
    _cancel->setText(tr("Cancel"));
    _progress->setRange(0, 0);
    _progress->setMaximumWidth(160);
    for (QWidget *widget :
         {static_cast<QWidget *>(_picked), static_cast<QWidget *>(_progress), static_cast<QWidget *>(_cancel)})
        statusBar()->addPermanentWidget(widget);
    _progress->hide();
    _cancel->hide();
}

void Window::connectParts()
{
    connect(_session, &Session::failed, this, [this](const QStringList &reasons) {
        say(LogPanel::Kind::Error, reasons.join(u'\n'));
        statusBar()->showMessage(reasons.value(0), 10000);
    });
    connect(_session, &Session::warned, this,
            [this](const QStringList &warnings) { say(LogPanel::Kind::Warning, warnings.join(u'\n')); });
    connect(_session, &Session::shaderFailed, this, [this](const QString &file, const QString &log) {
        complain(u"%1:\n%2"_s.arg(file, log));
        _messages->addSource(tr("%1 does not compile; the picture before stays").arg(file), log);
        setProblem(Problem::Shader, tr("%1 does not compile: see the messages").arg(QFileInfo(file).fileName()));
        showPanel(u"messages"_s);
    });
    connect(_session, &Session::reloaded, this, [this](const QString &file) {
        setProblem(Problem::Shader, QString());
        say(LogPanel::Kind::Note, tr("read %1 again").arg(file));
    });
    connect(_session, &Session::pathChanged, this, &Window::updateTitle);
    connect(_session->undoStack(), &QUndoStack::cleanChanged, this, &Window::updateTitle);
    connect(_slots, &SlotsPanel::lookAt, this, [this](const QString &pass, const QString &slot) {
        showPanel(u"inspector"_s);
        _inspector->lookAt(pass, slot);
    });
    connect(_view, &ViewportWidget::errorsChanged, this,
            [this](const QStringList &errors) { setProblem(Problem::Frame, errors.join(u'\n')); });
    connect(_view, &ViewportWidget::faultsChanged, this, [this](const QStringList &faults) {
        _passes->setFaults(faults);
        if (!faults.isEmpty())
            say(LogPanel::Kind::Error, faults.join(u'\n'));
        _failed = _failed || !faults.isEmpty();
    });
    connect(_probe, &FrameProbe::glErrors, this, [this](const QStringList &errors) {
        _passes->setFaults(errors);
        if (!errors.isEmpty())
            say(LogPanel::Kind::Error, errors.join(u'\n'));
    });
    connect(_view, &ViewportWidget::shaderFailed, this, [this](const QString &message) {
        _messages->addSource(tr("A shader does not compile"), message);
        setProblem(Problem::Shader, tr("A shader does not compile: see the messages"));
        _failed = true;
    });
    connect(_view, &ViewportWidget::frameDrawn, this, &Window::onFrame);
    connect(_view, &ViewportWidget::clicked, this, &Window::onPick);
    connect(_import, &ModelImport::started, this, [this](const QString &path) {
        statusBar()->showMessage(tr("reading %1 …").arg(path));
        _progress->show();
        _cancel->show();
    });
    const auto ended = [this] {
        _progress->hide();
        _cancel->hide();
        statusBar()->clearMessage();
    };
    connect(_import, &ModelImport::finished, this, [this, ended](const ModelData &model, const QStringList &warnings) {
        ended();
        if (!warnings.isEmpty())
            say(LogPanel::Kind::Warning, warnings.join(u'\n'));
        showModel(model, _import->path());
    });
    connect(_import, &ModelImport::failed, this, [this, ended](const QString &reason) {
        ended();
        setProblem(Problem::Model, reason);
        _failed = true;
        // There is nothing to count frames of.
        if (_lastFrame > 0)
            QMetaObject::invokeMethod(
                this, [] { QCoreApplication::quit(); }, Qt::QueuedConnection);
    });
    connect(_cancel, &QToolButton::clicked, _import, &ModelImport::cancel);
}

bool Window::openPipeline(const QString &nameOrPath)
{
    QString error;
    const QString path = findPipeline(nameOrPath, _searchPath, &error);
    if (path.isEmpty()) {
        setProblem(Problem::Pipeline, error);
        return false;
    }
    QStringList mistakes;
    const auto collect =
        connect(_session, &Session::failed, this, [&mistakes](const QStringList &reasons) { mistakes << reasons; });
    const bool isOpen = _session->open(path);
    disconnect(collect);
    setProblem(Problem::Pipeline, isOpen ? QString() : mistakes.join(u'\n'));
    if (isOpen)
        noteRecent(path);
    const QSignalBlocker quiet(_choice);
    if (isOpen && _choice->findData(path) < 0)
        _choice->addItem(QFileInfo(path).completeBaseName(), path);
    _choice->setCurrentIndex(_choice->findData(_session->path()));
    return isOpen;
}

void Window::openModel(const QString &path)
{
    setProblem(Problem::Model, QString());
    _import->start(path, _options.scene);
}

void Window::showModel(const ModelData &model, const QString &path)
{
    _model = model;
    _options.model = path;
    _triangles = 0;
    for (const ModelItem &item : model.items)
        if (item.mesh >= 0 && item.mesh < model.meshes.size())
            _triangles += model.meshes[item.mesh].indices.size() / 3;
    _view->setModel(model);
    applyCamera();
    _picked->clear();
    noteRecent(path);
    updateTitle();
    count();
}

// From now on, when there is something to see.
void Window::count()
{
    if (_lastFrame == 0)
        return;
    _countedFrom = _view->frameCount();
    _view->setRunning(true);
}

void Window::applyCamera()
{
    if (_options.pipeline.camera.isEmpty())
        return;
    OrbitCamera camera;
    QString error;
    const float aspect = float(_view->width()) / float(std::max(1, _view->height()));
    if (cameraOf(_options.pipeline.camera, boxOf(_model), aspect, &camera, &error))
        _view->setCamera(camera);
    else
        say(LogPanel::Kind::Error, u"--camera: %1"_s.arg(error));
}

void Window::openFile(const QString &path)
{
    const QString suffix = QFileInfo(path).suffix().toLower();
    if (suffix == u"json") {
        openPipeline(path);
        return;
    }
    if (!QImageReader::supportedImageFormats().contains(suffix.toLatin1()) && suffix != u"hdr" && suffix != u"exr") {
        openModel(path);
        return;
    }
    // An image goes where the chosen pass takes one.
    const QString pass = _session->chosenPass();
    if (Pipeline *pipeline = _session->pipeline())
        for (const PassInput &input : pipeline->inputs(pass)) {
            const SlotInfo *info = pipeline->inputInfo(pass, input.slot);
            if (info && info->kind == SlotKind::Path) {
                _session->setValue(pass, input.slot, path);
                return;
            }
        }
    say(LogPanel::Kind::Error,
        tr("pass '%1' takes no image: choose one that does and drop '%2' again").arg(pass, path));
}

void Window::run(int frames)
{
    _lastFrame = frames;
    // Without a model that is awaited there is something to see at once.
    if (_options.model.isEmpty() || !_model.items.isEmpty())
        count();
    if (!isVisible())
        show();
    // The panels keep what they have; the window is as large as the picture wants it.
    if (!_options.size.isEmpty()) {
        const QSize wanted = _options.size / _view->devicePixelRatio();
        _view->setMinimumSize(wanted);
        if (frames > 0)
            _view->setMaximumSize(wanted);
        resize(size() + wanted - _view->size());
    }
}

bool Window::grab(const QString &file)
{
    return _view->grabFramebuffer().save(file);
}

void Window::say(LogPanel::Kind kind, const QString &text)
{
    if (kind != LogPanel::Kind::Note)
        complain((kind == LogPanel::Kind::Warning ? u"warning: "_s : QString()) + text);
    _messages->add(kind, text);
}

void Window::setProblem(Problem kind, const QString &text)
{
    if (_problems[int(kind)] == text)
        return;
    _problems[int(kind)] = text;
    if (!text.isEmpty() && kind != Problem::Shader) {
        say(LogPanel::Kind::Error, text);
        _failed = true;
    }
    showProblems();
}

QString Window::problem() const
{
    QStringList all = _problems;
    all.removeAll(QString());
    return all.join(u'\n');
}

void Window::showProblems()
{
    const QString text = problem();
    _banner->setText(text);
    _banner->setVisible(!text.isEmpty());
    placeOverlay();
}

QAction *Window::action(const QString &name) const
{
    return findChild<QAction *>(name);
}

void Window::showPanel(const QString &name)
{
    if (auto *dock = findChild<QDockWidget *>(name)) {
        dock->show();
        dock->raise();
    }
}

void Window::onFrame(int number)
{
    updateOverlay();
    if (_countedFrom >= 0 && number - _countedFrom >= _lastFrame)
        QMetaObject::invokeMethod(
            this, [] { QCoreApplication::quit(); }, Qt::QueuedConnection);
}

void Window::onPick(const Pick &pick)
{
    if (!pick.isHit()) {
        _picked->clear();
        return;
    }
    const QString material = _model.materials.value(pick.material).name;
    const QString mesh =
        pick.item < _model.items.size() ? _model.meshes.value(_model.items[pick.item].mesh).name : QString();
    _picked->setText(tr("item %1%2, material %3%4, triangle %5, at %6, %7, %8")
                         .arg(pick.item)
                         .arg(mesh.isEmpty() ? QString() : u" '%1'"_s.arg(mesh))
                         .arg(pick.material)
                         .arg(material.isEmpty() ? QString() : u" '%1'"_s.arg(material))
                         .arg(pick.triangle)
                         .arg(double(pick.position.x()), 0, 'f', 3)
                         .arg(double(pick.position.y()), 0, 'f', 3)
                         .arg(double(pick.position.z()), 0, 'f', 3));
}

void Window::updateOverlay()
{
    Pipeline *pipeline = _session->pipeline();
    if (!_overlay->isVisible() || !pipeline)
        return;
    double gpu = 0.0;
    double cpu = 0.0;
    for (const PassTiming &timing : pipeline->timings()) {
        gpu += timing.gpuMedian;
        cpu += timing.cpuMedian;
    }
    const QSize pixels = _view->size() * _view->devicePixelRatio();
    _overlay->setText(tr("%1×%2\nGPU %3 ms\nCPU %4 ms\n%5 triangles\nframe %6")
                          .arg(pixels.width())
                          .arg(pixels.height())
                          .arg(gpu, 0, 'f', 2)
                          .arg(cpu, 0, 'f', 2)
                          .arg(QLocale(QLocale::English).toString(_triangles))
                          .arg(_view->frameCount()));
    placeOverlay();
}

void Window::placeOverlay()
{
    // Over the picture, which keeps its size.
    const int width = centralWidget()->width();
    _banner->setGeometry(0, 0, width, _banner->heightForWidth(width));
    _overlay->adjustSize();
    _overlay->move(8, 8 + (_banner->isHidden() ? 0 : _banner->height()));
}

void Window::updateTitle()
{
    const QString model = _options.model.isEmpty() ? QString() : QFileInfo(_options.model).fileName() + u" – "_s;
    setWindowTitle(u"%1%2[*] – kvoview"_s.arg(model, QFileInfo(_session->path()).completeBaseName()));
    setWindowModified(!_session->undoStack()->isClean());
}

void Window::dragEnterEvent(QDragEnterEvent *event)
{
    if (event->mimeData()->hasUrls())
        event->acceptProposedAction();
}

void Window::dropEvent(QDropEvent *event)
{
    for (const QUrl &url : event->mimeData()->urls())
        if (url.isLocalFile())
            openFile(url.toLocalFile());
    event->acceptProposedAction();
}

void Window::closeEvent(QCloseEvent *event)
{
    if (_keepsSettings && !_session->undoStack()->isClean()) {
        const auto answer =
            QMessageBox::question(this, tr("Changes"), tr("Save the changes of '%1'?").arg(_session->path()),
                                  QMessageBox::Save | QMessageBox::Discard | QMessageBox::Cancel);
        if (answer == QMessageBox::Cancel || (answer == QMessageBox::Save && !_session->save())) {
            event->ignore();
            return;
        }
    }
    if (_keepsSettings) {
        QSettings settings;
        settings.setValue(u"window/geometry"_s, saveGeometry());
        settings.setValue(u"window/state"_s, saveState());
        settings.setValue(u"window/dark"_s, _isDark);
    }
    QMainWindow::closeEvent(event);
}

bool Window::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == centralWidget() && event->type() == QEvent::Resize)
        placeOverlay();
    return QMainWindow::eventFilter(watched, event);
}
