// lumaxis-background: draws the window's background, the back panel of a flash unit, as a JPEG.
#include <cstdio>

#include <QGuiApplication>
#include <QImage>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <QRadialGradient>

namespace {

constexpr int width = 655;
constexpr int height = 517;

// The window stretches this picture over 665 pixels, so the buttons sit at the picture
// positions that land under the highlight circles at (490, 258) and (424, 258).
constexpr qreal stretch = 655.0 / 665.0;
constexpr QPointF on_button(490 * stretch, 258);
constexpr QPointF select_button(424 * stretch, 258);

void draw_backdrop(QPainter& p)
{
    QLinearGradient g(0, 0, 0, height);
    g.setColorAt(0.0, QColor(0x23, 0x26, 0x2b));
    g.setColorAt(1.0, QColor(0x0e, 0x10, 0x13));
    p.fillRect(QRectF(0, 0, width, height), g);
}

void draw_body(QPainter& p)
{
    // The unit's back, seen from behind: a rounded housing that fills the right half.
    const QRectF body(388, 18, 252, 440);
    QLinearGradient g(body.topLeft(), body.bottomRight());
    g.setColorAt(0.0, QColor(0x3b, 0x3f, 0x46));
    g.setColorAt(0.5, QColor(0x2a, 0x2d, 0x33));
    g.setColorAt(1.0, QColor(0x1c, 0x1e, 0x22));
    p.setPen(QPen(QColor(0x55, 0x5a, 0x63), 2));
    p.setBrush(g);
    p.drawRoundedRect(body, 26, 26);

    // A bevel line along the top edge catches the light.
    p.setPen(QPen(QColor(0x6a, 0x70, 0x7a, 120), 1));
    p.setBrush(Qt::NoBrush);
    p.drawRoundedRect(body.adjusted(4, 4, -4, -4), 22, 22);
}

void draw_display(QPainter& p)
{
    // Kept below the version header that the window draws over the top of the housing.
    const QRectF frame(410, 114, 208, 118);
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(0x0b, 0x0c, 0x0e));
    p.drawRoundedRect(frame, 8, 8);

    const QRectF screen = frame.adjusted(8, 8, -8, -8);
    QLinearGradient g(screen.topLeft(), screen.bottomRight());
    g.setColorAt(0.0, QColor(0x1d, 0x4e, 0x86));
    g.setColorAt(1.0, QColor(0x0c, 0x24, 0x44));
    p.setBrush(g);
    p.drawRoundedRect(screen, 4, 4);

    // Segments of a mode readout and a battery gauge, drawn, not typed, so no font is needed.
    p.setBrush(QColor(0x9f, 0xd0, 0xff, 200));
    for (int i = 0; i < 4; ++i)
        p.drawRoundedRect(QRectF(430 + i * 26, 136, 18, 34), 3, 3);
    p.setBrush(QColor(0x9f, 0xd0, 0xff, 120));
    for (int i = 0; i < 5; ++i)
        p.drawRect(QRectF(430 + i * 16, 186, 12, 18));
    p.setPen(QPen(QColor(0x9f, 0xd0, 0xff, 200), 2));
    p.setBrush(Qt::NoBrush);
    p.drawRect(QRectF(540, 182, 48, 24));
    p.fillRect(QRectF(588, 188, 4, 12), QColor(0x9f, 0xd0, 0xff, 200));
    p.fillRect(QRectF(543, 185, 30, 18), QColor(0x7e, 0xe0, 0x7a, 210));
}

void draw_button(QPainter& p, QPointF centre, qreal radius, QColor cap)
{
    QRadialGradient shade(centre - QPointF(radius / 3, radius / 3), radius * 1.6);
    shade.setColorAt(0.0, cap.lighter(150));
    shade.setColorAt(1.0, cap.darker(180));
    p.setPen(QPen(QColor(0x12, 0x13, 0x16), 3));
    p.setBrush(shade);
    p.drawEllipse(centre, radius, radius);
}

void draw_controls(QPainter& p)
{
    draw_button(p, select_button, 12, QColor(0x9a, 0xa0, 0xa8));
    draw_button(p, on_button, 14, QColor(0xb0, 0x3a, 0x3a));

    // The centre dial: a knurled ring around a pressable cap.
    const QPointF dial(514, 344);
    p.setPen(QPen(QColor(0x12, 0x13, 0x16), 3));
    p.setBrush(QColor(0x26, 0x29, 0x2e));
    p.drawEllipse(dial, 52, 52);
    p.setPen(QPen(QColor(0x70, 0x76, 0x80), 2));
    for (int i = 0; i < 48; ++i) {
        p.save();
        p.translate(dial);
        p.rotate(i * 7.5);
        p.drawLine(QPointF(0, -50), QPointF(0, -42));
        p.restore();
    }
    QRadialGradient cap(dial - QPointF(10, 10), 40);
    cap.setColorAt(0.0, QColor(0x8a, 0x92, 0x9e));
    cap.setColorAt(1.0, QColor(0x3a, 0x3f, 0x47));
    p.setPen(QPen(QColor(0x12, 0x13, 0x16), 2));
    p.setBrush(cap);
    p.drawEllipse(dial, 26, 26);

    // Hot-shoe foot and the USB-C port along the bottom of the housing.
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(0x0b, 0x0c, 0x0e));
    p.drawRoundedRect(QRectF(470, 426, 34, 10), 5, 5);
    p.setBrush(QColor(0x50, 0x55, 0x5d));
    p.drawRoundedRect(QRectF(474, 429, 26, 4), 2, 2);
}

void draw_status_strip(QPainter& p)
{
    // A light strip for the black status line along the bottom.
    QLinearGradient g(0, 470, 0, height);
    g.setColorAt(0.0, QColor(0xd9, 0xdc, 0xe0));
    g.setColorAt(1.0, QColor(0xc4, 0xc8, 0xcd));
    p.fillRect(QRectF(0, 470, width, height - 470), g);
    p.fillRect(QRectF(0, 468, width, 2), QColor(0x5a, 0x60, 0x68));
}

} // namespace

int main(int argc, char* argv[])
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: lumaxis-background OUTPUT.jpg\n");
        return 2;
    }
    // Image plugins are found through the application object; no window is opened.
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);

    QImage image(width, height, QImage::Format_RGB32);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    draw_backdrop(p);
    draw_body(p);
    draw_display(p);
    draw_controls(p);
    draw_status_strip(p);
    p.end();

    if (!image.save(QString::fromLocal8Bit(argv[1]), "JPEG", 90)) {
        std::fprintf(stderr, "lumaxis-background: cannot write %s\n", argv[1]);
        return 1;
    }
    return 0;
}
