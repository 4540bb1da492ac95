// The window's layout model: highlight circles and labels read from the layout file.
#pragma once

#include <cstdint>
#include <vector>

#include <QColor>
#include <QDebug>
#include <QJsonObject>
#include <QPoint>
#include <QString>

#include "device/products.h"

namespace Settings {

struct CircleData
{
    QString name; // only for print-outs
    QPoint center{0, 0};
    std::int32_t radius = 0;
    std::int32_t pen_width = 0;
    QColor color;

    operator QString() const;
};

struct LabelData
{
    QString id;
    QPoint position{-1, -1};
    std::int32_t size = -1;
    // No key sets it and nothing reads it; kept so the record keeps its shape.
    std::int32_t reserved = 100;
    QString font;
    QString text; // rich text, may hold "%1", "%2"
    bool create = true;
    bool white = true;

    operator QString() const;
};

struct GUI
{
    // Nothing read yet; the parsing constructor always ends valid, even on a broken file.
    GUI() = default;
    explicit GUI(const QString& json);

    const LabelData* label(const QString& id) const;
    QString text(const QString& id) const;

    operator QString() const;

    bool valid = false;
    std::vector<CircleData> circles;
    std::vector<LabelData> labels;
};

// The layout plus what the carried firmware image says about itself.
struct Settings
{
    GUI gui;
    QString desired_FW_name;
    Device::Type desired_FW_type = Device::Invalid;
    QString desired_FW_revision;
};

CircleData CircleData_factory(const QJsonObject& object);
LabelData LabelData_factory(const QJsonObject& object);

QString load_settings_file(const QString& path);
GUI make_GUI(const QString& path);

QDebug operator<<(QDebug dbg, const CircleData& circle);
QDebug operator<<(QDebug dbg, const LabelData& label);
QDebug operator<<(QDebug dbg, const GUI& gui);

} // namespace Settings
