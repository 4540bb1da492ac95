// A translucent ring drawn over the background picture to point at a button of the unit.
#pragma once

#include <cstdint>
#include <vector>

#include <QColor>
#include <QPoint>
#include <QWidget>

#include "gui/settings.h"

class Circle final : public QWidget
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(Circle)

public:
    struct Data
    {
        QPoint center;
        std::int32_t radius = 0;
        std::int32_t pen_width = 0;
        QColor color;
    };

    Circle(Data data, QWidget* parent);

    void setup();
    void setCenter(QPoint center);
    const Data& data() const { return data_; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    Data data_;
};

void add_circles(const std::vector<Circle::Data>& circles, QWidget* parent);
void add_circles(const std::vector<Settings::CircleData>& circles, QWidget* parent);
