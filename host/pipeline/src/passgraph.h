#pragma once

#include "passtimer.h"
#include "rectangleparts.h"

#include <QByteArray>
#include <QColor>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <memory>
#include <variant>
#include <vector>

namespace Brevane::Kvo {

class RenderPass;
struct Node;
struct SlotInfo;

/// Where an input takes its value from.
struct DefaultSource
{};
struct ValueSource
{
    QVariant value;
};
struct HostSource
{
    int host = -1; ///< Index in HostValues.
    RectangleParts parts; ///< Of the host value, where not all of it is meant.
};
struct LinkSource
{
    Node *from = nullptr;
    int output = -1;

    bool operator==(const LinkSource &) const = default;
};
using Source = std::variant<DefaultSource, ValueSource, HostSource, LinkSource>;

/// A pass and how it is wired.
struct Node
{
    /// The source of an input; a pass may have grown slots since it was added.
    Source &source(int input);

    QString name;
    QString className; ///< Empty: not known.
    QByteArray label;
    std::unique_ptr<RenderPass> pass;
    std::vector<Source> sources;
    bool isSetUp = false;
    bool isOn = true;
    unsigned int errorCode = 0;
    QColor clearColor; ///< Invalid: transparent black.
    PassTimer timer;
};

/// An input of a pass that was asked for by name; none when it was not found.
struct InputPort
{
    Node *node = nullptr;
    int index = -1;

    explicit operator bool() const { return node != nullptr; }
    QString slot() const;
    Source &source() const { return node->source(index); }
    /// What the pass says of it, if anything.
    const SlotInfo *info() const;
    /// The link into it, if it has one.
    const LinkSource *link() const { return std::get_if<LinkSource>(&source()); }
};

/// The same for an output.
struct OutputPort
{
    Node *node = nullptr;
    int index = -1;

    explicit operator bool() const { return node != nullptr; }
    QString slot() const;
    const SlotInfo *info() const;
};

/// Whether a text is made of letters, digits, '_' and '-' alone.
bool isPlainName(const QString &name);

/// Index of the input that takes the size of a pass's picture; -1 where there is none.
int viewportInputOf(const RenderPass &pass);

/// The word for the type in a slot's name.
QString typeText(const QString &slot);

/// The passes of a pipeline and what feeds their inputs. Holds no cycle: a link that would close one is
/// refused. Whatever fails says why and changes nothing.
class PassGraph
{
public:
    const std::vector<std::unique_ptr<Node>> &nodes() const { return _nodes; }
    /// Grows with every change of passes and wiring.
    quint64 revision() const { return _revision; }

    Node *find(const QString &name, QString *error = nullptr) const;
    bool checkNewName(const QString &name, QString *error) const;
    /// A node that is not in the graph yet.
    static std::unique_ptr<Node> makeNode(const QString &name, std::unique_ptr<RenderPass> pass);
    Node *append(std::unique_ptr<Node> node);
    /// Takes a node out; inputs that it fed go back to their defaults.
    std::unique_ptr<Node> take(Node *node);
    /// Puts another pass in the place of a node's, which comes back. Null, with nothing changed, when it
    /// lacks a slot that is in use.
    std::unique_ptr<RenderPass> replace(Node *node, std::unique_ptr<RenderPass> pass, QString *error);

    InputPort input(const QString &pass, const QString &slot, QString *error) const;
    OutputPort output(const QString &pass, const QString &slot, QString *error) const;
    static InputPort inputOf(Node *node, const QString &slot, QString *error);
    static OutputPort outputOf(Node *node, const QString &slot, QString *error);

    static bool checkTypes(const OutputPort &from, const InputPort &to, QString *error);
    bool link(const OutputPort &from, const InputPort &to, QString *error);
    void set(const InputPort &input, const Source &source);
    /// How many inputs of passes that are on read an output, directly or past passes that are off.
    int users(const LinkSource &output) const;
    void setOn(Node *node, bool on);
    /// The input whose value stands for an output of a pass that is off; -1 where none does.
    static int bypassOf(Node *node, int output);
    /// What feeds an input with that source, past passes that are off.
    static const Source &effective(const Source &source);
    /// Every pass after those that feed it; of those that could come next, the one that was added first.
    std::vector<Node *> order() const;

private:
    static QStringList path(const Node *node, const Node *target);

    std::vector<std::unique_ptr<Node>> _nodes;
    quint64 _revision = 1;
};

} // namespace Brevane::Kvo
