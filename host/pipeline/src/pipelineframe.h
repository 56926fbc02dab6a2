#pragma once

#include "gl/picturewindow.h"
#include "passgraph.h"
#include "referenceledger.h"

#include <QPointer>
#include <QSet>
#include <QVector>
#include <QWeakPointer>

#include <functional>
#include <memory>
#include <vector>

namespace Brevane::Kvo {

class HostValues;
class OpenGLDeviceContext;
class RenderCallbacks;
class Texture;
struct StateRow;

/// Whether passes can set up and run here.
bool contextIsCurrent();

/// Drives the passes of a graph frame by frame: in order, with their inputs, in GL's default state; follows
/// their references, times them and frees what they give up.
class PipelineFrame
{
public:
    using Observer = std::function<void(const QString &, RenderPass *)>;

    PipelineFrame(PassGraph &graph, HostValues &hosts) : _graph(graph), _hosts(hosts) {}

    void setup(RenderCallbacks *callbacks);
    void run(RenderCallbacks *callbacks);
    /// Tears down the pass of a node and destroys it.
    void destroyPass(Node *node, std::unique_ptr<RenderPass> pass);
    /// Of the passes of all nodes, whether torn down or not.
    void destroyPasses();
    void teardown(RenderCallbacks *callbacks);
    void teardownContextData(RenderCallbacks *callbacks);
    QVector<PassTiming> timings(bool wait);
    void setTimingHistory(int frames);

    Observer observer;
    int idleFrames = 120;
    qint64 poolBytes = -1;
    bool timing = false;
    PictureWindow window; ///< What is drawn of a larger picture.
    int history = 120;
    int number = 0; ///< Of the next frame.
    bool isRunning = false; ///< Whether passes and the observer are being called, which may not take passes away.
    QStringList faults; ///< Of the last one.

private:
    // How a pass takes a part of a larger picture.
    enum class Placing {
        Part, ///< Draws the part by itself: reads what lies there, with the projection of the part.
        Whole, ///< Draws as in the whole picture, of which its target cuts the part out.
        Beside, ///< Draws nothing of the picture, but has to know all of it.
    };

    // What one frame does with a pass, worked out from the links.
    struct Step
    {
        struct Link
        {
            int input;
            LinkSource source;
            bool isOurs; ///< Whether the source is a pass of the library's, exactly.
        };

        Node *node = nullptr;
        ReferenceLedger::GivingBack givingBack = ReferenceLedger::GivingBack::Pass;
        const StateRow *row = nullptr; ///< What the pass leaves changed; null: not known.
        int viewportInput = -1;
        Placing placing = Placing::Part;
        std::vector<Link> links;
        std::vector<std::pair<int, HostSource>> hosts; ///< Inputs that are bound to a host value.
        std::vector<int> outputs;
        std::vector<ReferenceLedger::Port> inputPorts;
        std::vector<ReferenceLedger::Port> outputPorts;
        std::vector<ReferenceLedger::Held> held;
    };

    void prepare();
    Step makeStep(Node *node) const;
    void learnContext();
    void runStep(Step &step, RenderCallbacks *callbacks);
    void passInputs(Step &step);
    void reportMissing(const Step &step, int input, int host);
    QVariant hostValueFor(const Step &step, const HostSource &source) const;
    static Placing placingOf(const StateRow *row);
    void setViewport(const Step &step);
    QVariant valueOf(const InputPort &input) const;
    void checkReferences(Step &step);
    void report();
    void releaseTimer(Node *node);
    bool isNamed(const Texture *texture) const;
    void freeGivenUp();

    PassGraph &_graph;
    HostValues &_hosts;
    std::vector<Step> _steps;
    quint64 _revision = 0; ///< Of the graph that the steps are made from.
    ReferenceLedger _ledger;
    QSet<QString> _reported;
    unsigned _missing = 0; ///< Bits of the host values of which it was said that there are none.
    QVector<QPointer<QObject>> _givenUp; ///< By the passes of this pipeline.
    QWeakPointer<OpenGLDeviceContext> _timerContext; ///< Where the queries are.
    bool _contextKnown = false;
    bool _hasDebugGroups = false;
    bool _hasTimestamps = false;
};

} // namespace Brevane::Kvo
