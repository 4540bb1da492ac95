#include "gui/circle.h"

#include <QPainter>
#include <QPen>

Circle::Circle(Data data, QWidget* parent) : QWidget(parent), data_(std::move(data))
{
    setup();
}

void Circle::setup()
{
    setBackgroundRole(QPalette::Base);
    setSizePolicy(QSizePolicy());
    setFixedSize(2 * data_.radius, 2 * data_.radius);
    move(data_.center.x() - data_.radius, data_.center.y() - data_.radius);
}

void Circle::setCenter(QPoint center)
{
    data_.center = center;
    move(center.x() - data_.radius, center.y() - data_.radius);
}

void Circle::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(QPen(QBrush(data_.color), double(data_.pen_width), Qt::SolidLine, Qt::SquareCap,
                        Qt::BevelJoin));
    // The stroke is centred on the ellipse, so inset it by half the pen to keep it inside.
    const int h = data_.pen_width / 2;
    const int d = data_.radius - h;
    painter.drawEllipse(QRect(QPoint(h, h), QPoint(h + 2 * d - 1, h + 2 * d - 1)));
}

void add_circles(const std::vector<Circle::Data>& circles, QWidget* parent)
{
    for (const Circle::Data& data : circles)
        (new Circle(data, parent))->show();
}

void add_circles(const std::vector<Settings::CircleData>& circles, QWidget* parent)
{
    for (const Settings::CircleData& c : circles) {
        auto* circle = new Circle({c.center, c.radius, c.pen_width, c.color}, parent);
        // The layout's name says which button of the unit the circle points at.
        circle->setAccessibleName(c.name);
        circle->show();
    }
}
