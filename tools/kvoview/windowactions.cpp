// The menus of the window, and what they do.

#include "exporting.h"
#include "frameprobe.h"
#include "graphview.h"
#include "host/imageoutput.h"
#include "host/pipelinefile.h"
#include "host/viewportwidget.h"
#include "passespanel.h"
#include "session.h"
#include "slotspanel.h"
#include "window.h"

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QColorDialog>
#include <QComboBox>
#include <QDialog>
#include <QDialogButtonBox>
#include <QDockWidget>
#include <QFileDialog>
#include <QFileInfo>
#include <QInputDialog>
#include <QLabel>
#include <QMenu>
#include <QMenuBar>
#include <QProgressDialog>
#include <QSettings>
#include <QStyle>
#include <QStyleFactory>
#include <QTextBrowser>
#include <QToolBar>
#include <QUndoStack>
#include <QVBoxLayout>

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

namespace {

constexpr int kMostRecent = 10;
constexpr int kTurntablePictures = 36;

QPalette darkPalette()
{
    QPalette palette(QColor(0x35, 0x36, 0x3a), QColor(0x2b, 0x2c, 0x30));
    palette.setColor(QPalette::Base, QColor(0x1e, 0x1f, 0x22));
    palette.setColor(QPalette::AlternateBase, QColor(0x30, 0x31, 0x35));
    palette.setColor(QPalette::Highlight, QColor(0x3d, 0x8e, 0xd0));
    palette.setColor(QPalette::HighlightedText, Qt::white);
    palette.setColor(QPalette::Mid, QColor(0x70, 0x72, 0x78));
    for (const QPalette::ColorRole role :
         {QPalette::WindowText, QPalette::Text, QPalette::ButtonText, QPalette::BrightText, QPalette::ToolTipText})
        palette.setColor(role, QColor(0xe4, 0xe5, 0xe8));
    for (const QPalette::ColorRole role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
        palette.setColor(QPalette::Disabled, role, QColor(0x80, 0x82, 0x88));
    palette.setColor(QPalette::ToolTipBase, QColor(0x30, 0x31, 0x35));
    palette.setColor(QPalette::PlaceholderText, QColor(0x90, 0x92, 0x98));
    return palette;
}

} // namespace

QAction *Window::addAction(QMenu *menu, const QString &name, const QString &text, const QKeySequence &keys,
                           const std::function<void()> &run)
{
    QAction *action = menu->addAction(text);
    action->setParent(this);
    action->setObjectName(name);
    action->setShortcut(keys);
    connect(action, &QAction::triggered, this, [run] { run(); });
    return action;
}

QAction *Window::addSwitch(QMenu *menu, const QString &name, const QString &text, const QKeySequence &keys, bool isOn,
                           const std::function<void(bool)> &run)
{
    QAction *action = menu->addAction(text);
    action->setParent(this);
    action->setObjectName(name);
    action->setShortcut(keys);
    action->setCheckable(true);
    action->setChecked(isOn);
    connect(action, &QAction::toggled, this, [run](bool checked) { run(checked); });
    return action;
}

void Window::makeActions()
{
    makeFileMenu();
    makeEditMenu();
    makeViewMenu();
    makePassMenu();
    makePanelMenu();
    QMenu *help = menuBar()->addMenu(tr("&Help"));
    addAction(help, u"keys"_s, tr("Keys"), Qt::Key_F1, [this] { showKeys(); });

    QToolBar *bar = addToolBar(tr("Pipeline"));
    bar->setObjectName(u"toolbar"_s);
    bar->setMovable(false);
    _choice->setAccessibleName(tr("Pipeline"));
    for (const PipelineFileInfo &info : listPipelines(_searchPath)) {
        _choice->addItem(info.name, info.path);
        _choice->setItemData(_choice->count() - 1, info.description, Qt::ToolTipRole);
    }
    bar->addWidget(_choice);
    bar->addAction(action(u"undo"_s));
    bar->addAction(action(u"redo"_s));
    bar->addAction(action(u"fit"_s));
    bar->addAction(action(u"inspect"_s));
    connect(_choice, &QComboBox::activated, this,
            [this](int index) { openPipeline(_choice->itemData(index).toString()); });
}

void Window::makeFileMenu()
{
    QMenu *menu = menuBar()->addMenu(tr("&File"));
    addAction(menu, u"open"_s, tr("Open a model, pipeline or image…"), QKeySequence::Open, [this] { chooseFile(); });
    QMenu *recent = menu->addMenu(tr("Recent files"));
    connect(recent, &QMenu::aboutToShow, this, [this, recent] { fillRecent(recent); });
    addAction(menu, u"reload"_s, tr("Read model and pipeline again"), Qt::Key_F5, [this] {
        openPipeline(_session->path());
        if (!_options.model.isEmpty())
            openModel(_options.model);
    });
    menu->addSeparator();
    addAction(menu, u"save"_s, tr("Save the pipeline"), QKeySequence::Save, [this] { _session->save(); });
    addAction(menu, u"saveas"_s, tr("Save the pipeline as…"), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_S),
              [this] { saveAs(); });
    menu->addSeparator();
    addAction(menu, u"picture"_s, tr("Export a picture…"), QKeySequence(Qt::CTRL | Qt::Key_E),
              [this] { exportPicture(); });
    addAction(menu, u"turntable"_s, tr("Export a turntable…"), QKeySequence(Qt::CTRL | Qt::Key_T),
              [this] { exportTurntable(); });
    addAction(menu, u"command"_s, tr("Copy the command line of kvorender"),
              QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_C), [this] { copyCommand(); });
    menu->addSeparator();
    addAction(menu, u"quit"_s, tr("Quit"), QKeySequence::Quit, [this] { close(); });
}

void Window::makeEditMenu()
{
    QMenu *menu = menuBar()->addMenu(tr("&Edit"));
    QUndoStack *stack = _session->undoStack();
    const std::pair<QAction *, QKeySequence::StandardKey> actions[] = {
        {stack->createUndoAction(this), QKeySequence::Undo}, {stack->createRedoAction(this), QKeySequence::Redo}};
    for (const auto &[action, key] : actions) {
        action->setObjectName(key == QKeySequence::Undo ? u"undo"_s : u"redo"_s);
        action->setShortcut(key);
        menu->addAction(action);
    }
}

void Window::makeViewMenu()
{
    using View = OrbitCamera::View;
    QMenu *menu = menuBar()->addMenu(tr("&View"));
    // Single keys count while the picture has the focus: elsewhere they are letters.
    const auto key = [&](const QString &name, const QString &text, const QKeySequence &keys,
                         const std::function<void()> &run) {
        QAction *action = addAction(menu, name, text, keys, run);
        action->setShortcutContext(Qt::WidgetWithChildrenShortcut);
        _view->addAction(action);
    };
    key(u"fit"_s, tr("Show all"), Qt::Key_F, [this] { _view->fit(); });
    const std::tuple<const char *, QString, QKeySequence, View> views[] = {
        {"front", tr("Front"), Qt::Key_1, View::Front},
        {"back", tr("Back"), QKeySequence(Qt::CTRL | Qt::Key_1), View::Back},
        {"right", tr("Right"), Qt::Key_3, View::Right},
        {"left", tr("Left"), QKeySequence(Qt::CTRL | Qt::Key_3), View::Left},
        {"top", tr("Top"), Qt::Key_7, View::Top},
        {"bottom", tr("Bottom"), QKeySequence(Qt::CTRL | Qt::Key_7), View::Bottom},
        {"isometric", tr("Isometric"), Qt::Key_0, View::Isometric}};
    for (const auto &[name, text, keys, view] : views)
        key(QLatin1StringView(name), text, keys, [this, view = view] { _view->look(view); });
    key(u"perspective"_s, tr("Perspective or not"), Qt::Key_5,
        [this] { _view->setOrthographic(!_view->camera().isOrthographic()); });
    menu->addSeparator();
    const auto backdrop = [this](bool Backdrop::*part) {
        return [this, part](bool isOn) {
            Backdrop changed = _view->backdrop();
            changed.*part = isOn;
            _view->setBackdrop(changed);
        };
    };
    addSwitch(menu, u"grid"_s, tr("Grid on the ground"), QKeySequence(Qt::CTRL | Qt::Key_G), false,
              backdrop(&Backdrop::grid));
    addSwitch(menu, u"axes"_s, tr("Axes"), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_G), false,
              backdrop(&Backdrop::axes));
    addAction(menu, u"background"_s, tr("Background…"), QKeySequence(Qt::CTRL | Qt::Key_B),
              [this] { chooseBackground(); });
    addSwitch(menu, u"statistics"_s, tr("Statistics over the picture"), QKeySequence(Qt::CTRL | Qt::Key_I), false,
              [this](bool isOn) {
                  _overlay->setVisible(isOn);
                  _view->invalidate();
              });
    addSwitch(menu, u"running"_s, tr("Draw all the time"), QKeySequence(Qt::CTRL | Qt::Key_Space), false,
              [this](bool isOn) { _view->setRunning(isOn); });
    addSwitch(menu, u"glerrors"_s, tr("Ask for GL errors behind each pass"), QKeySequence(), false,
              [this](bool isOn) { _probe->setCheckingErrors(isOn); });
    menu->addSeparator();
    addSwitch(menu, u"dark"_s, tr("Dark"), QKeySequence(Qt::CTRL | Qt::Key_D), false,
              [this](bool isOn) { setTheme(isOn); });
}

void Window::makePassMenu()
{
    QMenu *menu = menuBar()->addMenu(tr("&Pass"));
    for (QAction *action : _passes->passActions())
        menu->addAction(action);
    menu->addSeparator();
    addAction(menu, u"inspect"_s, tr("Look at its picture"), QKeySequence(Qt::CTRL | Qt::Key_L), [this] {
        showPanel(u"inspector"_s);
        Q_EMIT _slots->lookAt(_session->chosenPass(), QString());
    });
}

void Window::makePanelMenu()
{
    _panelMenu = menuBar()->addMenu(tr("P&anels"));
    int number = 1;
    for (const char *name : {"passes", "slots", "inspector", "graph", "resources", "messages"}) {
        auto *dock = findChild<QDockWidget *>(QLatin1StringView(name));
        QAction *action = dock->toggleViewAction();
        action->setShortcut(QKeySequence(Qt::ALT | Qt::Key(int(Qt::Key_0) + number++)));
        _panelMenu->addAction(action);
    }
}

void Window::chooseBackground()
{
    const QColor color = QColorDialog::getColor(_view->backdrop().top, this, tr("Background"));
    if (!color.isValid())
        return;
    Backdrop changed = _view->backdrop();
    changed.top = color;
    changed.bottom = QColor();
    _options.pipeline.background = color;
    _view->setBackdrop(changed);
}

void Window::chooseFile()
{
    const QString path = QFileDialog::getOpenFileName(
        this, tr("Open"), QFileInfo(_options.model.isEmpty() ? _session->path() : _options.model).absolutePath(),
        tr("All files (*);;Pipelines (*.json);;Models (*.glb *.gltf *.obj *.fbx *.dae *.stl *.ply *.3ds)"));
    if (!path.isEmpty())
        openFile(path);
}

void Window::noteRecent(const QString &path)
{
    if (!_keepsSettings || path.isEmpty())
        return;
    QSettings settings;
    QStringList recent = settings.value(u"recent"_s).toStringList();
    const QString absolute = QFileInfo(path).absoluteFilePath();
    recent.removeAll(absolute);
    recent.prepend(absolute);
    settings.setValue(u"recent"_s, recent.mid(0, kMostRecent));
}

void Window::fillRecent(QMenu *menu)
{
    menu->clear();
    for (const QString &path : QSettings().value(u"recent"_s).toStringList())
        menu->addAction(path, this, [this, path] { openFile(path); });
    if (menu->isEmpty())
        menu->addAction(tr("none yet"))->setEnabled(false);
}

void Window::saveAs()
{
    const QString path =
        QFileDialog::getSaveFileName(this, tr("Save the pipeline"), _session->path(), tr("Pipelines (*.json)"));
    if (!path.isEmpty() && _session->save(path))
        noteRecent(path);
}

void Window::exportPicture()
{
    const QSize now = _view->size() * _view->devicePixelRatio();
    const QString text = QInputDialog::getText(this, tr("Export a picture"), tr("Width x height in pixels"),
                                               QLineEdit::Normal, u"%1x%2"_s.arg(now.width()).arg(now.height()));
    const QSize size(text.section(u'x', 0, 0).toInt(), text.section(u'x', 1).toInt());
    if (size.isEmpty())
        return;
    const QString path =
        QFileDialog::getSaveFileName(this, tr("Export a picture"), u"picture.png"_s, tr("PNG (*.png)"));
    if (path.isEmpty())
        return;
    QString error;
    const QImage picture = _view->grabPicture(size, &error);
    if (picture.isNull() || !writeImage(picture, path, &error))
        say(LogPanel::Kind::Error, error);
    else
        say(LogPanel::Kind::Note, tr("wrote %1").arg(path));
}

void Window::exportTurntable()
{
    const QString path =
        QFileDialog::getSaveFileName(this, tr("Export a turntable"), u"turntable.png"_s, tr("PNG (*.png)"));
    if (path.isEmpty())
        return;
    QProgressDialog dialog(tr("Drawing"), tr("Cancel"), 0, kTurntablePictures, this);
    dialog.setWindowModality(Qt::WindowModal);
    const auto progress = [&dialog](int count) {
        dialog.setValue(count);
        return !dialog.wasCanceled();
    };
    QString error;
    if (!writeTurntable(_session, path, _view->size() * _view->devicePixelRatio(), kTurntablePictures, progress,
                        &error))
        say(LogPanel::Kind::Error, error);
    else
        say(LogPanel::Kind::Note, tr("wrote %1 pictures beside %2").arg(kTurntablePictures).arg(path));
}

void Window::copyCommand()
{
    QStringList notes;
    const QString command = kvorenderCommand(_session, _options, _view->size() * _view->devicePixelRatio(), &notes);
    QApplication::clipboard()->setText(command);
    say(LogPanel::Kind::Note, command);
    if (!notes.isEmpty())
        say(LogPanel::Kind::Warning, tr("the command line does not say it: %1").arg(notes.join(u"; "_s)));
}

QString Window::keysText() const
{
    QString text = u"<table cellpadding=2>"_s;
    const auto row = [&text](const QString &keys, const QString &what) {
        text += u"<tr><td><b>%1</b></td><td>%2</td></tr>"_s.arg(keys.toHtmlEscaped(), what.toHtmlEscaped());
    };
    for (const QAction *top : menuBar()->actions()) {
        if (!top->menu())
            continue;
        text += u"<tr><td colspan=2><h3>%1</h3></td></tr>"_s.arg(QString(top->text()).remove(u'&').toHtmlEscaped());
        for (const QAction *action : top->menu()->actions())
            if (!action->shortcut().isEmpty())
                row(action->shortcut().toString(QKeySequence::NativeText), QString(action->text()).remove(u'&'));
    }
    text += u"<tr><td colspan=2><h3>%1</h3></td></tr>"_s.arg(tr("Picture"));
    row(tr("drag"), tr("turn"));
    row(tr("right or middle drag, Shift + drag"), tr("move"));
    row(tr("wheel"), tr("zoom to the cursor"));
    row(tr("click"), tr("select, and say what is there"));
    row(tr("Ctrl + drag"), tr("select an area"));
    row(tr("double click"), tr("show all"));
    return text + u"</table>"_s;
}

void Window::showKeys()
{
    auto *dialog = new QDialog(this);
    dialog->setObjectName(u"keysdialog"_s);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowTitle(tr("Keys"));
    auto *layout = new QVBoxLayout(dialog);
    auto *text = new QTextBrowser;
    text->setHtml(keysText());
    layout->addWidget(text);
    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Close);
    connect(buttons, &QDialogButtonBox::rejected, dialog, &QDialog::close);
    layout->addWidget(buttons);
    dialog->resize(520, 640);
    dialog->show();
}

void Window::setTheme(bool isDark)
{
    _isDark = isDark;
    QApplication::setStyle(QStyleFactory::create(u"Fusion"_s));
    QApplication::setPalette(isDark ? darkPalette() : QApplication::style()->standardPalette());
}
