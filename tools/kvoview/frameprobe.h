#pragma once

#include "texels.h"

#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QVector>

#include <functional>
#include <optional>

class Session;

/// An output of a pass at a moment of the frame.
struct Tap
{
    QString pass;
    QString slot; ///< Full name.
    QString moment; ///< The pass behind which it is looked at; empty: its own.
    int level = 0;

    bool isValid() const { return !pass.isEmpty() && !slot.isEmpty(); }
    bool operator==(const Tap &) const = default;
};

/// Whether an output holds texels.
bool isLookable(const QString &slot);

/// What a tap found in the last frame.
struct TapResult
{
    Texels texels;
    QString text; ///< The value, where it is no texture.
    QString error;
};

/// A pool texture over a frame.
struct ResourceRow
{
    QString name; ///< "Frame 1280x720".
    qint64 bytes = 0;
    struct Use
    {
        int references = 0; ///< Behind the pass.
        bool isTaken = false; ///< In the pass.
        QString taker;
    };
    QVector<Use> uses; ///< One per pass, in the order of running.
    int takers = 0; ///< How often it was taken in the frame.
};

/// What a frame held, pass by pass.
struct ResourceRecord
{
    QStringList passes;
    QVector<ResourceRow> rows;
    qint64 bytes = 0;
    qint64 peakBytesInUse = 0;
    qint64 peakBytes = 0;
};

/// Looks into frames of a session's pipeline while they are drawn, pass by pass, as far as somebody wants something:
/// otherwise frames are not touched.
class FrameProbe : public QObject
{
    Q_OBJECT

public:
    explicit FrameProbe(Session *session);
    ~FrameProbe() override;

    /// What is looked at; a tap that is not valid takes nothing. The next frame fills the results.
    void setTaps(const QVector<Tap> &taps);
    const QVector<TapResult> &results() const { return _results; }
    void setRecording(bool recording);
    const ResourceRecord &record() const { return _record; }
    /// Asks GL for errors behind each pass.
    void setCheckingErrors(bool checking);
    bool isCheckingErrors() const { return _isChecking; }
    /// Called with every pass of the next frames, for who has more to look at; empty: nobody.
    void setVisitor(std::function<void(const QString &pass)> visitor);

Q_SIGNALS:
    /// A frame has been looked into.
    void looked();
    /// "GL_INVALID_ENUM in 'Shade'", in the frame in which it changed.
    void glErrors(const QStringList &errors);

private:
    void install();
    void look(const QString &pass);
    void finish();
    void fill(int index);

    Session *_session;
    QVector<Tap> _taps;
    QVector<TapResult> _results;
    bool _isRecording = false;
    bool _isChecking = false;
    bool _isInstalled = false;
    std::function<void(const QString &)> _visitor;
    ResourceRecord _record;
    ResourceRecord _next;
    QVector<const void *> _known;
    QVector<qint64> _taken;
    QStringList _errors;
    QStringList _nextErrors;
    bool _hasLooked = false;
};
