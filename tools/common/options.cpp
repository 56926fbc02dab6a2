#include "options.h"

#include "host/versiondetails.h"

#include <QCommandLineParser>

#include <cstdio>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype kTextColumn = 27;
constexpr qsizetype kWidth = 108;

QString spelling(const Option &option)
{
    const QString letter = option.names.size() > 1 ? u"-%1, "_s.arg(option.names.first()) : u"    "_s;
    return u"  %1--%2%3"_s.arg(letter, option.longName(), option.value.isEmpty() ? QString() : u' ' + option.value);
}

// Words from the text's column on; what stands before it has the line to itself where it is too long.
QString paragraph(const QString &before, const QString &text)
{
    QString result;
    QString line = before;
    if (line.size() >= kTextColumn) {
        result += line + u'\n';
        line.clear();
    }
    line = line.leftJustified(kTextColumn);
    bool isFirst = true;
    for (const QString &word : text.split(u' ')) {
        if (!isFirst && line.size() + 1 + word.size() > kWidth) {
            result += line + u'\n';
            line = QString().leftJustified(kTextColumn);
            isFirst = true;
        }
        line += (isFirst ? QString() : u" "_s) + word;
        isFirst = false;
    }
    return result + line + u'\n';
}

// NaN is within no bounds.
template <typename Number>
bool store(Number value, Number least, Number most, Number *number)
{
    if (!(value >= least && value <= most))
        return false;
    *number = value;
    return true;
}

} // namespace

QString repetitionOf(const Option &option)
{
    if (!option.repeats)
        return QString();
    return u"; may be repeated"_s + (option.repeatsWith.isEmpty() ? QString() : u" with --"_s + option.repeatsWith);
}

Option::Read into(bool *flag)
{
    return [flag](const QString &, QString *) { return *flag = true; };
}

Option::Read into(QString *text)
{
    return [text](const QString &given, QString *) {
        *text = given;
        return !given.isEmpty();
    };
}

Option::Read into(QStringList *texts)
{
    return [texts](const QString &given, QString *) {
        texts->append(given);
        return !given.isEmpty();
    };
}

Option::Read into(int *number, int least, int most)
{
    return [=](const QString &text, QString *) {
        bool ok = false;
        const int value = text.toInt(&ok);
        return ok && store(value, least, most, number);
    };
}

Option::Read into(float *number, float least, float most)
{
    return [=](const QString &text, QString *) {
        bool ok = false;
        const float value = text.toFloat(&ok);
        return ok && store(value, least, most, number);
    };
}

Options::Options(const QString &purpose, const QString &model) : _purpose(purpose), _model(model) {}

void Options::section(const QString &heading)
{
    _sections.append({heading, {}});
}

void Options::add(const Option &option)
{
    _sections.last().options.append(option);
}

Option *Options::option(const QString &name)
{
    for (Section &section : _sections)
        for (Option &option : section.options)
            if (option.longName() == name)
                return &option;
    return nullptr;
}

QString Options::help() const
{
    QString text = _purpose + u'\n';
    bool isFirst = true;
    for (const Section &section : _sections) {
        text += u'\n' + section.heading + u'\n';
        if (std::exchange(isFirst, false))
            text += paragraph(u"  MODEL"_s, _model);
        for (const Option &option : section.options)
            text += paragraph(spelling(option), option.help + repetitionOf(option));
    }
    text += u"  -h, --help, -v, --version\n"_s;
    return _epilogue.isEmpty() ? text : text + u'\n' + _epilogue;
}

ExitCode Options::mistake(const QString &message)
{
    complain(u"%1 (see %2 --help)"_s.arg(message, QCoreApplication::applicationName()));
    return kUsage;
}

bool Options::readAll(const Option &option, const QStringList &texts, QString *error)
{
    const QString &name = option.longName();
    for (const QString &text : texts) {
        QString reason;
        if (option.read(text, &reason))
            continue;
        *error = reason.isEmpty() ? u"--%1 takes %2, not '%3'"_s.arg(name, option.takes, text)
                                  : u"--%1 %2: %3"_s.arg(name, text, reason);
        return false;
    }
    return true;
}

QVector<Option> Options::all() const
{
    QVector<Option> options;
    for (const Section &section : _sections)
        options += section.options;
    return options;
}

bool Options::read(const OptionTexts &texts, QString *error)
{
    for (const Option &option : all()) {
        const QString &name = option.longName();
        if (!texts.contains(name))
            continue;
        for (const QString &other : option.excludes) {
            if (texts.contains(other)) {
                *error = u"--%1 and --%2 do not go together"_s.arg(name, other);
                return false;
            }
        }
        // Of an option that counts once, the last one does.
        const QStringList values = option.repeats ? texts[name] : texts[name].last(1);
        if (!readAll(option, values, error))
            return false;
    }
    _given = texts;
    return true;
}

std::optional<ExitCode> Options::read(const QStringList &arguments)
{
    if (arguments.size() == 3 && arguments[1] == u"--texts"_s) {
        const QString text = texts(arguments[2]);
        std::fputs(qPrintable(text), stdout);
        return text.isEmpty() ? kUsage : kSuccess;
    }
    QCommandLineParser parser;
    parser.addOptions({{{u"h"_s, u"help"_s}, QString()}, {{u"v"_s, u"version"_s}, QString()}});
    const QVector<Option> options = all();
    for (const Option &option : options)
        parser.addOption({option.names, QString(), option.value});
    if (!parser.parse(arguments))
        return mistake(parser.errorText());
    if (parser.isSet(u"help"_s)) {
        std::fputs(qPrintable(help()), stdout);
        return kSuccess;
    }
    if (parser.isSet(u"version"_s)) {
        std::printf("%s %s", qPrintable(QCoreApplication::applicationName()),
                    qPrintable(Brevane::Kvo::versionDetails().text()));
        return kSuccess;
    }
    _files = parser.positionalArguments();
    OptionTexts texts;
    for (const Option &option : options)
        if (parser.isSet(option.longName()))
            texts[option.longName()] =
                option.value.isEmpty() ? QStringList{QString()} : parser.values(option.longName());
    QString error;
    if (!read(texts, &error))
        return mistake(error);
    return std::nullopt;
}
