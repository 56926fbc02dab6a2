#pragma once

#include <QGraphicsView>
#include <QHash>
#include <QString>

class GraphNode;
class Session;

/// The chain as nodes and links, laid out from left to right by itself. A drag from an output to an input connects
/// them; one that does not fit says why. The chosen pass is lit, and so are its links.
class GraphView : public QGraphicsView
{
    Q_OBJECT

public:
    explicit GraphView(Session *session, QWidget *parent = nullptr);

    /// Where the knob of a slot is in the view, for whoever drags; by short or full name.
    QPoint inputKnob(const QString &pass, const QString &slot) const;
    QPoint outputKnob(const QString &pass, const QString &slot) const;
    void fit();

protected:
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void wheelEvent(QWheelEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    void showEvent(QShowEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;
    bool event(QEvent *event) override;

private:
    struct Knob
    {
        QString pass;
        QString slot;
        bool isOutput = false;
        bool isValid() const { return !slot.isEmpty(); }
    };

    void rebuild();
    void layOut();
    void addLinks();
    void light();
    void showChosen();
    void step(int by);
    Knob knobAt(const QPoint &position) const;

    Session *_session;
    QGraphicsScene _scene;
    QHash<QString, GraphNode *> _nodes;
    Knob _from;
    QGraphicsPathItem *_thread = nullptr;
    bool _isFitted = true;
};
