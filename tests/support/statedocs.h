#pragma once

#include <passkit/statetable.h>

#include <QFile>
#include <QString>
#include <QStringList>

namespace Brevane::Kvo::Test {

// Texts that are made from the table of state: a paragraph of each pass's header, and a page.

inline QString listOf(const StateRow &row, StateException::Use use)
{
    // First what holds on all roads, then road by road, in the order of the table.
    QStringList roads;
    for (const StateException &e : row.exceptions) {
        if (e.use == use && !roads.contains(QString::fromLatin1(e.when)))
            roads << QString::fromLatin1(e.when);
    }
    if (roads.removeOne(QString()))
        roads.prepend(QString());
    QStringList parts;
    for (const QString &road : std::as_const(roads)) {
        QStringList pieces;
        for (const StateException &e : row.exceptions) {
            // Further viewports go with the first.
            if (e.use != use || QString::fromLatin1(e.when) != road || e.piece == StatePiece::FurtherViewports)
                continue;
            const QString name = QString::fromLatin1(nameOf(e.piece));
            pieces << (use == StateException::Left ? QStringLiteral("%1 (%2)").arg(name, QString::fromLatin1(e.text))
                                                   : name);
        }
        const QString list = pieces.join(QStringLiteral(", "));
        parts << (road.isEmpty() ? list : QStringLiteral("%1: %2").arg(road, list));
    }
    return parts.join(QStringLiteral("; "));
}

/// What a header says about state, as one line.
inline QString statePromise(const StateRow &row)
{
    const QString left = listOf(row, StateException::Left);
    const QString counts = listOf(row, StateException::HostCounts);
    QString text = left.isEmpty() ? QStringLiteral("Leaves no state of GL changed.")
                                  : QStringLiteral("Leaves changed: %1.").arg(left);
    if (!counts.isEmpty())
        text += QStringLiteral(" Of the host's state count: %1.").arg(counts);
    return text;
}

/// The same as lines of up to 110 columns, each with a beginning.
inline QString promiseLines(const StateRow &row, const QString &beginning)
{
    QString lines;
    QString line = beginning;
    for (const QString &word : statePromise(row).split(u' ')) {
        if (line.size() + 1 + word.size() > 110) {
            lines += line + u'\n';
            line = beginning;
        }
        line += (line.isEmpty() ? QString() : QStringLiteral(" ")) + word;
    }
    return lines + line + u'\n';
}

inline QString hostStatePage()
{
    QString page = QStringLiteral(
        "# The host's GL state\n\n"
        "<!-- Made from the table in src/passkit/statetable.cpp by\n"
        "     KVO_WRITE_DOCS=1 build/dev/bin/test_unit_hoststatedocs -->\n\n"
        "A pass runs in a context that is not its own. What holds for every pass and every piece of state, unless a\n"
        "table below says otherwise:\n\n"
        "- the picture is the one of a clean context, whatever the host has set;\n"
        "- after `start` the piece is as it was before.\n\n"
        "Under `Pipeline` nothing below is an exception: every pass starts from GL's defaults, with the viewport of its\n"
        "input and a transparent black clear colour or the one of `setClearColor`, and after the frame all is as the\n"
        "host had set it. One thing GL does not tell: a stencil reference value reads as 0 while the framebuffer that is\n"
        "bound has no stencil, so a host that keeps one for later sets it again after the frame.\n\n"
        "## The host's value counts\n\n"
        "| Pass | State | When | Why |\n|---|---|---|---|\n");
    const auto cell = [](const char *text) { return QString::fromLatin1(text); };
    for (const StateRow &row : stateTable()) {
        for (const StateException &e : row.exceptions) {
            if (e.use == StateException::HostCounts)
                page += QStringLiteral("| %1 | %2 | %3 | %4 |\n")
                            .arg(cell(row.className), cell(nameOf(e.piece)), cell(e.when), cell(e.text));
        }
    }
    page += QStringLiteral("\nFor every pass that draws:\n\n| State | Why |\n|---|---|\n");
    for (const StateOfAll &all : stateOfAll())
        page += QStringLiteral("| %1 | %2 |\n").arg(cell(nameOf(all.piece)), cell(all.text));
    page += QStringLiteral("\n## Left changed\n\n| Pass | State | When | Value |\n|---|---|---|---|\n");
    for (const StateRow &row : stateTable()) {
        for (const StateException &e : row.exceptions) {
            if (e.use == StateException::Left)
                page += QStringLiteral("| %1 | %2 | %3 | %4 |\n")
                            .arg(cell(row.className), cell(nameOf(e.piece)), cell(e.when), cell(e.text));
        }
    }
    page += QStringLiteral(
        "\n## All pieces\n\nWhat counts as state, and what a clean context has. `tests/gl/hoststate_test.cpp` sets "
        "each to\nsomething that would spoil a picture, under every pass.\n\n"
        "| State | In a clean context |\n|---|---|\n");
    for (std::size_t i = 0; i < kStatePieces; ++i)
        page += QStringLiteral("| %1 | %2 |\n").arg(cell(nameOf(StatePiece(i))), cell(defaultOf(StatePiece(i))));
    return page;
}

} // namespace Brevane::Kvo::Test
