#include "commands.h"

#include "host/slotname.h"
#include "session.h"

#include <utility>

using namespace Brevane::Kvo;
using namespace Qt::StringLiterals;

InputCommand::InputCommand(Session *session, const QString &pass, const PassInput &before, const PassInput &after,
                           int gesture)
    : QUndoCommand(u"%1.%2"_s.arg(pass, SlotName::parse(after.slot).name)), _session(session), _pass(pass),
      _before(before), _after(after), _gesture(gesture)
{}

void InputCommand::undo()
{
    _session->applyInput(_pass, _before);
}

void InputCommand::redo()
{
    _session->applyInput(_pass, _after);
}

bool InputCommand::mergeWith(const QUndoCommand *other)
{
    const auto *next = static_cast<const InputCommand *>(other);
    if (next->_gesture != _gesture || next->_pass != _pass || next->_after.slot != _after.slot)
        return false;
    _after = next->_after;
    return true;
}

EnableCommand::EnableCommand(Session *session, const QString &pass, bool enabled)
    : QUndoCommand((enabled ? u"%1 on"_s : u"%1 off"_s).arg(pass)), _session(session), _pass(pass), _enabled(enabled)
{}

void EnableCommand::undo()
{
    _session->applyEnabled(_pass, !_enabled);
}

void EnableCommand::redo()
{
    _session->applyEnabled(_pass, _enabled);
}

RenameCommand::RenameCommand(Session *session, const QString &name, const QString &newName)
    : QUndoCommand(u"name of %1"_s.arg(name)), _session(session), _name(name), _newName(newName)
{}

void RenameCommand::undo()
{
    _session->applyRename(_newName, _name);
}

void RenameCommand::redo()
{
    _session->applyRename(_name, _newName);
}

TextCommand::TextCommand(Session *session, const QString &what, const QByteArray &before, const QByteArray &after)
    : QUndoCommand(what), _session(session), _before(before), _after(after)
{}

void TextCommand::undo()
{
    _session->applyText(_before);
}

void TextCommand::redo()
{
    if (!std::exchange(_isFirst, false))
        _session->applyText(_after);
}
