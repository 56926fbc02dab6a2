#pragma once

#include <QByteArray>
#include <QString>

#include <utility>
#include <vector>

namespace Brevane::Kvo {

/// A JSON value that remembers where it stands. Comments, // to the end of a line and /* */, count as space.
struct Json
{
    enum class Type { Null, Bool, Number, String, Array, Object };
    struct Member;

    Type type = Type::Null;
    int line = 1;
    qsizetype from = 0; ///< Of its first character in the text.
    qsizetype to = 0; ///< Behind its last one.
    bool boolean = false;
    double number = 0.0;
    QString string;
    std::vector<Json> elements;
    std::vector<Member> members; ///< In the order of the text; a key that stands twice is kept twice.

    bool isNull() const { return type == Type::Null; }
    bool isNumber() const { return type == Type::Number; }
    bool isString() const { return type == Type::String; }
    bool isArray() const { return type == Type::Array; }
    bool isObject() const { return type == Type::Object; }
    /// The last member of that name, or null.
    const Json *member(const QString &key) const;
    /// "a number", "a string" … for messages.
    QString describe() const;

    /// Parses a whole text; places are counted in the text as QString. On failure gives false, with the line and the reason.
    static bool parse(const QByteArray &text, Json *result, int *errorLine, QString *error);
};

struct Json::Member
{
    QString key;
    int line = 1;
    qsizetype from = 0; ///< Of the key.
    Json value;
};

} // namespace Brevane::Kvo
