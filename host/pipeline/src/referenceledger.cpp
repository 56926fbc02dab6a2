#include "referenceledger.h"

#include "gl/texturemanager.h"

#include <algorithm>

namespace Brevane::Kvo {

namespace {

// No pass needs more history of one output than the frame before and the one before that.
constexpr int kHistoryAllowance = 3;
constexpr int kNotPooled = -1;

int refsOf(const Texture *texture)
{
    return texture ? TextureManager::Instance().tempTextureRefs(texture) : kNotPooled;
}

template <typename Ports>
bool holds(const Ports &ports, const Texture *texture)
{
    return std::any_of(ports.begin(), ports.end(), [&](const auto &port) { return port.texture == texture; });
}

} // namespace

ReferenceLedger::ReferenceLedger()
{
    _entries.reserve(64);
}

void ReferenceLedger::beginFrame()
{
    _entries.clear();
}

ReferenceLedger::Entry &ReferenceLedger::entryOf(Texture *texture)
{
    for (Entry &entry : _entries)
        if (entry.texture == texture)
            return entry;
    return _entries.emplace_back(Entry{texture});
}

void ReferenceLedger::beforeStart(std::vector<Port> &inputs)
{
    for (Port &input : inputs) {
        const int refs = refsOf(input.texture);
        input.surplusBefore = refs == kNotPooled ? 0 : refs - owedOn(input.texture);
    }
}

void ReferenceLedger::afterStart(const QString &pass, GivingBack givingBack, std::vector<Port> &inputs,
                                 std::vector<Port> &outputs, std::vector<Held> &held, QStringList *faults)
{
    for (const Port &input : inputs)
        if (refsOf(input.texture) != kNotPooled)
            --owedOn(input.texture);
    for (const Port &output : outputs)
        if (refsOf(output.texture) != kNotPooled)
            owedOn(output.texture) += output.users;

    // A texture that comes in twice is owed twice and checked once; one that goes out again is checked
    // there.
    for (auto input = inputs.begin(); input != inputs.end(); ++input) {
        input->seen = std::any_of(inputs.begin(), input, [&](const Port &p) { return p.texture == input->texture; });
        if (!input->seen && !holds(outputs, input->texture))
            checkInput(pass, givingBack, *input, faults);
    }
    for (size_t i = 0; i < outputs.size(); ++i)
        checkOutput(pass, outputs[i], held[i], faults);
}

void ReferenceLedger::checkInput(const QString &pass, GivingBack givingBack, const Port &input, QStringList *faults)
{
    const int refs = refsOf(input.texture);
    if (refs == kNotPooled || entryOf(input.texture).broken)
        return;
    const int surplus = refs - owedOn(input.texture);
    if (surplus > input.surplusBefore && givingBack == GivingBack::Ledger) {
        TextureManager::Instance().releaseTempTextureRef(input.texture, surplus - input.surplusBefore);
    } else if (surplus > input.surplusBefore) {
        faults->append(
            QStringLiteral("pass '%1' did not give back the texture of its input '%2': %3 reference(s) too many")
                .arg(pass, input.slot, QString::number(surplus - input.surplusBefore)));
    } else if (surplus < input.surplusBefore) {
        entryOf(input.texture).broken = true;
        faults->append(
            QStringLiteral("pass '%1' gave back the texture of its input '%2' more than once: %3 reference(s) missing")
                .arg(pass, input.slot, QString::number(input.surplusBefore - surplus)));
    }
}

void ReferenceLedger::checkOutput(const QString &pass, const Port &output, Held &held, QStringList *faults)
{
    // What the pass held before and has given back since no longer counts.
    std::erase_if(held.textures, [&](Texture *t) { return t == output.texture || refsOf(t) <= owedOn(t); });
    const int refs = refsOf(output.texture);
    if (refs == kNotPooled)
        return;
    const int owed = owedOn(output.texture);
    if (refs < owed && !entryOf(output.texture).broken) {
        entryOf(output.texture).broken = true;
        faults->append(
            QStringLiteral("pass '%1' left %2 reference(s) on the texture of its output '%3', which has %4 user(s)")
                .arg(pass, QString::number(refs), output.slot, QString::number(output.users)));
    } else if (refs > owed) {
        held.textures.push_back(output.texture);
    }
    int kept = 0;
    for (Texture *texture : held.textures)
        kept += refsOf(texture) - owedOn(texture);
    if (kept <= kHistoryAllowance)
        held.reported = false;
    else if (!held.reported) {
        held.reported = true;
        faults->append(
            QStringLiteral("pass '%1' keeps %2 references on textures of its output '%3', and the number grows")
                .arg(pass, QString::number(kept), output.slot));
    }
}

} // namespace Brevane::Kvo
