#include "window.h"

#include "host/pipeline.h"
#include "host/pipelinefile.h"
#include "host/viewportwidget.h"
#include "messages.h"

#include <QComboBox>
#include <QCoreApplication>
#include <QSignalBlocker>
#include <QStatusBar>
#include <QToolBar>

#include <utility>

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

Window::Window(const ModelData &model, const QStringList &searchPath)
    : _view(new ViewportWidget), _choice(new QComboBox)
{
    setCentralWidget(_view);
    _view->setMinimumSize(160, 90);
    _view->setModel(model);
    _view->setTimingEnabled(true);
    _choice->setFocusPolicy(Qt::NoFocus);
    for (const PipelineFileInfo &info : listPipelines(searchPath)) {
        _choice->addItem(info.name, info.path);
        _choice->setItemData(_choice->count() - 1, info.description, Qt::ToolTipRole);
    }
    QToolBar *bar = addToolBar(u"Pipeline"_s);
    bar->setMovable(false);
    bar->addWidget(_choice);
    connect(_choice, &QComboBox::currentIndexChanged, this,
            [this](int index) { load(_choice->itemData(index).toString()); });
    connect(_view, &ViewportWidget::pipelineReloaded, this, &Window::report);
    connect(_view, &ViewportWidget::errorsChanged, this, &Window::fail);
    connect(_view, &ViewportWidget::faultsChanged, this, &Window::fail);
    connect(_view, &ViewportWidget::frameDrawn, this, &Window::afterFrame);
    resize(1280, 800);
}

// What the view says at its end is not for a window that is half gone.
Window::~Window()
{
    _view->disconnect(this);
}

bool Window::open(const QString &path, const QString &name)
{
    if (_choice->findData(path) < 0)
        _choice->addItem(name, path);
    {
        const QSignalBlocker once(_choice);
        _choice->setCurrentIndex(_choice->findData(path));
    }
    return load(path);
}

bool Window::load(const QString &path)
{
    QStringList mistakes;
    _view->setPipelineFile(path, &mistakes);
    report(mistakes);
    setWindowTitle(u"%1 – kvoview"_s.arg(_choice->currentText()));
    return mistakes.isEmpty();
}

void Window::report(const QStringList &mistakes)
{
    _mistakes = mistakes;
    _isNew = mistakes.isEmpty();
    complainOf(mistakes);
    statusBar()->showMessage(mistakes.value(0));
}

void Window::run(int frames)
{
    _lastFrame = frames;
    show();
    // For so many frames to come, something has to change in each.
    _view->setRunning(frames > 0);
}

bool Window::grab(const QString &file)
{
    return _view->grabFramebuffer().save(file);
}

void Window::fail(const QStringList &problems)
{
    if (problems.isEmpty())
        return;
    complain(problems.join(u'\n'));
    _mistakes = problems;
    statusBar()->showMessage(problems.first());
    _failed = true;
}

QString Window::times() const
{
    double gpu = 0.0;
    double cpu = 0.0;
    if (Pipeline *pipeline = _view->pipeline()) {
        for (const PassTiming &timing : pipeline->timings()) {
            gpu += timing.gpuMedian;
            cpu += timing.cpuMedian;
        }
    }
    return u"GPU %1 ms, CPU %2 ms"_s.arg(gpu, 0, 'f', 2).arg(cpu, 0, 'f', 2);
}

void Window::afterFrame(int number)
{
    // A pipeline is there with its first frame.
    if (std::exchange(_isNew, false) && _view->pipeline())
        complainOf(_view->pipeline()->warnings());
    if (_mistakes.isEmpty())
        statusBar()->showMessage(times());
    if (_lastFrame > 0 && number == _lastFrame)
        QMetaObject::invokeMethod(
            this, [] { QCoreApplication::quit(); }, Qt::QueuedConnection);
}
