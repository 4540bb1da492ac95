#include "gui/settings.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonValue>

#include "support/support_misc.h"

namespace Settings {

namespace {

QPoint read_point(const QJsonValue& value)
{
    const QJsonObject object = value.toObject();
    return {object[QLatin1String("x")].toInt(), object[QLatin1String("y")].toInt()};
}

const QString& line_break()
{
    static const QString nl = QStringLiteral("\n");
    return nl;
}

template <typename T> QDebug print(QDebug dbg, const T& item)
{
    // The saver puts the separating space back when the stream had spacing on.
    QDebugStateSaver saver(dbg);
    dbg.nospace().noquote() << QString(item);
    return dbg;
}

} // namespace

CircleData::operator QString() const
{
    return QStringLiteral("Circle '%1': (%2,%3), r=%4, w=%5, color=%6")
        .arg(name, QString::number(center.x()), QString::number(center.y()),
             QString::number(radius), QString::number(pen_width), color.name(QColor::HexArgb));
}

LabelData::operator QString() const
{
    const QString not_white = white ? QString() : QStringLiteral("not-white");
    const QString separator = (!white && !create) ? QStringLiteral(" ") : QString();
    const QString no_create = create ? QString() : QStringLiteral("no-create");
    return QStringLiteral("Label '%1': (%2,%3) {%4%5%6} font='%7':%8: '%9'")
        .arg(id, QString::number(position.x()), QString::number(position.y()), not_white, separator,
             no_create, font, QString::number(size), text);
}

GUI::GUI(const QString& json)
{
    // A file that does not parse gives an empty object: an empty model that is still valid. The
    // window factory reports the missing texts.
    const QJsonObject root = QJsonDocument::fromJson(json.toUtf8()).object();
    for (const QJsonValue& value : root[QLatin1String("circles")].toArray())
        circles.push_back(CircleData_factory(value.toObject()));
    for (const QJsonValue& value : root[QLatin1String("labels")].toArray())
        labels.push_back(LabelData_factory(value.toObject()));
    valid = true;
}

const LabelData* GUI::label(const QString& id) const
{
    for (const LabelData& l : labels) {
        if (l.id.size() == id.size() && l.id == id)
            return &l;
    }
    qWarning() << "No matching label with id" << id << "found";
    return nullptr;
}

QString GUI::text(const QString& id) const
{
    const LabelData* l = label(id);
    return l ? l->text : QString();
}

GUI::operator QString() const
{
    QString out = QStringLiteral("GUI settings:") + line_break();
    if (!valid)
        return out + QStringLiteral("\tInvalid") + line_break();
    for (const CircleData& c : circles)
        out += QLatin1Char('\t') + QString(c) + line_break();
    for (const LabelData& l : labels)
        out += QLatin1Char('\t') + QString(l) + line_break();
    return out;
}

CircleData CircleData_factory(const QJsonObject& object)
{
    // Circle keys carry no presence check: a missing key reads as empty, 0 or (0, 0).
    CircleData c;
    c.name = object[QLatin1String("name")].toString();
    c.center = read_point(object[QLatin1String("center")]);
    c.radius = object[QLatin1String("radius")].toInt();
    c.pen_width = object[QLatin1String("pen_width")].toInt();
    c.color.setNamedColor(object[QLatin1String("color")].toString());
    return c;
}

LabelData LabelData_factory(const QJsonObject& object)
{
    LabelData l;
    if (object.contains(QLatin1String("id")))
        l.id = object[QLatin1String("id")].toString();
    if (object.contains(QLatin1String("position"))) {
        const QJsonObject position = object[QLatin1String("position")].toObject();
        if (position.contains(QLatin1String("x")))
            l.position.setX(position[QLatin1String("x")].toInt());
        if (position.contains(QLatin1String("y")))
            l.position.setY(position[QLatin1String("y")].toInt());
    }
    if (object.contains(QLatin1String("size")))
        l.size = object[QLatin1String("size")].toInt();
    if (object.contains(QLatin1String("font")))
        l.font = object[QLatin1String("font")].toString();
    if (object.contains(QLatin1String("create")))
        l.create = object[QLatin1String("create")].toBool();
    if (object.contains(QLatin1String("white")))
        l.white = object[QLatin1String("white")].toBool();
    if (object.contains(QLatin1String("text")))
        l.text = object[QLatin1String("text")].toString();
    return l;
}

QString load_settings_file(const QString& path)
{
    const QString actual = support_misc::maybe_use_file_instead_of_resource(path);
    try {
        return support_misc::load_text_file(actual);
    } catch (const QString&) {
        // An unreadable file yields an empty model; the window factory stops on the first
        // missing text, which is where a broken layout file is reported.
        return QString();
    }
}

GUI make_GUI(const QString& path)
{
    return GUI(load_settings_file(path));
}

QDebug operator<<(QDebug dbg, const CircleData& circle)
{
    return print(dbg, circle);
}

QDebug operator<<(QDebug dbg, const LabelData& label)
{
    return print(dbg, label);
}

QDebug operator<<(QDebug dbg, const GUI& gui)
{
    return print(dbg, gui);
}

} // namespace Settings
