#pragma once

#include <QString>
#include <QStringList>

#include <vector>

namespace Brevane::Kvo {

class Texture;

/// Follows the references of pool textures along the links of a frame.
///
/// The contract: a producer leaves one reference per user on an output, and every consumer gives back
/// exactly one per linked input in its start. The ledger knows how many are owed on each texture, and
/// compares with the pool before and after each pass. What a pass holds beyond that is its own affair (a
/// history for the next frame), unless it grows.
class ReferenceLedger
{
public:
    /// A linked texture of the pass that runs next, as its input or output.
    struct Port
    {
        QString slot;
        Texture *texture = nullptr;
        int users = 0; ///< Of an output.
        int surplusBefore = 0; ///< Of an input: references beyond what was owed, before the start.
        bool seen = false;
    };
    /// References that a pass keeps on an output across frames.
    struct Held
    {
        std::vector<Texture *> textures;
        bool reported = false;
    };

    ReferenceLedger();

    void beginFrame();
    /// Before the start of a pass: its linked inputs.
    void beforeStart(std::vector<Port> &inputs);
    /// Who gives back the references of linked inputs.
    enum class GivingBack {
        Pass,
        Ledger, ///< For a pass that takes no part in the counting: what it leaves is given back behind it.
    };
    /// After it: the outputs, with the textures they hold now. Faults are added to \a faults.
    void afterStart(const QString &pass, GivingBack givingBack, std::vector<Port> &inputs, std::vector<Port> &outputs,
                    std::vector<Held> &held, QStringList *faults);

private:
    struct Entry
    {
        Texture *texture;
        int owed = 0;
        bool broken = false; ///< Named once in this frame; what follows from it is not.
    };

    Entry &entryOf(Texture *texture);
    int &owedOn(Texture *texture) { return entryOf(texture).owed; }
    void checkInput(const QString &pass, GivingBack givingBack, const Port &input, QStringList *faults);
    void checkOutput(const QString &pass, const Port &output, Held &held, QStringList *faults);

    std::vector<Entry> _entries;
};

} // namespace Brevane::Kvo
