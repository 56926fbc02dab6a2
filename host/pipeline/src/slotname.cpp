#include "host/slotname.h"

#include <algorithm>
#include <numeric>
#include <vector>

namespace Brevane::Kvo {

namespace {

constexpr QLatin1StringView kPrefix("Kvo_");
// The one slot that is named in another way says its type too.
constexpr QLatin1StringView kIntPrefix("Int_");

// One spelling for each type.
QString canonicalType(const QString &type)
{
    if (type == QLatin1StringView("Float"))
        return QStringLiteral("float");
    if (type == QLatin1StringView("Bool"))
        return QStringLiteral("bool");
    if (type == QLatin1StringView("string"))
        return QStringLiteral("QString");
    if (type == QLatin1StringView("QVariant"))
        return QString();
    return type;
}

// Edits (insert, delete, replace, swap of neighbours) that turn one text into the other.
qsizetype editDistance(const QString &a, const QString &b)
{
    const qsizetype columns = b.size() + 1;
    std::vector<qsizetype> beforePrevious(columns), previous(columns), row(columns);
    std::iota(previous.begin(), previous.end(), 0);
    for (qsizetype i = 1; i <= a.size(); ++i) {
        row[0] = i;
        for (qsizetype j = 1; j <= b.size(); ++j) {
            const bool same = a[i - 1] == b[j - 1];
            row[j] = std::min({previous[j] + 1, row[j - 1] + 1, previous[j - 1] + (same ? 0 : 1)});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                row[j] = std::min(row[j], beforePrevious[j - 2] + 1);
        }
        std::swap(beforePrevious, previous);
        std::swap(previous, row);
    }
    return previous[b.size()];
}

// Whether a text becomes another one by putting in one piece.
bool lacksOnePiece(const QString &text, const QString &whole)
{
    if (text.size() < 3 || text.size() >= whole.size())
        return false;
    const auto head = std::mismatch(text.begin(), text.end(), whole.begin()).first - text.begin();
    const auto tail = std::mismatch(text.rbegin(), text.rend(), whole.rbegin()).first - text.rbegin();
    return head + tail >= text.size();
}

// Of a long name people know the beginning: 'Gausian' for 'GaussianBlurRenderPass'.
QString nearestBeginning(const QString &wanted, const QStringList &candidates)
{
    constexpr qsizetype kTooShort = 4; // to say much
    QString best;
    qsizetype bestDistance = wanted.size() / kTooShort + 1;
    for (const QString &candidate : candidates) {
        for (qsizetype length = wanted.size() - 1; length <= wanted.size() + 1 && length < candidate.size(); ++length) {
            const qsizetype distance = editDistance(wanted, candidate.left(length).toLower());
            if (wanted.size() >= kTooShort && distance < bestDistance) {
                bestDistance = distance;
                best = candidate;
            }
        }
    }
    return best;
}

} // namespace

SlotName SlotName::parse(const QString &slot)
{
    SlotName result;
    if (slot.startsWith(kIntPrefix) && slot.size() > kIntPrefix.size()) {
        result.type = QStringLiteral("int");
        result.name = slot.mid(kIntPrefix.size());
        return result;
    }
    const qsizetype typeEnd = slot.indexOf(QLatin1Char('_'), kPrefix.size());
    if (!slot.startsWith(kPrefix) || typeEnd < 0) {
        result.name = slot;
        return result;
    }
    result.type = slot.mid(kPrefix.size(), typeEnd - kPrefix.size());
    result.name = slot.mid(typeEnd + 1);
    const qsizetype elementEnd = result.name.indexOf(QLatin1StringView("*_"));
    if (result.type == QLatin1StringView("QList") && elementEnd >= 0) {
        result.elementType = result.name.left(elementEnd + 1);
        result.name = result.name.mid(elementEnd + 2);
    }
    return result;
}

bool slotTypesMatch(const QString &slot, const QString &otherSlot)
{
    const QString type = canonicalType(SlotName::parse(slot).type);
    const QString otherType = canonicalType(SlotName::parse(otherSlot).type);
    return type.isEmpty() || otherType.isEmpty() || type == otherType;
}

QString nearestName(const QString &name, const QStringList &candidates)
{
    const QString wanted = name.toLower();
    QString best;
    qsizetype bestDistance = std::max<qsizetype>(2, name.size() / 3) + 1;
    for (const QString &candidate : candidates) {
        const QString text = candidate.toLower();
        // A piece left out is a likely slip, however long: 'GradientPass' for 'GradientRenderPass'.
        const qsizetype distance = lacksOnePiece(wanted, text) ? 2 : editDistance(wanted, text);
        // With every letter another one it is another name.
        if (distance < bestDistance && distance < std::max(wanted.size(), text.size())) {
            bestDistance = distance;
            best = candidate;
        }
    }
    return best.isEmpty() ? nearestBeginning(wanted, candidates) : best;
}

QString nearestNameHint(const QString &name, const QStringList &candidates)
{
    const QString nearest = nearestName(name, candidates);
    return nearest.isEmpty() ? QString() : QStringLiteral("; did you mean '%1'?").arg(nearest);
}

} // namespace Brevane::Kvo
