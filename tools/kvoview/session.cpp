#include "session.h"

#include "commands.h"
#include "core/slotinfo.h"
#include "filewatch.h"
#include "gl/shaderfailurelistener.h"
#include "gl/shaderprogram.h"
#include "gl/texturemanager.h"
#include "host/pipelinefile.h"
#include "host/screentarget.h"
#include "host/viewportwidget.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMatrix4x4>
#include <QRect>
#include <QSaveFile>

#include <utility>

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

namespace {

constexpr int kTrialSide = 16; // pixels

bool readAll(const QString &path, QByteArray *content, QString *error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = u"cannot read '%1': %2"_s.arg(path, file.errorString());
        return false;
    }
    *content = file.readAll();
    return true;
}

} // namespace

Session::Session(ViewportWidget *view, QObject *parent) : QObject(parent), _view(view)
{
    connect(_view, &ViewportWidget::frameDrawn, this, [this] {
        if (_isAwaited)
            arrive();
    });
}

Session::~Session() = default;

Pipeline *Session::pipeline() const
{
    return _view->pipeline();
}

bool Session::fail(const QString &reason)
{
    Q_EMIT failed({reason});
    return false;
}

bool Session::open(const QString &path)
{
    QString error;
    QByteArray text;
    if (!readAll(path, &text, &error))
        return fail(error);
    // What has no text is a mistake of the file all the same.
    if (!load(text.isEmpty() ? "\n"_ba : text, path))
        return false;
    _disabled.clear();
    _path = path;
    _undo.clear();
    _undo.setClean();
    watch();
    Q_EMIT pathChanged();
    return true;
}

bool Session::save(const QString &path)
{
    const QString target = path.isEmpty() ? _path : path;
    QStringList errors;
    // Relative files are named from the folder of the new place.
    const QByteArray written = pipeline() ? pipelineText(*pipeline(), target, _base, &errors) : _base;
    if (!errors.isEmpty()) {
        Q_EMIT failed(errors);
        return false;
    }
    QSaveFile file(target);
    if (!file.open(QIODevice::WriteOnly) || file.write(written) != written.size() || !file.commit())
        return fail(u"cannot write '%1': %2"_s.arg(target, file.errorString()));
    _base = written;
    _path = target;
    _undo.setClean();
    watch();
    Q_EMIT pathChanged();
    return true;
}

QByteArray Session::text()
{
    if (!pipeline() || _isAwaited)
        return _base;
    QStringList errors;
    const QByteArray now = pipelineText(*pipeline(), _path, _base, &errors);
    if (!errors.isEmpty())
        Q_EMIT failed(errors);
    return now.isEmpty() ? _base : now;
}

bool Session::load(const QByteArray &text, const QString &path)
{
    QStringList errors;
    if (!_view->setPipelineText(text, path, &errors)) {
        Q_EMIT failed(errors);
        return false;
    }
    _base = text;
    _isAwaited = true;
    // Without a context it comes with the first frame.
    if (_view->isValid())
        arrive();
    return true;
}

void Session::arrive()
{
    Pipeline *now = pipeline();
    if (!now)
        return;
    _isAwaited = false;
    for (auto value = _hostValues.cbegin(); value != _hostValues.cend(); ++value)
        now->setHostValue(value.key(), value.value());
    QStringList mistakes;
    for (const auto &[end, text] : std::exchange(_firstValues, {})) {
        QString error;
        if (!now->setValueText(end.section(u'.', 0, 0), end.section(u'.', 1), text, &error))
            mistakes << u"--set %1=%2: %3"_s.arg(end, text, error);
    }
    for (const QString &name : std::as_const(_disabled))
        now->setEnabled(name, false);
    if (!now->pass(_chosen)) {
        _chosen = now->order().value(0);
        Q_EMIT chosenPassChanged(_chosen);
    }
    _view->invalidate();
    Q_EMIT structureChanged();
    if (const QStringList warnings = now->warnings(); !warnings.isEmpty())
        Q_EMIT warned(warnings);
    if (!mistakes.isEmpty())
        Q_EMIT failed(mistakes);
}

// The file itself and those that it names.
void Session::watch()
{
    _watches.clear();
    for (const QString &file : QStringList{_path} + filesOf(_base, _path)) {
        _watches.push_back(std::make_unique<FileWatch>());
        _watches.back()->setFile(file);
        _watches.back()->setHandler([this, file] { fileChanged(file); });
    }
}

void Session::fileChanged(const QString &file)
{
    const QByteArray before = text();
    QByteArray content = before;
    QString error;
    if (file == _path && !readAll(_path, &content, &error)) {
        fail(error);
        return;
    }
    // What was written by save.
    if (file == _path && content == _base)
        return;
    // The files that it names now; the text, with the values of those files, stays as it was where one is broken.
    const QByteArray fresh = file == _path ? content : before;
    forgetImage(file);
    if (!compiles(fresh, file) || !load(fresh, _path))
        return;
    if (file == _path) {
        _undo.push(new TextCommand(this, u"reading %1 again"_s.arg(QFileInfo(file).fileName()), before, content));
        _undo.setClean();
    }
    QMetaObject::invokeMethod(
        this, [this] { watch(); }, Qt::QueuedConnection); // not from within a watch that goes
    Q_EMIT reloaded(file);
}

void Session::forgetImage(const QString &file)
{
    if (!_view->isValid())
        return;
    _view->makeCurrent();
    TextureManager::Instance().forgetFile(file);
    _view->doneCurrent();
}

// A frame of a few pixels without a model, for what the drivers says of its shaders.
bool Session::compiles(const QByteArray &text, const QString &file)
{
    if (!_view->isValid())
        return true;
    _view->makeCurrent();
    QStringList logs;
    {
        const ShaderFailureListener listener([&logs](const ShaderFailure &failure) { logs << failure.log; });
        Pipeline trial;
        ScreenTarget screen;
        QStringList errors;
        if (loadPipelineText(text, _path, &trial, &errors) && screen.resize(QSize(kTrialSide, kTrialSide))) {
            trial.setViewport(QRect(0, 0, kTrialSide, kTrialSide));
            trial.setScreen(screen.framebuffer());
            trial.setCamera(QMatrix4x4(), QMatrix4x4(), 0.1f, 10.0f);
            trial.render();
        }
    }
    _view->doneCurrent();
    if (!logs.isEmpty())
        Q_EMIT shaderFailed(file, logs.join(u'\n'));
    return logs.isEmpty();
}

void Session::setHostValue(const QString &name, const QVariant &value)
{
    _hostValues[name] = value;
    QString error;
    if (pipeline() && !pipeline()->setHostValue(name, value, &error))
        fail(error);
    _view->invalidate();
}

void Session::choosePass(const QString &name)
{
    if (name == _chosen || name.isEmpty())
        return;
    _chosen = name;
    Q_EMIT chosenPassChanged(name);
}

PassInput Session::inputOf(const QString &pass, const QString &slot) const
{
    QString fullName;
    if (pipeline() && pipeline()->inputSlot(pass, slot, &fullName, nullptr))
        for (const PassInput &input : pipeline()->inputs(pass))
            if (input.slot == fullName)
                return input;
    return {};
}

bool Session::applyInput(const QString &pass, const PassInput &state, QString *error)
{
    Pipeline *now = pipeline();
    if (!now)
        return false;
    bool isDone = false;
    switch (state.kind) {
    case PassInput::Kind::Default: isDone = now->reset(pass, state.slot, error); break;
    case PassInput::Kind::Value: isDone = now->setValue(pass, state.slot, state.value, error); break;
    case PassInput::Kind::Host: isDone = now->bind(pass, state.slot, state.source.mid(1), error); break;
    case PassInput::Kind::Link: isDone = now->connect(state.sourcePass, state.source, pass, state.slot, error); break;
    }
    if (!isDone)
        return false;
    _view->invalidate();
    Q_EMIT inputChanged(pass, state.slot);
    // Passes read an image once in their life.
    const SlotInfo *info = now->inputInfo(pass, state.slot);
    if (!info || info->kind != SlotKind::Path)
        return true;
    const bool isLoaded = load(text(), _path);
    watch();
    return isLoaded;
}

bool Session::setInput(const QString &pass, const PassInput &state, int gesture)
{
    const PassInput before = inputOf(pass, state.slot);
    if (before.slot.isEmpty())
        return fail(u"there is no input '%1' of a pass '%2'"_s.arg(state.slot, pass));
    PassInput after = state;
    after.slot = before.slot;
    QString error;
    if (!applyInput(pass, after, &error))
        return fail(error);
    _undo.push(new InputCommand(this, pass, before, after, gesture));
    return true;
}

bool Session::setValue(const QString &pass, const QString &slot, const QVariant &value, int gesture)
{
    PassInput state;
    state.slot = slot;
    state.kind = PassInput::Kind::Value;
    state.value = value;
    return setInput(pass, state, gesture);
}

bool Session::restoreDefault(const QString &pass, const QString &slot)
{
    PassInput state;
    state.slot = slot;
    return setInput(pass, state);
}

bool Session::connectSlots(const QString &from, const QString &fromSlot, const QString &to, const QString &toSlot)
{
    PassInput state;
    state.slot = toSlot;
    state.kind = PassInput::Kind::Link;
    state.source = fromSlot;
    state.sourcePass = from;
    return setInput(to, state);
}

bool Session::setEnabled(const QString &pass, bool enabled)
{
    if (!pipeline() || !pipeline()->pass(pass))
        return fail(u"there is no pass '%1'"_s.arg(pass));
    if (pipeline()->isEnabled(pass) != enabled)
        _undo.push(new EnableCommand(this, pass, enabled));
    return true;
}

void Session::applyEnabled(const QString &pass, bool enabled)
{
    enabled ? (void)_disabled.remove(pass) : (void)_disabled.insert(pass);
    if (pipeline())
        pipeline()->setEnabled(pass, enabled);
    _view->invalidate();
    Q_EMIT enabledChanged(pass);
}

bool Session::rename(const QString &pass, const QString &newName)
{
    if (pass == newName)
        return true;
    // What is wrong with a name shows by trying.
    QString error;
    if (!pipeline())
        return fail(u"there is no pipeline"_s);
    if (!pipeline()->rename(pass, newName, &error))
        return fail(error);
    pipeline()->rename(newName, pass);
    _undo.push(new RenameCommand(this, pass, newName));
    return true;
}

void Session::applyRename(const QString &name, const QString &newName)
{
    _base = withPassRenamed(text(), name, newName);
    pipeline()->rename(name, newName);
    if (_disabled.remove(name))
        _disabled.insert(newName);
    if (_chosen == name)
        _chosen = newName;
    Q_EMIT structureChanged();
    Q_EMIT chosenPassChanged(_chosen);
}

bool Session::applyText(const QByteArray &text)
{
    return load(text, _path);
}

// Changes the running pipeline, and then the text after it. What has no text is taken back.
template <typename Change>
bool Session::restructure(const QString &what, const Change &change)
{
    if (!pipeline())
        return fail(u"there is no pipeline"_s);
    const QByteArray before = text();
    QString error;
    _view->makeCurrent();
    const bool isDone = change(pipeline(), &error);
    _view->doneCurrent();
    if (!isDone)
        return fail(error);
    QStringList errors;
    const QByteArray after = pipelineText(*pipeline(), _path, before, &errors);
    if (after.isEmpty()) {
        load(before, _path);
        Q_EMIT failed(errors);
        return false;
    }
    _base = after;
    _undo.push(new TextCommand(this, what, before, after));
    if (!pipeline()->pass(_chosen))
        choosePass(pipeline()->order().value(0));
    _view->invalidate();
    Q_EMIT structureChanged();
    return true;
}

bool Session::add(const QString &name, const QString &className)
{
    return restructure(u"add %1"_s.arg(name), [&](Pipeline *p, QString *error) {
        if (!p->add(name, className, error))
            return false;
        p->bindStandard();
        return true;
    });
}

bool Session::insert(const QString &name, const QString &className, const QString &to, const QString &toSlot,
                     const QString &inputSlot, const QString &outputSlot)
{
    return restructure(u"insert %1"_s.arg(name), [&](Pipeline *p, QString *error) {
        if (!p->insert(name, className, to, toSlot, inputSlot, outputSlot, error))
            return false;
        p->bindStandard();
        return true;
    });
}

bool Session::replace(const QString &pass, const QString &className)
{
    return restructure(u"replace %1"_s.arg(pass),
                       [&](Pipeline *p, QString *error) { return p->replace(pass, className, error); });
}

// Where an input of it can stand for what others read, their links go there.
bool Session::remove(const QString &pass)
{
    return restructure(u"remove %1"_s.arg(pass), [&](Pipeline *p, QString *error) {
        struct Heir
        {
            QString pass;
            PassInput input;
        };
        std::vector<Heir> heirs;
        for (const QString &other : p->passNames())
            for (PassInput input : p->inputs(other)) {
                if (input.kind != PassInput::Kind::Link || input.sourcePass != pass)
                    continue;
                const PassInput past = inputOf(pass, p->bypassSlot(pass, input.source));
                if (past.kind == PassInput::Kind::Default)
                    continue;
                const QString slot = std::exchange(input, past).slot;
                input.slot = slot;
                heirs.push_back({other, input});
            }
        if (!p->remove(pass, error))
            return false;
        for (const Heir &heir : heirs)
            applyInput(heir.pass, heir.input);
        return true;
    });
}

QString Session::freeName(const QString &className) const
{
    QString base = className;
    base.remove(u"RenderPass"_s);
    if (base.endsWith(u"Pass"_s))
        base.chop(4);
    QString name = base;
    for (int i = 2; pipeline() && pipeline()->pass(name); ++i)
        name = base + QString::number(i);
    return name;
}
