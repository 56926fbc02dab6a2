#include "window.h"

#include "host/pipelinefile.h"
#include "messages.h"
#include "view.h"

#include <QComboBox>
#include <QCoreApplication>
#include <QSignalBlocker>
#include <QStatusBar>
#include <QToolBar>

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

Window::Window(const ModelData &model, const QStringList &searchPath) : _view(new View(model)), _choice(new QComboBox)
{
    setCentralWidget(_view);
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
    connect(&_watcher, &QFileSystemWatcher::fileChanged, this, [this](const QString &path) { load(path); });
    _view->setFrameHandler([this](const QString &problem) { afterFrame(problem); });
    resize(1280, 800);
}

Window::~Window()
{
    _view->setFrameHandler({});
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
    _mistakes.clear();
    if (!_view->setPipeline(path, &_mistakes)) {
        for (const QString &line : std::as_const(_mistakes))
            complain(line);
        statusBar()->showMessage(_mistakes.value(0));
    }
    // Editors replace files, and a file that was replaced is no longer watched.
    if (!_watcher.files().isEmpty())
        _watcher.removePaths(_watcher.files());
    _watcher.addPath(path);
    setWindowTitle(u"%1 – kvoview"_s.arg(_choice->currentText()));
    return _mistakes.isEmpty();
}

void Window::run(int frames)
{
    _lastFrame = frames;
    show();
    _view->setRunning(true);
}

bool Window::grab(const QString &file)
{
    return _view->grabFramebuffer().save(file);
}

void Window::afterFrame(const QString &problem)
{
    if (!problem.isEmpty()) {
        statusBar()->showMessage(problem.section(u'\n', 0, 0));
        if (problem != _problem)
            complain(problem);
        _problem = problem;
        _failed = true;
    } else if (_mistakes.isEmpty()) {
        statusBar()->showMessage(_view->times());
    }
    if (_lastFrame > 0 && _view->frameCount() == _lastFrame)
        QMetaObject::invokeMethod(
            this, [] { QCoreApplication::quit(); }, Qt::QueuedConnection);
}
