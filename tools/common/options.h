#pragma once

#include "messages.h"

#include <QMap>
#include <QString>
#include <QStringList>
#include <QVector>

#include <functional>
#include <optional>

/// An option of a program, declared once: how it is spelt, what the help says of it, how its value is read, and
/// what it does not go with.
struct Option
{
    const QString &longName() const { return names.last(); }

    /// Takes one value. False when it is none, with the reason where there is more to say than what the option takes.
    using Read = std::function<bool(const QString &text, QString *reason)>;

    QStringList names; ///< "s", "size": a letter before the name, where there is one.
    QString value; ///< For the help: "WxH". Empty: a switch, whose reader gets an empty text.
    QString help;
    QString takes; ///< For the message: "WIDTHxHEIGHT from 1x1".
    Read read;
    bool repeats = false;
    QStringList excludes = {}; ///< Names of options.
    QString repeatsWith = {}; ///< For the help: the option beside which it may be repeated, where that is needed.
    bool ofRun = false; ///< It speaks of a run of the program, and not of one of its pictures.
};

/// "; may be repeated", where it may, for behind its help.
QString repetitionOf(const Option &option);

/// The texts of options by their long names, as on a command line; a switch has one empty text.
using OptionTexts = QMap<QString, QStringList>;

/// Readers for options that are taken as they are.
Option::Read into(bool *flag);
Option::Read into(QString *text); ///< Empty texts are refused.
Option::Read into(QStringList *texts);
/// Whole numbers and others within bounds; not NaN.
Option::Read into(int *number, int least, int most);
Option::Read into(float *number, float least, float most);

/// The command line of a program: its help, and what becomes of its arguments. -h, --help, -v and --version are there
/// from the start.
class Options
{
public:
    /// \a purpose: a paragraph or two. \a model: what the help says of the model that may be named.
    Options(const QString &purpose, const QString &model);

    /// What is added next stands under this heading in the help.
    void section(const QString &heading);
    void add(const Option &option);
    /// One that was added, by its long name; null for others.
    Option *option(const QString &name);
    /// Stands behind the options in the help.
    void epilogue(const QString &text) { _epilogue = text; }

    /// Reads the arguments, in the order in which the options were added. An exit code when the program is to end
    /// at once: after --help and --version, and after a mistake, which has been printed.
    std::optional<ExitCode> read(const QStringList &arguments);
    /// The same with texts from elsewhere. False with the reason.
    bool read(const OptionTexts &texts, QString *error);
    /// What read was given.
    const OptionTexts &given() const { return _given; }
    /// In the order in which they were added.
    QVector<Option> all() const;
    bool isSet(const QString &name) const { return _given.contains(name); }
    /// Model files and the like.
    QStringList files() const { return _files; }
    QString help() const;
    /// Other texts of the same table: "man" is a manual page, "bash" and "zsh" are what these shells complete by. Empty for
    /// other kinds. The build asks a program for them by --texts KIND, which is no option of its table.
    QString texts(const QString &kind) const;

    /// Prints a mistake with a word on where to look.
    static ExitCode mistake(const QString &message);

private:
    struct Section
    {
        QString heading;
        QVector<Option> options;
    };

    QString manual() const;
    QString bashCompletion() const;
    QString zshCompletion() const;
    static bool readAll(const Option &option, const QStringList &texts, QString *error);

    QString _purpose;
    QString _model;
    QString _epilogue;
    QVector<Section> _sections;
    OptionTexts _given;
    QStringList _files;
};
