#include "options.h"

#include "host/versiondetails.h"

#include <QCoreApplication>
#include <QRegularExpression>

#include <utility>

// Manual pages and completions, from the table that the command line is read by.

using namespace Qt::StringLiterals;

namespace {

const QStringList kPrograms{u"kvorender"_s, u"kvoview"_s, u"kvo-import"_s};

// What the value of an option is, for shells to complete.
struct ValueKind
{
    bool takesValue = false;
    bool pipelines = false;
    bool files = false;
    bool folders = false;
    QStringList words; ///< Those that stand for themselves.
};

ValueKind kindOf(const Option &option)
{
    ValueKind kind;
    kind.takesValue = !option.value.isEmpty();
    kind.folders = option.value == u"FOLDER"_s;
    const QStringList alternatives = option.value.split(u'|', Qt::SkipEmptyParts);
    kind.files = alternatives.contains(u"FILE"_s);
    kind.pipelines = option.longName() == u"pipeline"_s;
    for (const QString &alternative : alternatives)
        if (alternative == alternative.toLower())
            kind.words << alternative;
    return kind;
}

QStringList spellings(const Option &option)
{
    QStringList all;
    for (const QString &name : option.names)
        all << (name.size() == 1 ? u"-"_s : u"--"_s) + name;
    return all;
}

const Option kHelp{.names = {u"h"_s, u"help"_s}, .help = u"what the options are"_s};
const Option kVersion{.names = {u"v"_s, u"version"_s}, .help = u"versions of the library, of Qt and of OpenGL"_s};

// A line of text for troff.
QString troff(QString text)
{
    text.replace(u'\\', u"\\e"_s).replace(u'-', u"\\-"_s);
    text.replace(u'\'', u"\\(aq"_s).replace(u'^', u"\\(ha"_s).replace(u'~', u"\\(ti"_s).replace(u'`', u"\\(ga"_s);
    return text.startsWith(u'.') ? u"\\&"_s + text : text;
}

QString troffHeading(const QString &heading)
{
    return u".SH "_s + troff(heading.toUpper()) + u'\n';
}

QString troffOption(const Option &option)
{
    QStringList names;
    for (const QString &spelling : spellings(option))
        names << u"\\fB%1\\fR"_s.arg(troff(spelling));
    QString line = names.join(u", "_s);
    if (!option.value.isEmpty())
        line += u" \\fI%1\\fR"_s.arg(troff(option.value));
    return u".TP\n%1\n%2\n"_s.arg(line, troff(option.help + repetitionOf(option)));
}

// Of the notes: a heading, and below it prose, "term   what it is", and lines that stand as they are.
QString troffNote(const QString &note)
{
    static const QRegularExpression kTerm(u"^  (\\S.*?)  +(\\S.*)$"_s);
    const QStringList lines = note.split(u'\n', Qt::SkipEmptyParts);
    QString text = troffHeading(lines.value(0));
    const bool isCode = lines.value(0) == u"Examples"_s;
    bool inCode = false;
    bool inTerms = false;
    const auto setCode = [&](bool on) {
        if (on != inCode)
            text += on ? u".PP\n.EX\n"_s : u".EE\n.PP\n"_s;
        inCode = on;
    };
    for (const QString &line : lines.mid(1)) {
        const QRegularExpressionMatch term = kTerm.match(line);
        setCode(isCode || line.startsWith(u"    "_s));
        if (std::exchange(inTerms, term.hasMatch()) && !inTerms)
            text += u".PP\n"_s;
        if (inCode)
            text += troff(line) + u'\n';
        else if (term.hasMatch())
            text += u".TP\n\\fB%1\\fR\n%2\n"_s.arg(troff(term.captured(1)), troff(term.captured(2)));
        else
            text += troff(line.trimmed()) + u'\n';
    }
    setCode(false);
    return text;
}

// "kvo-import" as a part of a shell function's name.
QString functionName(const QString &program)
{
    return u'_' + QString(program).replace(u'-', u'_');
}

// For a word within single quotes of a shell.
QString quoted(QString text)
{
    return u'\'' + text.replace(u'\'', u"'\\''"_s) + u'\'';
}

// For the parts of what _arguments takes, which stand in brackets and between colons.
QString zshText(QString text)
{
    for (const QChar sign : {u'\\', u'[', u']', u':'})
        text.replace(sign, u"\\"_s + sign);
    return text;
}

// The pipelines that stand beside the program, and in the folder that its environment names.
constexpr QLatin1StringView kPipelineNames(R"SH(  local program file
  program=$(command -v "$1") || return 0
  for file in "$(dirname "$program")"/../share/kvo/pipelines/*.json; do
    if [ -e "$file" ]; then basename "$file" .json; fi
  done
)SH");

QString zshOption(const Option &option)
{
    const ValueKind kind = kindOf(option);
    QString value;
    if (kind.takesValue) {
        QString action = u" "_s; // something that nothing is known of
        if (kind.pipelines)
            action = u"{ compadd -- $(%1_pipelines $words[1]); _files -g \"*.json\" }"_s.arg(
                functionName(QCoreApplication::applicationName()));
        else if (kind.folders)
            action = u"_files -/"_s;
        else if (kind.files)
            action = u"_files"_s;
        else if (!kind.words.isEmpty())
            action = u"(%1)"_s.arg(kind.words.join(u' '));
        value = u':' + zshText(option.value) + u':' + action;
    }
    const QStringList names = spellings(option);
    const QString help = u'[' + zshText(option.help) + u']';
    const QString others = names.size() > 1 && !option.repeats ? u"(%1)"_s.arg(names.join(u' ')) : QString();
    QStringList entries;
    for (const QString &name : names) {
        // "--size=64x64" too.
        const QString equals = kind.takesValue && name.startsWith(u"--"_s) ? u"="_s : QString();
        entries << u"    "_s + quoted((option.repeats ? u"*"_s : others) + name + equals + help + value);
    }
    return entries.join(u" \\\n"_s);
}

} // namespace

QString Options::texts(const QString &kind) const
{
    if (kind == u"man"_s)
        return manual();
    if (kind == u"bash"_s)
        return bashCompletion();
    return kind == u"zsh"_s ? zshCompletion() : QString();
}

QString Options::manual() const
{
    const QString program = QCoreApplication::applicationName();
    // "Usage: LINE", then what it is for.
    const QString usage = _purpose.section(u'\n', 0, 0).section(u": "_s, 1);
    const QString purpose = _purpose.section(u'\n', 2).simplified();
    QString brief = purpose.section(u'.', 0, 0).section(u',', 0, 0);
    brief[0] = brief[0].toLower();
    QString text = u".\\\" Made by %1 from its options.\n"_s.arg(program);
    text += u".TH %1 1 \"\" \"Kvo %2\" \"User Commands\"\n.ad l\n.nh\n"_s.arg(troff(program.toUpper()),
                                                                              Brevane::Kvo::libraryVersion());
    text += u".SH NAME\n%1 \\- %2\n"_s.arg(troff(program), troff(brief));
    text += u".SH SYNOPSIS\n\\fB%1\\fR %2\n"_s.arg(troff(program), troff(usage.section(u' ', 1)));
    text += u".SH DESCRIPTION\n%1\n"_s.arg(troff(purpose));
    bool isFirst = true;
    for (const Section &section : _sections) {
        text += troffHeading(section.heading);
        if (isFirst)
            text += u".TP\n\\fIMODEL\\fR\n%1\n"_s.arg(troff(_model));
        isFirst = false;
        for (const Option &option : section.options)
            text += troffOption(option);
    }
    text += troffOption(kHelp) + troffOption(kVersion);
    for (const QString &note : _epilogue.split(u"\n\n"_s, Qt::SkipEmptyParts))
        text += troffNote(note);
    QStringList others;
    for (const QString &other : kPrograms)
        if (other != program)
            others << u"\\fB%1\\fR(1)"_s.arg(troff(other));
    return text + u".SH SEE ALSO\n%1\n"_s.arg(others.join(u", "_s));
}

QString Options::bashCompletion() const
{
    const QString program = QCoreApplication::applicationName();
    const QString function = functionName(program);
    const QVector<Option> options = all() + QVector<Option>{kHelp, kVersion};
    QStringList names;
    QString cases;
    for (const Option &option : options) {
        names << spellings(option);
        const ValueKind kind = kindOf(option);
        if (!kind.takesValue)
            continue;
        QStringList candidates;
        if (kind.pipelines)
            candidates << u"compgen -W \"$(%1_pipelines \"$1\")\" -- \"$word\""_s.arg(function);
        if (kind.folders)
            candidates << u"compgen -d -- \"$word\""_s;
        if (kind.files)
            candidates << u"compgen -f -- \"$word\""_s;
        if (!kind.words.isEmpty())
            candidates << u"compgen -W %1 -- \"$word\""_s.arg(quoted(kind.words.join(u' ')));
        cases += u"    %1) %2 ;;\n"_s.arg(
            spellings(option).join(u'|'),
            candidates.isEmpty() ? u"COMPREPLY=()"_s : u"mapfile -t COMPREPLY < <(%1)"_s.arg(candidates.join(u"; "_s)));
    }
    QString text =
        u"# Made by %1 from its options.\n%2_pipelines() {\n%3}\n\n%2() {\n"_s.arg(program, function, kPipelineNames);
    // Bash has cut "--name=word" at the sign.
    text += uR"SH(  local word=$2 before=$3
  if [ "$word" = = ]; then word=; before=${COMP_WORDS[COMP_CWORD - 1]}; fi
  if [ "$before" = = ]; then before=${COMP_WORDS[COMP_CWORD - 2]}; fi
  COMPREPLY=()
  case $before in
)SH"_s;
    text +=
        cases
        + u"    *)\n      if [[ $word == -* ]]; then\n        mapfile -t COMPREPLY < <(compgen -W %1 -- \"$word\")\n"
          "      else\n        mapfile -t COMPREPLY < <(compgen -f -- \"$word\")\n      fi ;;\n"_s.arg(
              quoted(names.join(u' ')));
    return text + u"  esac\n}\ncomplete -o filenames -F %1 %2\n"_s.arg(function, program);
}

QString Options::zshCompletion() const
{
    const QString program = QCoreApplication::applicationName();
    const QVector<Option> options = all() + QVector<Option>{kHelp, kVersion};
    QStringList entries;
    for (const Option &option : options)
        entries << zshOption(option);
    return u"#compdef %1\n# Made by %1 from its options.\n%2_pipelines() {\n%3}\n\n_arguments -S \\\n%4 \\\n    "
           "'*:model:_files'\n"_s.arg(program, functionName(program), kPipelineNames, entries.join(u" \\\n"_s));
}
