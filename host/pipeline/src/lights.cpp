#include "host/lights.h"

#include "failure.h"
#include "host/slotname.h"
#include "lightsjson.h"
#include "slotvaluejson.h"

#include <QColor>

#include <algorithm>
#include <cmath>

namespace Brevane::Kvo {

namespace {

/// A member that files and command lines may set; read as a slot of its type is.
struct Member
{
    const char *name;
    const char *type;
    void (*set)(ShadowMapLight &, const QVariant &);
};

template <auto member>
void setMember(ShadowMapLight &light, const QVariant &value)
{
    light.*member = value.value<std::remove_cvref_t<decltype(light.*member)>>();
}

void setColor(ShadowMapLight &light, const QVariant &value)
{
    const QColor c = value.value<QColor>();
    light.color = {c.redF(), c.greenF(), c.blueF()};
}

constexpr Member kMembers[] = {
    {"enabled", "bool", setMember<&ShadowMapLight::enabled>},
    {"position", "QVector3D", setMember<&ShadowMapLight::position>},
    {"direction", "QVector3D", setMember<&ShadowMapLight::direction>},
    {"color", "QColor", setColor},
    {"intensity", "float", setMember<&ShadowMapLight::intensity>},
    {"range", "float", setMember<&ShadowMapLight::range>},
    {"nearPlane", "float", setMember<&ShadowMapLight::nearPlane>},
    {"angle", "float", setMember<&ShadowMapLight::angle>},
    {"softAngle", "float", setMember<&ShadowMapLight::softAngle>},
    {"cascades", "int", setMember<&ShadowMapLight::cascades>},
    {"splitBalance", "float", setMember<&ShadowMapLight::splitBalance>},
    {"distance", "float", setMember<&ShadowMapLight::distance>},
};

struct TypeName
{
    const char *name;
    ShadowMapLight::Type type;
};

constexpr TypeName kTypes[] = {
    {"directional", ShadowMapLight::Type::Directional},
    {"spot", ShadowMapLight::Type::Spot},
    {"point", ShadowMapLight::Type::Point},
};

bool setType(const QString &name, ShadowMapLight *light, QString *error)
{
    QStringList names;
    for (const TypeName &type : kTypes) {
        if (name == QLatin1StringView(type.name)) {
            light->type = type.type;
            return true;
        }
        names << QLatin1StringView(type.name);
    }
    return fail(error, QStringLiteral("there is no light '%1', but %2%3")
                           .arg(name, names.join(QLatin1StringView(", ")), nearestNameHint(name, names)));
}

bool setMemberOf(const QString &name, const Json &json, ShadowMapLight *light, QString *error)
{
    QStringList names;
    for (const Member &member : kMembers) {
        names << QLatin1StringView(member.name);
        if (name != names.last())
            continue;
        QVariant value;
        QString reason;
        const QString slot = QStringLiteral("Kvo_%1_%2").arg(QLatin1StringView(member.type), name);
        if (!slotValueFromJson(slot, json, &value, &reason, QVariant()) || !value.isValid())
            return fail(error, QStringLiteral("\"%1\" of a light is a %2, not %3")
                                   .arg(name, QLatin1StringView(member.type), json.describe()));
        member.set(*light, value);
        return true;
    }
    return fail(error, QStringLiteral("a light has no \"%1\"%2").arg(name, nearestNameHint(name, names)));
}

// The comma-separated numbers behind the type.
bool setNumbers(const QString &text, ShadowMapLight *light, QString *error)
{
    QVector<float> n;
    for (const QString &part : text.split(QLatin1Char(','))) {
        bool ok = false;
        n << part.toFloat(&ok);
        if (!ok || std::isnan(n.last()))
            return fail(error, QStringLiteral("'%1' is no number").arg(part));
    }
    const auto vector = [&n](qsizetype at) { return QVector3D(n[at], n[at + 1], n[at + 2]); };
    switch (light->type) {
    case ShadowMapLight::Type::Directional:
        if (n.size() != 3 && n.size() != 4)
            return fail(error, QStringLiteral("a directional light takes dx,dy,dz[,cascades]"));
        light->direction = vector(0);
        if (n.size() == 4)
            light->cascades = int(std::clamp(n[3], -100.0f, 100.0f));
        return true;
    case ShadowMapLight::Type::Spot:
        if (n.size() < 6 || n.size() > 8)
            return fail(error, QStringLiteral("a spot light takes x,y,z,dx,dy,dz[,angle[,range]]"));
        light->position = vector(0);
        light->direction = vector(3);
        light->angle = n.value(6, light->angle);
        light->range = n.value(7, light->range);
        return true;
    case ShadowMapLight::Type::Point:
        if (n.size() != 3 && n.size() != 4)
            return fail(error, QStringLiteral("a point light takes x,y,z[,range]"));
        light->position = vector(0);
        light->range = n.value(3, light->range);
        return true;
    }
    return false;
}

// A setting's text as JSON, as parseSlotValue takes it: text that is no JSON is text.
Json jsonOf(const QString &text)
{
    Json json;
    int line = 0;
    QString reason;
    if (!Json::parse(text.toUtf8(), &json, &line, &reason)) {
        json = Json();
        json.type = Json::Type::String;
        json.string = text;
    }
    return json;
}

} // namespace

bool parseLight(const QString &text, ShadowMapLight *light, QString *error)
{
    ShadowMapLight parsed;
    const QStringList parts = text.split(QLatin1Char(':'));
    if (!setType(parts[0], &parsed, error))
        return false;
    if (parts.size() < 2)
        return fail(error, QStringLiteral("a light takes numbers behind its type, as in directional:0,-1,0"));
    if (!setNumbers(parts[1], &parsed, error))
        return false;
    for (const QString &setting : parts.mid(2)) {
        const qsizetype equals = setting.indexOf(QLatin1Char('='));
        if (equals < 1)
            return fail(error, QStringLiteral("a setting of a light is NAME=VALUE, not '%1'").arg(setting));
        if (!setMemberOf(setting.left(equals), jsonOf(setting.mid(equals + 1)), &parsed, error))
            return false;
    }
    *light = parsed;
    return true;
}

bool lightFromJson(const Json &json, ShadowMapLight *light, int *line, QString *error)
{
    *line = json.line;
    const Json *type = json.member(QStringLiteral("type"));
    if (!json.isObject() || !type || !type->isString())
        return fail(error, QStringLiteral("a light is an object with a \"type\": directional, spot or point"));
    *line = type->line;
    if (!setType(type->string, light, error))
        return false;
    for (const Json::Member &member : json.members) {
        *line = member.line;
        if (&member.value != type && !setMemberOf(member.key, member.value, light, error))
            return false;
    }
    return true;
}

QVariantList lightsToVariant(const QVector<ShadowMapLight> &lights)
{
    QVariantList list;
    for (const ShadowMapLight &light : lights)
        list << QVariant::fromValue(light);
    return list;
}

} // namespace Brevane::Kvo
