#pragma once

#include <QHash>
#include <QTimer>
#include <QVector>
#include <QWidget>

class QAction;
class QMenu;
class QTreeWidget;
class QTreeWidgetItem;
class Session;

/// The passes in the order of running: on and off, class, times with their history, faults; and what is done to them.
class PassesPanel : public QWidget
{
    Q_OBJECT

public:
    explicit PassesPanel(Session *session, QWidget *parent = nullptr);

    QTreeWidget *list() const { return _list; }
    /// Rename, add, insert, replace, remove: for menus.
    QList<QAction *> passActions() const { return _actions; }
    /// Lines that name passes in quotes, shown at those passes; empty: all is well.
    void setFaults(const QStringList &faults);

private:
    void rebuild();
    void updateTimes();
    void onItemChanged(QTreeWidgetItem *item, int column);
    QTreeWidgetItem *itemOf(const QString &pass) const;
    void addActions();
    QAction *addAction(const QString &text, const QKeySequence &keys, void (PassesPanel::*slot)());
    void rename();
    void toggle();
    void add();
    void insert();
    void replace();
    void remove();
    QString askForClass(const QString &title, const QStringList &classes);
    void showFaults();

    Session *_session;
    QTreeWidget *_list;
    QList<QAction *> _actions;
    QTimer _tick;
    QHash<QString, QVector<double>> _history;
    QStringList _faults;
    bool _isFilling = false;
};
