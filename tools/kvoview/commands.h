#pragma once

#include "host/pipeline.h"

#include <QByteArray>
#include <QString>
#include <QUndoCommand>

class Session;

/// What feeds an input.
class InputCommand : public QUndoCommand
{
public:
    InputCommand(Session *session, const QString &pass, const Brevane::Kvo::PassInput &before,
                 const Brevane::Kvo::PassInput &after, int gesture);
    void undo() override;
    void redo() override;
    int id() const override { return _gesture == 0 ? -1 : 1; }
    bool mergeWith(const QUndoCommand *other) override;

private:
    Session *_session;
    QString _pass;
    Brevane::Kvo::PassInput _before;
    Brevane::Kvo::PassInput _after;
    int _gesture;
};

class EnableCommand : public QUndoCommand
{
public:
    EnableCommand(Session *session, const QString &pass, bool enabled);
    void undo() override;
    void redo() override;

private:
    Session *_session;
    QString _pass;
    bool _enabled;
};

class RenameCommand : public QUndoCommand
{
public:
    RenameCommand(Session *session, const QString &name, const QString &newName);
    void undo() override;
    void redo() override;

private:
    Session *_session;
    QString _name;
    QString _newName;
};

/// The whole text. What it says runs already when the command is pushed.
class TextCommand : public QUndoCommand
{
public:
    TextCommand(Session *session, const QString &what, const QByteArray &before, const QByteArray &after);
    void undo() override;
    void redo() override;

private:
    Session *_session;
    QByteArray _before;
    QByteArray _after;
    bool _isFirst = true;
};
