#include "json.h"

#include <QStringDecoder>

#include <cmath>

// QJsonDocument tells no lines of values, which is what a message about a wrong slot name needs. The libraries that
// tell where a value stands keep members in a map: they forget the order of the inputs of a file, which savePipeline
// keeps, know no place of a name, and of a name that stands twice only the last value. So this parser stays.

namespace Brevane::Kvo {

namespace {

constexpr int kMaxDepth = 64;

class Parser
{
public:
    explicit Parser(const QString &text) : _text(text) {}

    bool parse(Json *result)
    {
        skipSpace();
        if (!value(result, 0))
            return false;
        skipSpace();
        return (atEnd() || fail(QStringLiteral("text after the end of the document"))) && _error.isEmpty();
    }

    int line() const { return _line; }
    QString error() const { return _error; }

private:
    bool atEnd() const { return _at >= _text.size(); }
    QChar peek() const { return atEnd() ? QChar() : _text[_at]; }

    bool fail(const QString &message)
    {
        if (_error.isEmpty())
            _error = message;
        return false;
    }

    QString found() const
    {
        if (atEnd())
            return QStringLiteral("the end of the text");
        return peek() == QLatin1Char('\n') ? QStringLiteral("the end of the line") : QStringLiteral("'%1'").arg(peek());
    }

    bool expect(char c, const char *where)
    {
        if (peek() != QLatin1Char(c))
            return fail(QStringLiteral("expected '%1' %2, found %3")
                            .arg(QLatin1Char(c))
                            .arg(QLatin1StringView(where), found()));
        ++_at;
        return true;
    }

    bool startsWith(QLatin1StringView text) const { return QStringView(_text).mid(_at, text.size()) == text; }

    void skipSpace()
    {
        for (; !atEnd(); ++_at) {
            const char16_t c = _text[_at].unicode();
            if (c == u'\n')
                ++_line;
            else if (startsWith(QLatin1StringView("//")) || startsWith(QLatin1StringView("/*")))
                skipComment();
            else if (c != u' ' && c != u'\t' && c != u'\r')
                return;
        }
    }

    // To its last character.
    void skipComment()
    {
        const bool isLine = startsWith(QLatin1StringView("//"));
        const qsizetype end =
            isLine ? _text.indexOf(QLatin1Char('\n'), _at) - 1 : _text.indexOf(QLatin1StringView("*/"), _at + 2) + 1;
        if (isLine) {
            _at = end < 0 ? _text.size() - 1 : end;
            return;
        }
        if (end <= 0) {
            fail(QStringLiteral("a comment without its closing '*/'"));
            _at = _text.size() - 1;
            return;
        }
        _line += int(QStringView(_text).mid(_at, end - _at).count(QLatin1Char('\n')));
        _at = end;
    }

    bool value(Json *result, int depth)
    {
        if (depth > kMaxDepth)
            return fail(QStringLiteral("nested more than %1 deep").arg(kMaxDepth));
        result->line = _line;
        result->from = _at;
        const bool ok = valueOfAnyType(result, depth);
        result->to = _at;
        return ok;
    }

    bool valueOfAnyType(Json *result, int depth)
    {
        switch (peek().unicode()) {
        case u'{': return object(result, depth);
        case u'[': return array(result, depth);
        case u'"': result->type = Json::Type::String; return string(&result->string);
        case u't':
        case u'f':
        case u'n': return word(result);
        default: return number(result);
        }
    }

    bool object(Json *result, int depth)
    {
        result->type = Json::Type::Object;
        ++_at;
        skipSpace();
        if (peek() == QLatin1Char('}')) {
            ++_at;
            return true;
        }
        while (true) {
            Json::Member member;
            member.line = _line;
            member.from = _at;
            if (peek() != QLatin1Char('"'))
                return fail(QStringLiteral("expected a name in double quotes, found %1").arg(found()));
            if (!string(&member.key))
                return false;
            skipSpace();
            if (!expect(':', "after a name"))
                return false;
            skipSpace();
            if (!value(&member.value, depth + 1))
                return false;
            result->members.push_back(std::move(member));
            skipSpace();
            if (peek() == QLatin1Char('}')) {
                ++_at;
                return true;
            }
            if (!expect(',', "or '}' after a value"))
                return false;
            skipSpace();
        }
    }

    bool array(Json *result, int depth)
    {
        result->type = Json::Type::Array;
        ++_at;
        skipSpace();
        if (peek() == QLatin1Char(']')) {
            ++_at;
            return true;
        }
        while (true) {
            result->elements.emplace_back();
            if (!value(&result->elements.back(), depth + 1))
                return false;
            skipSpace();
            if (peek() == QLatin1Char(']')) {
                ++_at;
                return true;
            }
            if (!expect(',', "or ']' after a value"))
                return false;
            skipSpace();
        }
    }

    bool string(QString *result)
    {
        ++_at;
        while (true) {
            if (atEnd() || peek() == QLatin1Char('\n'))
                return fail(QStringLiteral("a string without its closing quote"));
            const QChar c = _text[_at++];
            if (c == QLatin1Char('"'))
                return true;
            if (c != QLatin1Char('\\')) {
                result->append(c);
                continue;
            }
            const char16_t escape = atEnd() ? u'\0' : _text[_at++].unicode();
            switch (escape) {
            case u'"':
            case u'\\':
            case u'/': result->append(QChar(escape)); break;
            case u'b': result->append(QLatin1Char('\b')); break;
            case u'f': result->append(QLatin1Char('\f')); break;
            case u'n': result->append(QLatin1Char('\n')); break;
            case u'r': result->append(QLatin1Char('\r')); break;
            case u't': result->append(QLatin1Char('\t')); break;
            case u'u': {
                bool ok = false;
                const ushort code = _text.mid(_at, 4).toUShort(&ok, 16);
                if (!ok || _at + 4 > _text.size())
                    return fail(QStringLiteral("'\\u' needs four hexadecimal digits"));
                result->append(QChar(code));
                _at += 4;
                break;
            }
            default: return fail(QStringLiteral("unknown escape '\\%1'").arg(QChar(escape)));
            }
        }
    }

    bool word(Json *result)
    {
        const auto take = [this](QLatin1StringView text) {
            if (QStringView(_text).mid(_at, text.size()) != text)
                return false;
            _at += text.size();
            return true;
        };
        result->type = Json::Type::Bool;
        result->boolean = true;
        if (take(QLatin1StringView("true")))
            return true;
        result->boolean = false;
        if (take(QLatin1StringView("false")))
            return true;
        result->type = Json::Type::Null;
        return take(QLatin1StringView("null")) || fail(QStringLiteral("expected a value, found %1").arg(found()));
    }

    bool number(Json *result)
    {
        const qsizetype from = _at;
        while (!atEnd() && (peek().isDigit() || QLatin1StringView("+-.eE").contains(peek())))
            ++_at;
        if (_at == from)
            return fail(QStringLiteral("expected a value, found %1").arg(found()));
        bool ok = false;
        const QString text = _text.mid(from, _at - from);
        result->type = Json::Type::Number;
        result->number = text.toDouble(&ok);
        return (ok && std::isfinite(result->number)) || fail(QStringLiteral("'%1' is not a number").arg(text));
    }

    const QString _text;
    qsizetype _at = 0;
    int _line = 1;
    QString _error;
};

} // namespace

const Json *Json::member(const QString &key) const
{
    for (auto m = members.rbegin(); m != members.rend(); ++m)
        if (m->key == key)
            return &m->value;
    return nullptr;
}

QString Json::describe() const
{
    switch (type) {
    case Type::Null: return QStringLiteral("null");
    case Type::Bool: return boolean ? QStringLiteral("true") : QStringLiteral("false");
    case Type::Number: return QStringLiteral("the number %1").arg(number);
    case Type::String: return QStringLiteral("the text \"%1\"").arg(string);
    case Type::Array: return QStringLiteral("a list of %1").arg(elements.size());
    case Type::Object: return QStringLiteral("an object");
    }
    return QString();
}

bool Json::parse(const QByteArray &text, Json *result, int *errorLine, QString *error)
{
    QStringDecoder decoder(QStringDecoder::Utf8);
    const QString decoded = decoder(text);
    if (decoder.hasError()) {
        *errorLine = 1;
        *error = QStringLiteral("the text is not UTF-8");
        return false;
    }
    Parser parser(decoded);
    const bool ok = parser.parse(result);
    *errorLine = parser.line();
    *error = parser.error();
    return ok;
}

} // namespace Brevane::Kvo
